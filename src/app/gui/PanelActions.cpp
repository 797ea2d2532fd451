#include "app/gui/PanelActions.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QDateTime>
#include <QDesktopServices>
#include <QDialog>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QInputDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QMimeData>
#include <QPushButton>
#include <QTreeView>
#include <filesystem>

#include "app/gui/MainWindow.h"
#include "app/gui/PlayerWindow.h"
#include "archives/ArchiveError.h"
#include "archives/ArchiveTask.h"
#include "archives/ExtractionPlan.h"
#include "core/FileService.h"
#include "core/FileTypeUtils.h"
#include "core/GCD.h"
#include "core/PathUtils.h"
#include "core/StreamingSupport.h"
#include "core/StringEncoding.h"
#include "core/StringUtils.h"
#include "media/MusicPlayerService.h"
#include "media/PlayList.h"
#include "servers/streaming/StreamHttpServerService.h"
#include "transfer/FileTransferUtils.h"
#include "transfer/TransferEstimate.h"
#include "transfer/TransferPlanner.h"

namespace quillon::gui {

namespace {

namespace fs = std::filesystem;

QString describe(const Refusal& refusal) {
    return QString::fromStdString(refusal.error ? refusal.error->describe() : refusal.message);
}

// `name` in `folder`, or "stem 2.ext", "stem 3.ext"... when that is taken.
std::string freePath(const std::string& folder, const std::string& name) {
    auto dot = name.rfind('.');
    std::string stem = name.substr(0, dot), ext = dot == std::string::npos ? "" : name.substr(dot);
    std::error_code ec;
    std::string path = folder + "/" + name;
    for (int n = 2; fs::exists(fs::symlink_status(path, ec)); ++n)
        path = folder + "/" + stem + " " + std::to_string(n) + ext;
    return path;
}

// Where a download into the cache puts the file its task fetches.
std::string cachedCopyOf(const FileTransferTask& task) {
    return task.targetMetadata.pathOrEmpty() + "/" +
           FileTransferUtils::itemName(task.sourceMetadata);
}

std::int64_t secondsOf(const TimePoint& t) {
    return std::chrono::duration_cast<std::chrono::seconds>(t.time_since_epoch()).count();
}

// Downloads into the cache never ask about a copy already there: the cache is this program's, not
// the user's. A copy of the same size and time serves as it is (its task is dropped); any other
// is removed before the download.
std::vector<PlannedTransfer> withoutCurrentCopies(std::vector<PlannedTransfer> planned) {
    std::erase_if(planned, [](const PlannedTransfer& p) {
        const auto& remote = p.task->sourceMetadata;
        auto local = cachedCopyOf(*p.task);
        struct stat st {};
        if (::lstat(local.c_str(), &st) != 0) return false;
        bool current = S_ISREG(st.st_mode) && !remote.isDir && remote.fileSizeInBytes &&
                       remote.timestamp &&
                       static_cast<std::uint64_t>(st.st_size) == *remote.fileSizeInBytes &&
                       std::llabs(st.st_mtim.tv_sec - secondsOf(*remote.timestamp)) < 2;
        std::error_code ec;
        if (!current) fs::remove_all(local, ec);
        return current;
    });
    return planned;
}

// Gives a fetched copy the remote file's time, by which the next use knows it is current.
void stampCachedCopy(const FileTransferTask& task) {
    if (task.state() != TransferTaskState::Completed || !task.sourceMetadata.timestamp) return;
    struct timespec times[2] = {{0, UTIME_OMIT}, {secondsOf(*task.sourceMetadata.timestamp), 0}};
    (void)::utimensat(AT_FDCWD, cachedCopyOf(task).c_str(), times, 0);
}

}  // namespace

// Tasks queued together whose end something waits for.
struct PanelActions::Job {
    std::set<const FileTransferTask*> waiting;
    bool allCompleted = true;
    std::function<void(bool)> then;
};

template <typename Work, typename Then>
void PanelActions::inBackground(Work work, Then then) {
    std::weak_ptr<int> alive = alive_;
    GCD::doInBackground([alive, work = std::move(work), then = std::move(then)]() mutable {
        auto result = work();
        GCD::doInForeground([alive, then = std::move(then), result = std::move(result)]() mutable {
            if (!alive.expired()) then(std::move(result));
        });
    });
}

PanelActions::PanelActions(MainWindow* window)
    : QObject(window),
      window_(window),
      opener_([](const QUrl& url) { return QDesktopServices::openUrl(url); }) {}

PanelActions::~PanelActions() = default;

FolderTab* PanelActions::tab() const {
    return window_->activePanel()->currentTab();
}

void PanelActions::message(const QString& text, bool error) {
    window_->showMessage(text, error);
}

void PanelActions::install() {
    auto* edit = new QMenu(tr("&Edit"), window_);
    auto menus = window_->menuBar()->actions();
    window_->menuBar()->insertMenu(menus.size() > 1 ? menus[1] : nullptr, edit);
    auto add = [this](QMenu* menu, const QString& text, const char* icon, QKeySequence key,
                      auto fn) {
        auto* a = new QAction(QIcon::fromTheme(icon), text, window_);
        a->setShortcut(key);
        a->setShortcutContext(Qt::WindowShortcut);
        connect(a, &QAction::triggered, this, fn);
        menu->addAction(a);
        return a;
    };
    add(edit, tr("Open"), "document-open", {}, [this] { openSelected(); });
    add(edit, tr("Cut"), "edit-cut", QKeySequence::Cut, [this] { copySelected(true); });
    add(edit, tr("Copy"), "edit-copy", QKeySequence::Copy, [this] { copySelected(false); });
    add(edit, tr("Paste"), "edit-paste", QKeySequence::Paste, [this] { paste(); });
    edit->addSeparator();
    add(edit, tr("Properties"), "document-properties", QKeySequence(Qt::ALT | Qt::Key_Return),
        [this] { showProperties(); });
    edit->addSeparator();
    add(edit, tr("Nearby Devices"), "network-wireless", {}, [this] { showNearby(); });
    QMenu* view = edit;
    for (auto* a : window_->menuBar()->actions())
        if (a->menu() && a->text() == tr("&View")) view = a->menu();
    view->addSeparator();
    iconView_ =
        add(view, tr("Icon View"), "view-list-icons", QKeySequence(Qt::CTRL | Qt::Key_2), [] {});
    iconView_->setCheckable(true);
    connect(iconView_, &QAction::toggled, this, &PanelActions::toggleIconView);

    for (int side = 0; side < 2; ++side) {
        auto* panel = window_->panel(side);
        connect(panel, &FolderPanel::contextMenuRequested, this,
                [this, side](FolderTab*, const QPoint& at) {
                    window_->setActivePanel(side);
                    auto* menu = contextMenu(tab());
                    menu->setAttribute(Qt::WA_DeleteOnClose);
                    menu->popup(at);
                });
        connect(panel, &FolderPanel::openRequested, this, [this](FolderTab* t, int row) {
            open(t->model()->locationOf(row), t->model()->item(row).isDir);
        });
        // The icons or the list, as the menu says, in every tab the panel opens.
        connect(panel, &QTabWidget::currentChanged, this, [this, panel] {
            if (auto* t = panel->currentTab()) t->setIconView(iconView_->isChecked());
        });
    }
    connect(window_->transfers(), &TransferList::taskEnded, this, &PanelActions::taskEnded);
}

QMenu* PanelActions::contextMenu(FolderTab* t) {
    auto* menu = new QMenu(window_);
    menu->setObjectName("contextMenu");
    menu->setAccessibleName(tr("Actions on the selected items"));
    auto rows = t->selectedRows();
    auto* model = t->model();
    bool local = model->folder() && model->folder()->isLocal();
    bool files = !rows.empty(), anyFolder = false, allAudio = files, allArchives = files;
    for (int row : rows) {
        auto& item = model->item(row);
        auto name = FileTransferUtils::itemName(item);
        anyFolder = anyFolder || item.isDir;
        allAudio = allAudio && !item.isDir &&
                   (FileTypeUtils::isAudio(name) || FileTypeUtils::isAudioPlaylist(name));
        allArchives = allArchives && !item.isDir && FileTypeUtils::isSupportedArchiveFile(name);
    }
    auto add = [&](const QString& text, const char* icon, const char* name, auto fn,
                   bool enabled = true, QKeySequence key = {}) {
        auto* a = menu->addAction(QIcon::fromTheme(icon), text);
        a->setObjectName(name);
        a->setEnabled(enabled);
        a->setShortcut(key);
        connect(a, &QAction::triggered, this, fn);
        return a;
    };
    add(
        tr("Open"), "document-open", "openAction", [this] { openSelected(); }, files,
        Qt::Key_Return);
    if (allAudio) add(tr("Play"), "media-playback-start", "playAction", [this] { playSelected(); });
    if (rows.size() == 1 && !anyFolder)
        add(tr("Stream to Player"), "video-x-generic", "streamAction",
            [this] { streamSelected(); });
    menu->addSeparator();
    add(
        tr("Cut"), "edit-cut", "cutAction", [this] { copySelected(true); }, files,
        QKeySequence::Cut);
    add(
        tr("Copy"), "edit-copy", "copyAction", [this] { copySelected(false); }, files,
        QKeySequence::Copy);
    auto* clip = QGuiApplication::clipboard()->mimeData();
    add(
        tr("Paste"), "edit-paste", "pasteAction", [this] { paste(); },
        !FolderModel::sourcesOf(clip).empty(), QKeySequence::Paste);
    add(
        tr("Copy to Other Panel"), "edit-copy", "copyToOtherAction",
        [this] { window_->transferToOtherPanel(false); }, files, Qt::Key_F5);
    add(
        tr("Rename"), "edit-rename", "renameAction", [this] { window_->renameSelected(); },
        rows.size() == 1, Qt::Key_F2);
    add(
        tr("Delete"), "edit-delete", "deleteAction", [this] { window_->deleteSelected(); }, files,
        Qt::Key_Delete);
    menu->addSeparator();
    add(
        tr("Send to Device Nearby..."), "network-wireless", "nearbyAction",
        [this] { showNearby(); }, files && local);
    add(
        tr("Compress"), "package-x-generic", "compressAction", [this] { compressSelected(); },
        files && local);
    if (allArchives)
        add(tr("Extract Here"), "archive-extract", "extractAction", [this] { extractSelected(); });
    add(
        tr("New Folder"), "folder-new", "newFolderAction", [this] { window_->newFolder(); }, true,
        Qt::Key_F7);
    menu->addSeparator();
    auto* icons = add(tr("Icon View"), "view-list-icons", "iconViewAction",
                      [this](bool on) { iconView_->setChecked(on); });
    icons->setCheckable(true);
    icons->setChecked(t->isIconView());
    add(
        tr("Properties"), "document-properties", "propertiesAction", [this] { showProperties(); },
        true, QKeySequence(Qt::ALT | Qt::Key_Return));
    return menu;
}

void PanelActions::toggleIconView(bool on) {
    if (iconView_->isChecked() != on) iconView_->setChecked(on);  // comes back here
    for (int side = 0; side < 2; ++side)
        if (auto* t = window_->panel(side)->currentTab()) t->setIconView(on);
}

void PanelActions::openSelected() {
    auto* t = tab();
    auto rows = t->selectedRows();
    if (rows.empty() && t->view()->currentIndex().isValid())
        rows.push_back(t->view()->currentIndex().row());
    for (int row : rows) open(t->model()->locationOf(row), t->model()->item(row).isDir);
}

void PanelActions::open(const Location& item, bool isDir) {
    if (isDir) {
        tab()->showFolder(item);
        return;
    }
    if (item.isLocal()) {
        if (!opener_(QUrl::fromLocalFile(QString::fromStdString(item.path))))
            message(tr("No application opens %1.").arg(QString::fromStdString(item.path)), true);
        return;
    }
    // A remote file is fetched into the cache, beside the copies of its folder's other files,
    // and opened once it is complete; an unchanged copy there opens at once.
    struct Planned {
        std::vector<PlannedTransfer> tasks;
        std::string localPath;
        QString error;
    };
    inBackground(
        [item] {
            Planned out;
            auto remote = statLocation(item);
            if (!remote) {
                out.error = QString::fromStdString(remote.error().describe());
                return out;
            }
            auto folder = resolveLocation(
                fs::path(FileService::sharedService().cachePathForMetadata(*remote, *item.server))
                    .parent_path()
                    .string());
            if (!folder || !PathUtils::ensureFolder(folder->path)) {
                out.error = folder ? QObject::tr("Cannot make a folder in %1.")
                                         .arg(QString::fromStdString(folder->path))
                                   : QString::fromStdString(folder.error().describe());
                return out;
            }
            auto plan = TransferPlanner::plan(*folder, {item}, false, false);
            if (!plan) {
                out.error = describe(plan.error());
                return out;
            }
            if (!plan->refusals.empty()) out.error = describe(plan->refusals.front());
            out.tasks = withoutCurrentCopies(std::move(plan->transfers));
            out.localPath = folder->path + "/" + StringUtils::lastPathComponent(item.path);
            return out;
        },
        [this](Planned planned) {
            if (!planned.error.isEmpty()) {
                message(planned.error, true);
                return;
            }
            auto open = [this, path = planned.localPath] {
                if (!opener_(QUrl::fromLocalFile(QString::fromStdString(path))))
                    message(tr("No application opens %1.").arg(QString::fromStdString(path)), true);
            };
            std::vector<std::pair<FileTransferTaskPtr, std::string>> tasks;
            for (auto& p : planned.tasks) tasks.emplace_back(p.task, p.label);
            if (tasks.empty()) {
                open();
                return;
            }
            auto task = tasks.front().first;
            queue(std::move(tasks), [task, open](bool completed) {
                stampCachedCopy(*task);
                if (completed) open();
            });
        });
}

void PanelActions::queue(std::vector<std::pair<FileTransferTaskPtr, std::string>> tasks,
                         std::function<void(bool)> then) {
    auto job = std::make_shared<Job>();
    job->then = std::move(then);
    for (auto& [task, label] : tasks) job->waiting.insert(task.get());
    jobs_.push_back(job);
    auto& manager = window_->manager_;
    for (auto& [task, label] : tasks) {
        window_->transfers()->add(task, label);
        manager.addTask(task);
    }
    manager.start();
}

void PanelActions::taskEnded(const FileTransferTaskPtr& task) {
    for (auto it = jobs_.begin(); it != jobs_.end(); ++it) {
        auto job = *it;
        if (!job->waiting.erase(task.get())) continue;
        job->allCompleted = job->allCompleted && task->state() == TransferTaskState::Completed;
        if (job->waiting.empty()) {
            jobs_.erase(it);
            job->then(job->allCompleted);
        }
        return;
    }
}

void PanelActions::copySelected(bool cut) {
    auto* t = tab();
    QModelIndexList indexes;
    for (int row : t->selectedRows()) indexes.push_back(t->model()->index(row, 0));
    if (indexes.isEmpty()) return;
    auto* data = t->model()->mimeData(indexes);
    if (!data) return;
    // Other file managers read "1" as cut, "0" as copied.
    data->setData(QString::fromLatin1(kCutMimeType), cut ? "1" : "0");
    QGuiApplication::clipboard()->setMimeData(data);
    int n = static_cast<int>(indexes.size());
    message(cut ? (n == 1 ? tr("1 item cut.") : tr("%1 items cut.").arg(n))
                : (n == 1 ? tr("1 item copied.") : tr("%1 items copied.").arg(n)));
}

void PanelActions::paste() {
    auto& folder = tab()->model()->folder();
    auto* data = QGuiApplication::clipboard()->mimeData();
    auto sources = FolderModel::sourcesOf(data);
    if (!folder || sources.empty()) return;
    bool moving = data->data(QString::fromLatin1(kCutMimeType)).startsWith('1');
    window_->transfer(sources, FolderModel::locationText(*folder), moving);
    // Cut items are moved once; pasting them again would find them gone.
    if (moving) QGuiApplication::clipboard()->clear();
}

void PanelActions::showProperties() {
    auto* t = tab();
    auto& folder = t->model()->folder();
    if (!folder) return;
    auto rows = t->selectedRows();
    Location loc = rows.size() == 1 ? t->model()->locationOf(rows.front()) : *folder;
    struct Looked {
        std::optional<KvMetadata> item;
        QString error;
    };
    inBackground(
        [loc] {
            Looked out;
            if (auto item = statLocation(loc))
                out.item = std::move(*item);
            else
                out.error = QString::fromStdString(item.error().describe());
            return out;
        },
        [this, loc](Looked looked) {
            if (!looked.item) {
                message(looked.error, true);
                return;
            }
            auto& item = *looked.item;
            if (properties_) properties_->close();
            auto* dialog = new QDialog(window_);
            dialog->setObjectName("propertiesDialog");
            dialog->setAttribute(Qt::WA_DeleteOnClose);
            auto name = FileTransferUtils::itemName(item);
            if (name.empty()) name = loc.display();
            dialog->setWindowTitle(tr("%1 Properties").arg(QString::fromStdString(name)));
            auto* form = new QFormLayout(dialog);
            auto row = [&](const QString& label, const QString& value, const char* objectName) {
                auto* v = new QLabel(value, dialog);
                v->setObjectName(objectName);
                v->setTextInteractionFlags(Qt::TextSelectableByMouse);
                v->setAccessibleName(label);
                form->addRow(label, v);
            };
            row(tr("Name:"), QString::fromStdString(name), "propertyName");
            row(tr("Kind:"),
                QString::fromStdString(FileTypeUtils::kindForFileName(name, item.isDir)),
                "propertyKind");
            row(tr("Where:"), QString::fromStdString(loc.display()), "propertyWhere");
            if (!item.isDir && item.fileSizeInBytes) {
                auto bytes = static_cast<std::int64_t>(*item.fileSizeInBytes);
                row(tr("Size:"),
                    tr("%1 (%2 bytes)")
                        .arg(QString::fromStdString(formatBytes(bytes)))
                        .arg(QLocale().toString(static_cast<qlonglong>(bytes))),
                    "propertySize");
            }
            if (item.timestamp)
                row(tr("Modified:"),
                    QLocale().toString(QDateTime::fromSecsSinceEpoch(
                                           std::chrono::duration_cast<std::chrono::seconds>(
                                               item.timestamp->time_since_epoch())
                                               .count()),
                                       QLocale::LongFormat),
                    "propertyModified");
            if (item.owner) row(tr("Owner:"), QString::fromStdString(*item.owner), "propertyOwner");
            auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, dialog);
            buttons->button(QDialogButtonBox::Close)->setAccessibleName(tr("Close"));
            connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::close);
            form->addRow(buttons);
            properties_ = dialog;
            dialog->show();
        });
}

