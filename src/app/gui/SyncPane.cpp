#include "app/gui/SyncPane.h"

#include <QDateTime>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QMessageBox>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "app/gui/Background.h"
#include "core/Location.h"
#include "sync/SyncInfoService.h"
#include "transfer/FileTransferTaskManager.h"

namespace quillon::gui {

namespace {

QString remoteText(const SyncInfo& p) {
    std::string path = p.remoteFolderMeta.pathOrEmpty();
    if (!p.serverInfo) return QObject::tr("(missing server) %1").arg(QString::fromStdString(path));
    if (p.serverInfo->protocolType == ProtocolType::Local) return QString::fromStdString(path);
    return QString::fromStdString(p.serverInfo->displayName + ":" + path);
}

QString timeText(const std::optional<TimePoint>& t) {
    if (!t) return QObject::tr("never");
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(t->time_since_epoch()).count();
    return QLocale().toString(QDateTime::fromMSecsSinceEpoch(ms), QLocale::ShortFormat);
}

// The counts that are not zero, in a sentence: "2 files to download, 1 folder to create here."
QString summaryText(const SyncSummary& s) {
    QStringList parts;
    auto add = [&](std::int64_t n, const char* one, const char* many, const char* what) {
        if (n > 0)
            parts << QObject::tr("%1 %2 %3")
                         .arg(n)
                         .arg(QObject::tr(n == 1 ? one : many), QObject::tr(what));
    };
    add(s.downloaded, "file", "files", "to download");
    add(s.uploaded, "file", "files", "to upload");
    add(s.deletedLocal, "file", "files", "to delete here");
    add(s.deletedRemote, "file", "files", "to delete on the server");
    add(s.localFoldersCreated, "folder", "folders", "to create here");
    add(s.remoteFoldersCreated, "folder", "folders", "to create on the server");
    add(s.localFoldersDeleted, "folder", "folders", "to remove here");
    add(s.remoteFoldersDeleted, "folder", "folders", "to remove on the server");
    add(s.kept, "item", "items", "kept inside deleted folders");
    add(s.skipped, "item", "items", "not synced (links or kind clashes)");
    auto text = parts.join(", ") + ".";
    if (s.conflicts > 0)
        text += " " + QObject::tr("%1 changed on both sides: the newer version wins.")
                          .arg(s.conflicts == 1 ? QObject::tr("1 file")
                                                : QObject::tr("%1 files").arg(s.conflicts));
    return text;
}

QPushButton* button(QWidget* parent, const QString& text, const char* name,
                    const QString& accessible) {
    auto* b = new QPushButton(text, parent);
    b->setObjectName(name);
    b->setAccessibleName(accessible);
    return b;
}

}  // namespace

SyncPane::SyncPane(FileTransferTaskManager& manager, TransferList* transfers, QWidget* parent)
    : QDialog(parent), manager_(manager), transfers_(transfers) {
    setObjectName("syncPane");
    setWindowTitle(tr("Sync Pairs"));
    auto* outer = new QVBoxLayout(this);
    pairs_ = new QTreeWidget(this);
    pairs_->setObjectName("syncPairs");
    pairs_->setAccessibleName(tr("Sync pairs"));
    pairs_->setHeaderLabels(
        {tr("Local folder"), tr("Server folder"), tr("Status"), tr("Last sync")});
    pairs_->setRootIsDecorated(false);
    pairs_->setUniformRowHeights(true);
    // The ends of the paths name the folders; their common starts can go.
    pairs_->setTextElideMode(Qt::ElideMiddle);
    pairs_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    pairs_->header()->setSectionResizeMode(1, QHeaderView::Stretch);
    pairs_->header()->setSectionResizeMode(2, QHeaderView::ResizeToContents);
    pairs_->header()->setSectionResizeMode(3, QHeaderView::ResizeToContents);
    outer->addWidget(pairs_, 1);
    message_ = new QLabel(this);
    message_->setObjectName("syncMessage");
    message_->setWordWrap(true);
    outer->addWidget(message_);

    auto* row = new QHBoxLayout;
    auto* add = button(this, tr("Add..."), "addSyncPair", tr("Add a sync pair"));
    auto* previewButton =
        button(this, tr("Preview..."), "previewSync", tr("Preview what a sync would do"));
    auto* runButton = button(this, tr("Sync Now"), "runSync", tr("Sync the selected pair now"));
    auto* removeButton =
        button(this, tr("Remove"), "removeSyncPair", tr("Remove the selected sync pair"));
    auto* close = button(this, tr("Close"), "closeSyncPane", tr("Close"));
    for (auto* b : {add, previewButton, runButton, removeButton}) row->addWidget(b);
    row->addStretch(1);
    row->addWidget(close);
    outer->addLayout(row);
    connect(add, &QPushButton::clicked, this, [this] { openAddDialog(); });
    connect(previewButton, &QPushButton::clicked, this, [this] {
        if (auto id = selectedPair()) preview(id);
    });
    connect(runButton, &QPushButton::clicked, this, [this] {
        if (auto id = selectedPair()) run(id);
    });
    connect(removeButton, &QPushButton::clicked, this, [this] {
        if (auto id = selectedPair()) remove(id);
    });
    connect(close, &QPushButton::clicked, this, &QDialog::close);
    auto updateButtons = [this, previewButton, runButton, removeButton] {
        bool chosen = selectedPair() != 0;
        for (auto* b : {previewButton, runButton, removeButton}) b->setEnabled(chosen);
    };
    connect(pairs_, &QTreeWidget::itemSelectionChanged, this, updateButtons);
    connect(this, &SyncPane::reloaded, this, updateButtons);
    updateButtons();

    if (transfers_)
        connect(transfers_, &TransferList::taskEnded, this, [this](const FileTransferTaskPtr& t) {
            auto it = running_.find(t.get());
            if (it == running_.end()) return;
            auto done = std::move(it->second);
            running_.erase(it);
            if (done.dryRun) {
                showMessage({});
                showPreview(done.pairID, SyncRunner::previewOf(*done.task));
            } else if (auto percent = SyncRunner::deletesHeldBack(*done.task)) {
                auto why = QString::fromStdString(done.task->error()->reason);
                showMessage(why, true);
                askToDelete(done.pairID, why, *percent);
            } else if (auto e = done.task->error()) {
                showMessage(QString::fromStdString(e->describe()), true);
            } else {
                showMessage(tr("Sync finished."));
            }
            reload();
        });
    resize(720, 360);
    reload();
}

std::int64_t SyncPane::selectedPair() const {
    auto* item = pairs_->currentItem();
    if (!item || !item->isSelected()) return 0;
    return item->data(0, Qt::UserRole).toLongLong();
}

QString SyncPane::messageText() const {
    return message_->text();
}

void SyncPane::showMessage(const QString& text, bool error) {
    message_->setText(text);
    message_->setStyleSheet(error ? "QLabel { color: #b3261e; }" : QString());
}

void SyncPane::reload() {
    inBackground(
        this, [] { return SyncInfoService::sharedInstance().getAllSyncInfo(); },
        [this](std::vector<SyncInfo> all) {
            auto chosen = selectedPair();
            pairs_->clear();
            known_.clear();
            for (auto& p : all) {
                auto* item = new QTreeWidgetItem(
                    pairs_,
                    {QString::fromStdString(p.hasSafeLocalName() ? p.localFolderMeta.pathOrEmpty()
                                                                 : p.localFolderMeta.nameOrEmpty()),
                     remoteText(p), QString::fromStdString(SyncInfoService::statusText(p)),
                     timeText(p.lastSyncDate)});
                item->setData(0, Qt::UserRole, QVariant::fromValue<qlonglong>(p.syncInfoID));
                item->setToolTip(0, item->text(0));
                item->setToolTip(1, item->text(1));
                if (p.syncInfoID == chosen) pairs_->setCurrentItem(item);
                known_[p.syncInfoID] = p;
            }
            emit reloaded();
        });
}

void SyncPane::openAddDialog() {
    auto* ask = new QDialog(this);
    ask->setObjectName("addSyncPairDialog");
    ask->setWindowTitle(tr("Add Sync Pair"));
    ask->setAttribute(Qt::WA_DeleteOnClose);
    ask->setWindowModality(Qt::WindowModal);
    auto* layout = new QFormLayout(ask);
    auto* location = new QLineEdit(ask);
    location->setObjectName("syncLocation");
    location->setAccessibleName(tr("Server folder"));
    location->setPlaceholderText(tr("NAME:/path"));
    location->setMinimumWidth(320);
    auto* name = new QLineEdit(ask);
    name->setObjectName("syncLocalName");
    name->setAccessibleName(tr("Local folder name"));
    layout->addRow(tr("Server folder:"), location);
    layout->addRow(tr("Local folder in \"Synced\":"), name);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, ask);
    buttons->button(QDialogButtonBox::Ok)->setAccessibleName(tr("Add the sync pair"));
    buttons->button(QDialogButtonBox::Cancel)->setAccessibleName(tr("Cancel"));
    layout->addRow(buttons);
    connect(buttons, &QDialogButtonBox::accepted, ask, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, ask, &QDialog::reject);
    connect(ask, &QDialog::accepted, this,
            [this, location, name] { addPair(location->text(), name->text()); });
    ask->open();
}

