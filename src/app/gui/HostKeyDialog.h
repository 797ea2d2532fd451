#pragma once
// HostKeyAsker: the SSH host-key question (an unknown key, or one that changed) as a dialog of
// the window. The client asks on its own thread and waits; the dialog opens on the window's
// thread without blocking it, and its answer is handed back through the question's callback.
// A question asked on the window's thread itself is refused: waiting there would freeze the
// window. When the asker goes, questions still open are refused.

#include <QObject>
#include <QPointer>

#include "core/HostKeyPrompt.h"

#include <QMessageBox>

namespace quillon::gui {

class HostKeyAsker : public QObject {
    Q_OBJECT
  public:
    // Installs itself as the program's host-key asker while it lives.
    explicit HostKeyAsker(QWidget* window);
    ~HostKeyAsker() override;

    // Opens the question's dialog and returns at once; `answer` is called once, on the window's
    // thread, when the dialog closes (refused unless the trust button was chosen).
    void ask(const HostKeyQuestion& question, std::function<void(HostKeyAnswer)> answer);
    // The dialog open now (for tests and screenshots), or null.
    QMessageBox* openDialog() const { return open_; }

  private:
    QPointer<QWidget> window_;
    QPointer<QMessageBox> open_;
};

}  // namespace quillon::gui
