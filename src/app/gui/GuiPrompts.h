#pragma once
// GuiPrompts: the transfer engine's questions as windows of this program. Each question opens a
// window-modal dialog and returns at once; the answer is given when the dialog closes, so the main
// queue keeps running. Conflict questions asked while one is open wait their turn.

#include <QPointer>
#include <QWidget>
#include <deque>

#include "transfer/UserPrompts.h"

#include <QDialog>

namespace quillon::gui {

class GuiPrompts : public UserPrompts {
  public:
    explicit GuiPrompts(QWidget* window) : window_(window) {}
    ~GuiPrompts() override;

    void resolveConflict(const ResolveConflictItem& item, ConflictAnswer answer) override;
    void alertTaskFailure(const std::string& message, bool offerIgnore,
                          FailureAnswer answer) override;

    // The dialog open now (for tests and screenshots), or null.
    QDialog* openDialog() const { return open_; }

  private:
    struct Question {
        ResolveConflictItem item;
        ConflictAnswer answer;
    };
    void showNext();

    QPointer<QWidget> window_;
    QPointer<QDialog> open_;
    std::deque<Question> waiting_;
};

}  // namespace quillon::gui