void PanelActions::compressSelected() {
    auto* t = tab();
    auto& folder = t->model()->folder();
    auto rows = t->selectedRows();
    if (!folder || rows.empty()) return;
    if (!folder->isLocal()) {
        message(tr("Only items on this computer can be compressed."), true);
        return;
    }
    std::vector<std::string> items;
    for (int row : rows) items.push_back(t->model()->locationOf(row).path);
    std::string name =
        items.size() == 1 ? StringUtils::lastPathComponent(items.front()) + ".zip" : "Archive.zip";
    Location where = *folder;
    inBackground([where, name] { return freePath(where.path, name); },
                 [this, items, where](std::string zipPath) {
                     auto task = std::make_shared<ArchiveTask>(
                         StringEncoding::UTF8, [items, zipPath](FileCompressor& c) {
                             return c.compressItems(items, zipPath);
                         });
                     Location zip = where;
                     zip.path = zipPath;
                     task->sourceMetadata = zip.metadata(false);
                     task->targetMetadata = zip.metadata(false);
                     queue({{task, StringUtils::lastPathComponent(zipPath)}}, [this, where](bool) {
                         window_->refreshFolders({{where.server->serverID, where.path}});
                     });
                 });
}

void PanelActions::extractSelected() {
    auto* t = tab();
    auto& folder = t->model()->folder();
    auto rows = t->selectedRows();
    if (!folder || rows.empty()) return;
    std::vector<Location> archives;
    for (int row : rows) archives.push_back(t->model()->locationOf(row));
    extract(std::move(archives), *folder, std::nullopt);
}

