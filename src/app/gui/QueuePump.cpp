#include "app/gui/QueuePump.h"

#include <chrono>

#include "core/MainQueue.h"

namespace quillon::gui {

QueuePump::QueuePump(QObject* parent) : QObject(parent) {
    timer_.setSingleShot(true);
    timer_.setTimerType(Qt::PreciseTimer);
    connect(&timer_, &QTimer::timeout, this, &QueuePump::run);
    MainQueue::shared().setWakeup([this] {
        // One queued call at a time: a burst of posts from a worker costs one wake-up.
        if (!scheduled_.exchange(true))
            QMetaObject::invokeMethod(this, &QueuePump::run, Qt::QueuedConnection);
    });
    // Work queued before the window existed.
    scheduled_ = true;
    QMetaObject::invokeMethod(this, &QueuePump::run, Qt::QueuedConnection);
}

QueuePump::~QueuePump() {
    MainQueue::shared().setWakeup({});
}

void QueuePump::run() {
    // Cleared first: a task posted while this pump runs queues the next one.
    scheduled_ = false;
    auto& queue = MainQueue::shared();
    queue.pump();
    if (auto due = queue.nextTimerDue()) {
        auto wait = std::chrono::ceil<std::chrono::milliseconds>(*due - queue.now());
        timer_.start(std::max<std::chrono::milliseconds::rep>(0, wait.count()));
    } else {
        timer_.stop();
    }
}

}  // namespace quillon::gui