void SyncPane::addPair(const QString& location, const QString& localName) {
    struct Outcome {
        std::optional<std::string> problem;
    };
    inBackground(
        this,
        [text = location.trimmed().toStdString(), name = localName.trimmed().toStdString()] {
            Outcome out;
            // The name is checked before the location is resolved, which may save a record.
            if (!SyncInfoService::isValidNewLocalName(name)) {
                out.problem = "The local folder needs a plain name (no \"/\", not hidden).";
                return out;
            }
            auto loc = resolveLocation(text);
            if (!loc) {
                out.problem = loc.error().describe();
                return out;
            }
            auto added = SyncInfoService::sharedInstance().addPair(*loc, name);
            if (!added)
                out.problem =
                    added.error().error ? added.error().error->describe() : added.error().message;
            return out;
        },
        [this](Outcome out) {
            if (out.problem) {
                showMessage(QString::fromStdString(*out.problem), true);
                return;
            }
            showMessage(tr("Sync pair added."));
            reload();
            emit pairsChanged();
        });
}

void SyncPane::start(std::int64_t pairID, bool dryRun, std::optional<double> allowDeletePercent) {
    auto it = known_.find(pairID);
    if (it == known_.end()) return;
    for (auto& [task, running] : running_)
        if (running.pairID == pairID) {
            showMessage(tr("This pair is syncing already."), true);
            return;
        }
    auto task = SyncRunner::task(it->second, dryRun, allowDeletePercent);
    running_[task.get()] = {task, pairID, dryRun};
    auto label = tr("sync %1%2")
                     .arg(QString::fromStdString(it->second.localFolderMeta.nameOrEmpty()),
                          dryRun ? tr(" (preview)") : QString());
    if (transfers_) transfers_->addTitled(task, label.toStdString());
    manager_.addTask(task);
    manager_.start();
    showMessage(dryRun ? tr("Looking at both sides...") : tr("Syncing..."));
}