void PanelActions::extract(std::vector<Location> archives, Location target,
                           std::optional<std::string> password) {
    struct Planned {
        std::shared_ptr<ExtractionPlan> plan;
        QStringList problems;
    };
    inBackground(
        [target, archives, password] {
            Planned out;
            auto plan = ExtractionPlan::into(target, PathUtils::getHomeFolderPath(),
                                             StringEncoding::UTF8, password);
            if (!plan) {
                out.problems << describe(plan.error());
                return out;
            }
            for (auto& a : archives)
                if (auto refused = plan->add(a)) out.problems << describe(*refused);
            if (!plan->empty()) out.plan = std::make_shared<ExtractionPlan>(std::move(*plan));
            return out;
        },
        [this, archives, target, password](Planned planned) {
            if (!planned.problems.isEmpty()) message(planned.problems.join("\n"), true);
            if (!planned.plan) return;
            runExtraction(planned.plan, 0,
                          [this, archives, target, password](const auto& extractions) {
                              // The archives whose extraction wants a (another) password, by
                              // the name each extraction is shown under.
                              std::vector<Location> locked;
                              for (auto& [task, name] : extractions) {
                                  auto e = task->error();
                                  if (!e || e->domain != ErrorDomain::Archive ||
                                      (e->code != ArchiveErrorCode::NeedPassword &&
                                       e->code != ArchiveErrorCode::IncorrectPassword))
                                      continue;
                                  for (auto& a : archives)
                                      if (StringUtils::lastPathComponent(a.path) == name)
                                          locked.push_back(a);
                              }
                              if (!locked.empty())
                                  askPassword(std::move(locked), target, password.has_value());
                          });
        });
}

