#include "app/gui/HostKeyDialog.h"

#include <QCoreApplication>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QThread>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>

namespace quillon::gui {

namespace {

// The answer a waiting client thread reads. Whoever holds the last reference without having
// answered (a dialog deleted with its window, a call the event loop never ran) refuses.
class PendingAnswer {
  public:
    void give(HostKeyAnswer a) {
        std::lock_guard lock(mutex_);
        if (!answer_) answer_ = a;
        ready_.notify_all();
    }
    HostKeyAnswer wait() {
        std::unique_lock lock(mutex_);
        ready_.wait(lock, [this] { return answer_.has_value(); });
        return *answer_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable ready_;
    std::optional<HostKeyAnswer> answer_;
};

struct RefuseUnlessAnswered {
    std::shared_ptr<PendingAnswer> pending;
    ~RefuseUnlessAnswered() {
        if (pending) pending->give(HostKeyAnswer::Refuse);
    }
};

}  // namespace

HostKeyAsker::HostKeyAsker(QWidget* window) : QObject(window), window_(window) {
    QPointer<HostKeyAsker> self(this);
    auto* guiThread = thread();
    HostKeyPrompt::setAsker([self, guiThread](const HostKeyQuestion& q) {
        if (QThread::currentThread() == guiThread) return HostKeyAnswer::Refuse;
        auto pending = std::make_shared<PendingAnswer>();
        auto guard = std::make_shared<RefuseUnlessAnswered>();
        guard->pending = pending;
        // The functor holds the guard: dropped unrun (the asker gone), it refuses.
        auto* app = QCoreApplication::instance();
        if (!app) return HostKeyAnswer::Refuse;
        bool queued = QMetaObject::invokeMethod(
            app,
            [self, q, guard] {
                if (!self) return;
                self->ask(q, [guard](HostKeyAnswer a) { guard->pending->give(a); });
            },
            Qt::QueuedConnection);
        if (!queued) return HostKeyAnswer::Refuse;
        guard.reset();
        return pending->wait();
    });
}

HostKeyAsker::~HostKeyAsker() {
    HostKeyPrompt::setAsker({});
    if (open_) delete open_.data();
}

void HostKeyAsker::ask(const HostKeyQuestion& q, std::function<void(HostKeyAnswer)> answer) {
    auto host = QString::fromStdString(q.host);
    auto key = tr("The %1 key fingerprint is\n%2")
                   .arg(QString::fromStdString(q.keyType), QString::fromStdString(q.fingerprint));
    auto* box = new QMessageBox(window_);
    box->setObjectName("hostKeyDialog");
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowModality(Qt::WindowModal);
    if (q.changed) {
        box->setIcon(QMessageBox::Critical);
        box->setWindowTitle(tr("Host key changed"));
        box->setText(tr("The host key of %1 has CHANGED.").arg(host));
        box->setInformativeText(tr("Someone may be intercepting the connection, or the server "
                                   "was given a new key.\n\n%1\n\nTrust the new key only if "
                                   "the server's administrator confirms it.")
                                    .arg(key));
    } else {
        box->setIcon(QMessageBox::Question);
        box->setWindowTitle(tr("Unknown host key"));
        box->setText(tr("The authenticity of %1 cannot be established.").arg(host));
        box->setInformativeText(
            tr("%1\n\nTrust this key and remember it in the known hosts?").arg(key));
    }
    box->setTextInteractionFlags(Qt::TextSelectableByMouse);
    // Wide enough for the fingerprint on one line: a broken one is hard to compare.
    if (auto* info = box->findChild<QLabel*>("qt_msgbox_informativelabel"))
        info->setMinimumWidth(
            info->fontMetrics().horizontalAdvance(QString::fromStdString(q.fingerprint)) + 8);
    auto* trust =
        box->addButton(q.changed ? tr("Trust New Key") : tr("Trust"), QMessageBox::AcceptRole);
    trust->setObjectName("trustHostKey");
    trust->setAccessibleName(trust->text());
    auto* refuse = box->addButton(tr("Refuse"), QMessageBox::RejectRole);
    refuse->setObjectName("refuseHostKey");
    refuse->setAccessibleName(refuse->text());
    // A changed key is refused unless a person deliberately chooses otherwise.
    box->setDefaultButton(q.changed ? refuse : trust);
    box->setEscapeButton(refuse);
    auto once = std::make_shared<std::function<void(HostKeyAnswer)>>(std::move(answer));
    connect(box, &QMessageBox::finished, box, [box, trust, once] {
        if (!*once) return;
        auto give = std::move(*once);
        *once = nullptr;
        give(box->clickedButton() == trust ? HostKeyAnswer::Accept : HostKeyAnswer::Refuse);
    });
    // Deleted without finishing (the window closed): refused.
    connect(box, &QObject::destroyed, this, [once] {
        if (*once) (*once)(HostKeyAnswer::Refuse);
        *once = nullptr;
    });
    open_ = box;
    box->open();
}

}  // namespace quillon::gui
