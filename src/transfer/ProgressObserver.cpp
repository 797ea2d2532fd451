#include "transfer/ProgressObserver.h"

#include <vector>

namespace quillon {

void TransferProgress::setCompletedUnitCount(std::int64_t n) {
    completed_.store(n);
    notify(Change::CompletedUnitCount);
}

void TransferProgress::cancel() {
    if (cancelled_.exchange(true)) return;
    notify(Change::Cancelled);
}

TransferProgress::Token TransferProgress::addObserver(Observer observer) {
    std::lock_guard lock(mutex_);
    auto token = next_++;
    observers_[token] = std::make_shared<Observer>(std::move(observer));
    return token;
}

void TransferProgress::removeObserver(Token token) {
    std::lock_guard lock(mutex_);
    observers_.erase(token);
}

void TransferProgress::notify(Change change) {
    // Observers run without the lock so that they may add or remove observers.
    std::vector<std::shared_ptr<Observer>> current;
    {
        std::lock_guard lock(mutex_);
        for (auto& [token, o] : observers_) current.push_back(o);
    }
    for (auto& o : current) (*o)(change);
}

ProgressObserver::ProgressObserver(std::shared_ptr<TransferProgress> progress)
    : ProgressObserver(std::string(), std::move(progress)) {}

ProgressObserver::ProgressObserver(std::string name, std::shared_ptr<TransferProgress> progress)
    : name_(std::move(name)), progress_(std::move(progress)) {
    if (!progress_) return;
    token_ = progress_->addObserver([this](TransferProgress::Change change) {
        auto* d = delegate();
        if (!d) return;
        if (change == TransferProgress::Change::Cancelled) {
            d->observerDidCancel(*this);
            return;
        }
        d->observerDidChange(*this);
        if (progress_->completedUnitCount() == progress_->totalUnitCount())
            d->observerDidComplete(*this);
    });
}

ProgressObserver::~ProgressObserver() {
    if (progress_) progress_->removeObserver(token_);
}

}  // namespace quillon