void PanelActions::askPassword(std::vector<Location> archives, Location target, bool wrong) {
    if (passwordDialog_) passwordDialog_->close();
    auto* ask = new QInputDialog(window_);
    ask->setObjectName("archivePasswordDialog");
    ask->setAttribute(Qt::WA_DeleteOnClose);
    ask->setWindowTitle(wrong ? tr("Incorrect Password") : tr("Need Password"));
    QString names;
    for (auto& a : archives)
        names += (names.isEmpty() ? "" : ", ") +
                 QString::fromStdString(StringUtils::lastPathComponent(a.path));
    ask->setLabelText(wrong ? tr("The password does not open %1. Password:").arg(names)
                            : tr("%1 is protected by a password. Password:").arg(names));
    ask->setTextEchoMode(QLineEdit::Password);
    if (auto* field = ask->findChild<QLineEdit*>()) field->setAccessibleName(tr("Password"));
    connect(ask, &QInputDialog::textValueSelected, this,
            [this, archives, target](const QString& password) {
                extract(archives, target, password.toStdString());
            });
    passwordDialog_ = ask;
    ask->open();
}

void PanelActions::runExtraction(std::shared_ptr<ExtractionPlan> plan, int stage,
                                 std::function<void(const Labelled&)> extracted) {
    // Downloads of remote archives, the extractions, then uploads into a server folder: each
    // stage starts when the one before has completed.
    struct Stage {
        Labelled tasks;
        QString error;
    };
    if (stage > 2) return;
    inBackground(
        [plan, stage] {
            Stage out;
            auto take = [&out](Result<std::vector<PlannedTransfer>> planned) {
                if (!planned) {
                    out.error = QString::fromStdString(planned.error().describe());
                    return;
                }
                for (auto& p : *planned) out.tasks.emplace_back(p.task, p.label);
            };
            if (stage == 0) {
                auto planned = plan->downloadTasks();
                if (planned) planned = withoutCurrentCopies(std::move(*planned));
                take(std::move(planned));
            }
            if (stage == 1)
                for (auto& [task, label] : plan->extractionTasks())
                    out.tasks.emplace_back(task, label);
            if (stage == 2 && plan->uploads()) take(plan->uploadTasks());
            return out;
        },
        [this, plan, stage, extracted](Stage next) {
            if (!next.error.isEmpty()) {
                message(next.error, true);
                return;
            }
            if (next.tasks.empty()) {
                runExtraction(plan, stage + 1, extracted);
                return;
            }
            queue(next.tasks, [this, plan, stage, queued = next.tasks, extracted](bool completed) {
                if (stage == 0)
                    for (auto& [task, label] : queued) stampCachedCopy(*task);
                if (stage == 1) extracted(queued);
                // A failed download leaves its archive out; the others go on.
                if (completed || stage == 0) runExtraction(plan, stage + 1, extracted);
            });
        });
}

