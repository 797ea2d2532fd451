#include "servers/streaming/OperationQueue.h"

#include <algorithm>

#include "core/GCD.h"

namespace quillon {

void Operation::start() {
    if (!cancelled_) {
        executing_ = true;
        main();
        executing_ = false;
    }
    finished_ = true;
}

OperationQueue::OperationQueue(std::string name, int maxConcurrentOperationCount)
    : name_(std::move(name)), maxConcurrent_(std::max(1, maxConcurrentOperationCount)) {}

OperationQueue::~OperationQueue() {
    cancelAllOperations();
    waitUntilAllOperationsAreFinished();
}

void OperationQueue::setMaxConcurrentOperationCount(int count) {
    std::unique_lock lock(mutex_);
    maxConcurrent_ = std::max(1, count);
    startWaiting(lock);
}

int OperationQueue::maxConcurrentOperationCount() const {
    std::lock_guard lock(mutex_);
    return maxConcurrent_;
}

void OperationQueue::addOperation(std::shared_ptr<Operation> operation) {
    std::unique_lock lock(mutex_);
    operations_.push_back(operation);
    waiting_.push_back(std::move(operation));
    startWaiting(lock);
}

void OperationQueue::startWaiting(std::unique_lock<std::mutex>&) {
    while (running_ < maxConcurrent_ && !waiting_.empty()) {
        auto op = std::move(waiting_.front());
        waiting_.pop_front();
        ++running_;
        GCD::doInBackground([this, op] {
            op->start();
            std::unique_lock lock(mutex_);
            --running_;
            std::erase(operations_, op);
            startWaiting(lock);
            finished_.notify_all();
        });
    }
}

std::vector<std::shared_ptr<Operation>> OperationQueue::operations() const {
    std::lock_guard lock(mutex_);
    return operations_;
}

void OperationQueue::cancelAllOperations() {
    for (auto& op : operations()) op->cancel();
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
    std::unique_lock lock(mutex_);
    finished_.wait(lock, [&] { return operations_.empty(); });
}

}  // namespace quillon