void SyncPane::preview(std::int64_t pairID) {
    start(pairID, true);
}

void SyncPane::run(std::int64_t pairID) {
    start(pairID, false);
}

void SyncPane::showPreview(std::int64_t pairID, const SyncPreview& p) {
    if (preview_) preview_->close();
    auto* dialog = new QDialog(this);
    dialog->setObjectName("syncPreview");
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    auto it = known_.find(pairID);
    dialog->setWindowTitle(
        tr("Sync Preview: %1")
            .arg(it == known_.end() ? QString::number(pairID) : remoteText(it->second)));
    auto* layout = new QVBoxLayout(dialog);
    auto& s = p.summary;
    QString summary;
    if (p.error)
        summary = tr("The preview failed: %1").arg(QString::fromStdString(p.error->describe()));
    else if (p.decisions.empty())
        summary = tr("Both sides are in step: nothing would be done.");
    else
        summary = summaryText(s) + " " + tr("Nothing has been changed yet.");
    auto* label = new QLabel(summary, dialog);
    label->setObjectName("syncPreviewSummary");
    label->setWordWrap(true);
    layout->addWidget(label);
    auto* list = new QTreeWidget(dialog);
    list->setObjectName("syncDecisions");
    list->setAccessibleName(tr("What the sync would do"));
    list->setHeaderLabels({tr("Action"), tr("Item"), tr("Why"), tr("Size")});
    list->setRootIsDecorated(false);
    list->setUniformRowHeights(true);
    for (auto& d : p.decisions) {
        auto* item = new QTreeWidgetItem(
            list, {QString::fromStdString(SyncRunner::actionText(d)),
                   QString::fromStdString(d.path + (d.isDir ? "/" : "")),
                   QString::fromStdString(d.reason),
                   d.isDir ? QString() : QLocale().formattedDataSize(static_cast<qint64>(d.size))});
        item->setTextAlignment(3, Qt::AlignRight | Qt::AlignVCenter);
    }
    list->header()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
    list->header()->setSectionResizeMode(1, QHeaderView::Stretch);
    list->header()->setSectionResizeMode(2, QHeaderView::ResizeToContents);
    list->header()->setSectionResizeMode(3, QHeaderView::ResizeToContents);
    list->header()->setStretchLastSection(false);
    layout->addWidget(list, 1);
    auto* buttons = new QDialogButtonBox(dialog);
    auto* runNow = buttons->addButton(tr("Sync Now"), QDialogButtonBox::AcceptRole);
    runNow->setObjectName("syncPreviewRun");
    runNow->setAccessibleName(tr("Sync now as previewed"));
    runNow->setEnabled(!p.error && !p.decisions.empty());
    auto* close = buttons->addButton(QDialogButtonBox::Close);
    close->setAccessibleName(tr("Close the preview"));
    layout->addWidget(buttons);
    connect(runNow, &QPushButton::clicked, dialog, [this, dialog, pairID] {
        dialog->close();
        run(pairID);
    });
    connect(close, &QPushButton::clicked, dialog, &QDialog::close);
    dialog->resize(680, 380);
    preview_ = dialog;
    dialog->show();
}

