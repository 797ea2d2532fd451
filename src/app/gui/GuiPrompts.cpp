#include "app/gui/GuiPrompts.h"

#include <QCheckBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QStyle>
#include <QVBoxLayout>

#include "core/LocalizedUtils.h"

namespace quillon::gui {

namespace {

QPushButton* addButton(QDialogButtonBox* box, const QString& text, const char* name,
                       QDialogButtonBox::ButtonRole role) {
    auto* b = box->addButton(text, role);
    b->setObjectName(name);
    b->setAccessibleName(text);
    return b;
}

}  // namespace

GuiPrompts::~GuiPrompts() {
    // Questions nobody can answer any more are skipped, so that their tasks end.
    auto waiting = std::move(waiting_);
    for (auto& q : waiting) q.answer(ConflictAction::Skip, false);
    if (open_) {
        open_->reject();
        QObject::disconnect(open_, nullptr, nullptr, nullptr);
        delete open_;
    }
}

void GuiPrompts::resolveConflict(const ResolveConflictItem& item, ConflictAnswer answer) {
    waiting_.push_back({item, std::move(answer)});
    if (!open_) showNext();
}

void GuiPrompts::showNext() {
    if (waiting_.empty() || open_) return;
    auto question = std::make_shared<Question>(std::move(waiting_.front()));
    waiting_.pop_front();

    auto* dialog = new QDialog(window_);
    dialog->setObjectName("conflictDialog");
    dialog->setWindowTitle(QObject::tr("An item with this name already exists"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowModality(Qt::WindowModal);
    auto* layout = new QVBoxLayout(dialog);
    auto* top = new QHBoxLayout;
    auto* icon = new QLabel(dialog);
    icon->setPixmap(dialog->style()->standardIcon(QStyle::SP_MessageBoxQuestion).pixmap(48, 48));
    top->addWidget(icon, 0, Qt::AlignTop);
    auto* text = new QLabel(QString::fromStdString(question->item.message), dialog);
    text->setWordWrap(true);
    text->setMinimumWidth(360);
    text->setTextInteractionFlags(Qt::TextSelectableByMouse);
    top->addWidget(text, 1);
    layout->addLayout(top);
    auto* all = new QCheckBox(QObject::tr("Apply to all"), dialog);
    all->setObjectName("applyToAll");
    all->setAccessibleName(QObject::tr("Apply to all"));
    layout->addWidget(all);
    auto* box = new QDialogButtonBox(dialog);
    layout->addWidget(box);

    // The answer is given once: by a button, or as "skip" when the dialog is closed otherwise.
    auto answered = std::make_shared<bool>(false);
    auto give = [this, question, answered, dialog, all](ConflictAction action) {
        if (*answered) return;
        *answered = true;
        bool applyToAll = all->isChecked();
        open_ = nullptr;
        dialog->close();
        question->answer(action, applyToAll);
        // The next question once this one is answered (the answer may settle it).
        if (window_)
            QMetaObject::invokeMethod(
                window_, [this] { showNext(); }, Qt::QueuedConnection);
    };
    if (!question->item.hideReplaceButton) {
        auto* replace =
            addButton(box, QObject::tr("Replace"), "replace", QDialogButtonBox::DestructiveRole);
        QObject::connect(replace, &QPushButton::clicked, dialog,
                         [give] { give(ConflictAction::Replace); });
    }
    // A folder copied onto a folder may also take in the other's items (a move never merges).
    if (question->item.offerMerge && !question->item.hideReplaceButton) {
        auto* merge = addButton(box, QObject::tr("Merge"), "merge", QDialogButtonBox::ApplyRole);
        QObject::connect(merge, &QPushButton::clicked, dialog,
                         [give] { give(ConflictAction::Merge); });
    }
    auto* keep = addButton(box, QObject::tr("Keep Both"), "keepBoth", QDialogButtonBox::AcceptRole);
    QObject::connect(keep, &QPushButton::clicked, dialog,
                     [give] { give(ConflictAction::KeepBoth); });
    auto* skip = addButton(box, QObject::tr("Skip"), "skip", QDialogButtonBox::RejectRole);
    skip->setDefault(true);
    QObject::connect(skip, &QPushButton::clicked, dialog, [give] { give(ConflictAction::Skip); });
    QObject::connect(dialog, &QDialog::rejected, dialog, [give] { give(ConflictAction::Skip); });
    open_ = dialog;
    dialog->open();
}

void GuiPrompts::alertTaskFailure(const std::string& message, bool offerIgnore,
                                  FailureAnswer answer) {
    auto* box = new QMessageBox(QMessageBox::Warning, QObject::tr("Transfer failed"),
                                QString::fromStdString(message), QMessageBox::NoButton, window_);
    box->setObjectName("failureAlert");
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowModality(Qt::WindowModal);
    QString stopText = QString::fromStdString(LocalizedUtils::localizedStringForKey("Stop", ""));
    auto* stop = box->addButton(stopText, QMessageBox::RejectRole);
    stop->setObjectName("stop");
    stop->setAccessibleName(stopText);
    if (offerIgnore) {
        QString ignoreText =
            QString::fromStdString(LocalizedUtils::localizedStringForKey("Ignore", ""));
        auto* ignore = box->addButton(ignoreText, QMessageBox::AcceptRole);
        ignore->setObjectName("ignore");
        ignore->setAccessibleName(ignoreText);
        box->setDefaultButton(ignore);
    }
    auto answered = std::make_shared<bool>(false);
    QObject::connect(box, &QMessageBox::finished, box, [box, stop, answered, answer] {
        if (*answered) return;
        *answered = true;
        answer(box->clickedButton() == stop || !box->clickedButton() ? FailureChoice::Stop
                                                                     : FailureChoice::Ignore);
    });
    box->open();
}

}  // namespace quillon::gui
