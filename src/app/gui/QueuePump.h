#pragma once
// QueuePump: runs the core's main queue from Qt's event loop. A task posted from any thread wakes
// the loop through a queued call; the earliest main-queue timer arms one Qt timer. Nothing polls.

#include <QObject>
#include <QTimer>
#include <atomic>

namespace quillon::gui {

class QueuePump : public QObject {
    Q_OBJECT
  public:
    // Pumps the shared main queue while it lives; create it on the window's thread.
    explicit QueuePump(QObject* parent = nullptr);
    ~QueuePump() override;

  private:
    void run();

    QTimer timer_;
    std::atomic<bool> scheduled_{false};
};

}  // namespace quillon::gui