void SyncPane::askToDelete(std::int64_t pairID, const QString& why, double percent) {
    if (deleteQuestion_) deleteQuestion_->close();
    auto* ask = new QMessageBox(QMessageBox::Warning, tr("Sync Would Delete Many Files"),
                                why + "\n\n" + tr("Delete these files and sync?"),
                                QMessageBox::Cancel, this);
    ask->setObjectName("syncDeleteConfirmation");
    ask->button(QMessageBox::Cancel)->setAccessibleName(tr("Keep the files"));
    auto* yes = ask->addButton(tr("Delete and Sync"), QMessageBox::DestructiveRole);
    yes->setObjectName("confirmSyncDeletes");
    yes->setAccessibleName(tr("Delete the files and sync"));
    // Keeping the files is what a stray Enter does.
    ask->setDefaultButton(QMessageBox::Cancel);
    ask->setAttribute(Qt::WA_DeleteOnClose);
    ask->setWindowModality(Qt::WindowModal);
    connect(ask, &QMessageBox::finished, this, [this, ask, yes, pairID, percent] {
        if (ask->clickedButton() == yes)
            start(pairID, false, percent);
        else
            showMessage(tr("Nothing was deleted."));
    });
    deleteQuestion_ = ask;
    ask->open();
}

void SyncPane::remove(std::int64_t pairID) {
    auto it = known_.find(pairID);
    if (it == known_.end()) return;
    auto* ask =
        new QMessageBox(QMessageBox::Question, tr("Remove Sync Pair"),
                        tr("Stop syncing %1 with %2? The files stay on both sides.")
                            .arg(remoteText(it->second),
                                 QString::fromStdString(it->second.localFolderMeta.pathOrEmpty())),
                        QMessageBox::Cancel, this);
    ask->setObjectName("removeSyncPairConfirmation");
    auto* yes = ask->addButton(tr("Remove"), QMessageBox::DestructiveRole);
    yes->setObjectName("confirmRemoveSyncPair");
    yes->setAccessibleName(tr("Remove the sync pair"));
    ask->setAttribute(Qt::WA_DeleteOnClose);
    ask->setWindowModality(Qt::WindowModal);
    connect(ask, &QMessageBox::finished, this, [this, ask, yes, pairID] {
        if (ask->clickedButton() != yes) return;
        inBackground(
            this,
            [pairID] {
                std::optional<std::string> problem;
                auto r = SyncInfoService::sharedInstance().removePair(pairID);
                if (!r) problem = r.error().error ? r.error().error->describe() : r.error().message;
                return problem;
            },
            [this](std::optional<std::string> problem) {
                if (problem)
                    showMessage(QString::fromStdString(*problem), true);
                else
                    showMessage(tr("Sync pair removed; its files are kept."));
                reload();
                emit pairsChanged();
            });
    });
    ask->open();
}

}  // namespace quillon::gui