void PanelActions::playSelected() {
    auto* t = tab();
    auto rows = t->selectedRows();
    if (rows.empty()) return;
    std::vector<Location> items;
    for (int row : rows) items.push_back(t->model()->locationOf(row));
    struct Listed {
        std::vector<PlayListItem> items;
        int start = 0;
        QString error;
    };
    inBackground(
        [items] {
            Listed out;
            // Remote files reach the player through the playback server.
            bool remote = std::any_of(items.begin(), items.end(),
                                      [](const Location& l) { return !l.isLocal(); });
            if (auto started = remote ? startPlaybackServer() : Status{}; !started) {
                out.error = QString::fromStdString(started.error().describe());
                return out;
            }
            for (auto& loc : items) {
                auto item = statLocation(loc);
                if (!item) {
                    out.error = QString::fromStdString(item.error().describe());
                    continue;
                }
                // One file plays with the rest of its folder; several play by themselves.
                Result<PlayList> list =
                    items.size() == 1 || FileTypeUtils::isAudioPlaylist(item->nameOrEmpty())
                        ? PlayList::playListForOpening(*item, loc.server, *loc.client)
                        : Result<PlayList>(PlayList::initWithMetadata(*item, loc.server));
                if (!list) {
                    out.error = QString::fromStdString(list.error().describe());
                    continue;
                }
                if (items.size() == 1) out.start = list->currentIndex;
                out.items.insert(out.items.end(), list->items.begin(), list->items.end());
            }
            return out;
        },
        [this](Listed listed) {
            if (!listed.error.isEmpty()) message(listed.error, true);
            if (listed.items.empty()) {
                if (listed.error.isEmpty()) message(tr("There is nothing to play."), true);
                return;
            }
            if (!playerWindow_) {
                playerWindow_ = new PlayerWindow(
                    player_ ? *player_ : MusicPlayerService::sharedService(), window_);
                playerWindow_->setAttribute(Qt::WA_DeleteOnClose);
            }
            playerWindow_->play(std::move(listed.items), listed.start);
        });
}

void PanelActions::streamSelected() {
    auto* t = tab();
    auto rows = t->selectedRows();
    if (rows.size() != 1) return;
    Location loc = t->model()->locationOf(rows.front());
    struct Offered {
        std::string url;
        QString error;
    };
    inBackground(
        [loc] {
            Offered out;
            auto item = statLocation(loc);
            if (!item) {
                out.error = QString::fromStdString(item.error().describe());
                return out;
            }
            if (!loc.isLocal() && !loc.client->capabilities().streaming) {
                out.error = QObject::tr("Files on this server cannot be streamed yet.");
                return out;
            }
            if (auto started = startPlaybackServer(); !started) {
                out.error = QString::fromStdString(started.error().describe());
                return out;
            }
            std::string relative = loc.path;
            while (!relative.empty() && relative.front() == '/') relative.erase(0, 1);
            auto url = loc.isLocal() ? StreamingSupport::streamableURL(loc.server, *item, relative)
                                     : loc.client->loadStreamableURLForFileSync(*item);
            if (!url || !url->starts_with("http://"))
                out.error = QObject::tr("The file cannot be offered for streaming.");
            else
                out.url = *url;
            return out;
        },
        [this, loc](Offered offered) {
            if (!offered.error.isEmpty()) {
                message(offered.error, true);
                return;
            }
            auto url = QUrl(QString::fromStdString(offered.url));
            if (!opener_(url)) {
                message(tr("No player opens %1.").arg(url.toString(QUrl::FullyEncoded)), true);
                return;
            }
            // Encoded, the address can be copied to any player as it is.
            message(
                tr("Streaming %1 at %2")
                    .arg(QString::fromStdString(loc.display()), url.toString(QUrl::FullyEncoded)));
        });
}

void PanelActions::showNearby() {
    if (!nearbyWindow_) {
        nearbyWindow_ = new NearbyWindow(
            [this] {
                KvMetadataList items;
                auto* t = tab();
                auto& folder = t->model()->folder();
                if (!folder || !folder->isLocal()) return items;
                for (int row : t->selectedRows()) items.push_back(t->model()->item(row));
                return items;
            },
            window_);
        nearbyWindow_->setAttribute(Qt::WA_DeleteOnClose);
        nearbyWindow_->startBrowsing();
    }
    nearbyWindow_->show();
    nearbyWindow_->raise();
}

bool PanelActions::retry(int row) {
    auto again = window_->transfers()->retryOf(row);
    if (!again) return false;
    window_->transfer({again->source}, again->target, again->moving);
    return true;
}

}  // namespace quillon::gui
