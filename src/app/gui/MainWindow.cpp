#include "app/gui/MainWindow.h"

#include "app/gui/PanelActions.h"

#include <QAction>
#include <QApplication>
#include <QDockWidget>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QInputDialog>
#include <QMenuBar>
#include <QMessageBox>
#include <QPainter>
#include <QPushButton>
#include <QSplitter>
#include <QStatusBar>
#include <QStyledItemDelegate>
#include <QToolBar>
#include <QTreeView>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <any>

#include "app/gui/HostKeyDialog.h"
#include "clients/local/SandboxFileAccess.h"
#include "clients/smb/NbtScanner.h"
#include "core/AppPreference.h"
#include "core/GCD.h"
#include "core/PathUtils.h"
#include "core/ServerInfoService.h"
#include "core/WrapperProxy.h"
#include "sync/SyncInfoService.h"
#include "transfer/FileTransferUtils.h"
#include "transfer/TransferPlanner.h"

namespace quillon::gui {

namespace {

class ProgressDelegate : public QStyledItemDelegate {
  public:
    using QStyledItemDelegate::QStyledItemDelegate;
    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override {
        int value = index.data(TransferList::kProgressRole).toInt();
        if (value < 0) {  // the size is not known yet: the bytes so far, without a bar
            QStyledItemDelegate::paint(painter, option, index);
            return;
        }
        QStyleOptionProgressBar bar;
        bar.rect = option.rect.adjusted(2, 2, -2, -2);
        bar.minimum = 0;
        bar.maximum = 100;
        bar.progress = value;
        bar.text = index.data().toString();
        bar.textVisible = true;
        bar.state = option.state | QStyle::State_Horizontal;
        QApplication::style()->drawControl(QStyle::CE_ProgressBar, &bar, painter);
    }
};

QString errorText(const Refusal& refusal) {
    return QString::fromStdString(refusal.error ? refusal.error->describe() : refusal.message);
}

std::pair<std::string, std::string> folderKey(const Location& loc) {
    return {loc.server->serverID, loc.path};
}

}  // namespace

template <typename Work, typename Then>
void MainWindow::inBackground(Work work, Then then) {
    std::weak_ptr<int> alive = alive_;
    GCD::doInBackground([alive, work = std::move(work), then = std::move(then)]() mutable {
        auto result = work();
        GCD::doInForeground([alive, then = std::move(then), result = std::move(result)]() mutable {
            if (!alive.expired()) then(std::move(result));
        });
    });
}

MainWindow::MainWindow(FileTransferTaskManager& manager, const std::optional<std::string>& start,
                       QWidget* parent)
    : QMainWindow(parent),
      manager_(manager),
      transfers_(new TransferList(manager, this)),
      prompts_(std::make_shared<GuiPrompts>(this)),
      hostKeys_(new HostKeyAsker(this)) {
    setWindowTitle(tr("Quillon"));
    setObjectName("mainWindow");
    resize(1100, 680);
    manager_.setUserPrompts(prompts_);

    sidebar_ = new QTreeWidget(this);
    sidebar_->setObjectName("sidebar");
    sidebar_->setAccessibleName(tr("Places"));
    sidebar_->setHeaderHidden(true);
    sidebar_->setRootIsDecorated(false);
    sidebar_->setMinimumWidth(150);
    connect(sidebar_, &QTreeWidget::itemActivated, this, [this](QTreeWidgetItem* item) {
        auto where = item->data(0, Qt::UserRole).toString();
        if (!where.isEmpty()) activePanel()->currentTab()->goTo(where);
    });
    connect(sidebar_, &QTreeWidget::itemClicked, this, [this](QTreeWidgetItem* item) {
        auto where = item->data(0, Qt::UserRole).toString();
        if (!where.isEmpty()) activePanel()->currentTab()->goTo(where);
    });

    auto* split = new QSplitter(Qt::Horizontal, this);
    split->addWidget(sidebar_);
    for (int side = 0; side < 2; ++side) {
        auto* panel = new FolderPanel(side == 0 ? tr("Left panel") : tr("Right panel"), split);
        panel->setObjectName(side == 0 ? "leftPanel" : "rightPanel");
        panels_[side] = panel;
        split->addWidget(panel);
        connect(panel, &FolderPanel::focused, this, [this, side] { setActivePanel(side); });
        connect(panel, &FolderPanel::dropped, this,
                [this](const std::vector<std::string>& sources, const std::string& target,
                       bool moving) { transfer(sources, target, moving); });
        connect(panel, &FolderPanel::renameRequested, this,
                [this](const Location& item, const std::string& name) { rename(item, name); });
    }
    split->setStretchFactor(0, 0);
    split->setStretchFactor(1, 1);
    split->setStretchFactor(2, 1);
    split->setSizes({170, 465, 465});
    setCentralWidget(split);

    auto home = resolveLocation(PathUtils::getHomeFolderPath());
    for (int side = 0; side < 2; ++side) {
        auto* tab = panels_[side]->addTab(home ? std::optional<Location>(*home) : std::nullopt);
        if (side == 0 && start) tab->goTo(QString::fromStdString(*start));
    }
    buildTransfersDock();
    buildActions();
    buildServerActions();
    buildPanelActions();
    reloadSidebar();
    statusBar()->showMessage(tr("Ready"));

    refreshToken_ = NotificationCenter::defaultCenter().addObserver(
        REFRESH_FOLDER_NOTIFICATION, [this](const UserInfo& info) {
            auto it = info.find(std::string(REFRESH_FOLDER_USER_INFO));
            if (it == info.end()) return;
            std::vector<std::pair<std::string, std::string>> folders;
            if (auto* metas = std::any_cast<KvMetadataList>(&it->second))
                for (auto& m : *metas)
                    folders.emplace_back(m.serverID.value_or(""), m.pathOrEmpty());
            if (auto* paths = std::any_cast<std::vector<std::string>>(&it->second))
                for (auto& p : *paths) folders.emplace_back("", p);
            refreshFolders(folders);
        });
    connect(transfers_, &TransferList::taskEnded, this, [this](const FileTransferTaskPtr& task) {
        auto& target = task->targetMetadata;
        refreshFolders({{target.serverID.value_or(""), target.pathOrEmpty()}});
    });
    applyPanelMode();
    panels_[0]->currentTab()->view()->setFocus();
}

bool MainWindow::isDualPanel() const {
    return AppPreference::sharedAppPreference().boolForKey(PrefKey::DualPanelMode);
}

void MainWindow::applyPanelMode() {
    bool dual = isDualPanel();
    panels_[1]->setVisible(dual);
    for (auto* a : otherPanelActions_) a->setEnabled(dual);
    if (!dual && active_ == 1) {
        setActivePanel(0);
        panels_[0]->currentTab()->currentView()->setFocus();
    }
}

MainWindow::~MainWindow() {
    NotificationCenter::defaultCenter().removeObserver(refreshToken_);
    if (manager_.hasActiveTasks()) manager_.stopAllTasks();
    manager_.setUserPrompts(nullptr);
}

void MainWindow::setActivePanel(int side) {
    active_ = side;
    for (int i = 0; i < 2; ++i)
        panels_[i]->setStyleSheet(
            i == side ? "QTabWidget::pane { border-top: 2px solid palette(highlight); }"
                      : QString());
}

bool MainWindow::focusNextPrevChild(bool next) {
    // Tab switches panels, as in dual-panel managers.
    auto* focus = QApplication::focusWidget();
    for (int side = 0; side < 2 && isDualPanel(); ++side) {
        if (focus && panels_[side]->isAncestorOf(focus)) {
            setActivePanel(1 - side);
            panels_[1 - side]->currentTab()->view()->setFocus(Qt::TabFocusReason);
            return true;
        }
    }
    return QMainWindow::focusNextPrevChild(next);
}

void MainWindow::buildActions() {
    auto* file = menuBar()->addMenu(tr("&File"));
    auto* view = menuBar()->addMenu(tr("&View"));
    auto* go = menuBar()->addMenu(tr("&Go"));
    auto* tools = addToolBar(tr("Actions"));
    tools->setObjectName("actionsToolBar");
    tools->setMovable(false);
    tools->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    auto add = [this](QMenu* menu, const QString& text, const char* icon, QKeySequence key,
                      auto fn) {
        auto* a = new QAction(QIcon::fromTheme(icon), text, this);
        a->setShortcut(key);
        a->setShortcutContext(Qt::WindowShortcut);
        connect(a, &QAction::triggered, this, fn);
        menu->addAction(a);
        return a;
    };
    otherPanelActions_ = {add(file, tr("Copy to Other Panel"), "edit-copy", Qt::Key_F5,
                              [this] { transferToOtherPanel(false); }),
                          add(file, tr("Move to Other Panel"), "go-next", Qt::Key_F6,
                              [this] { transferToOtherPanel(true); })};
    for (auto* a : otherPanelActions_) tools->addAction(a);
    tools->addAction(
        add(file, tr("New Folder"), "folder-new", Qt::Key_F7, [this] { newFolder(); }));
    add(file, tr("Rename"), "edit-rename", Qt::Key_F2, [this] { renameSelected(); });
    tools->addAction(
        add(file, tr("Delete"), "edit-delete", Qt::Key_Delete, [this] { deleteSelected(); }));
    file->addSeparator();
    add(file, tr("New Tab"), "tab-new", QKeySequence::AddTab, [this] { activePanel()->addTab(); });
    add(file, tr("Close Tab"), "tab-close", QKeySequence::Close,
        [this] { activePanel()->closeCurrentTab(); });
    file->addSeparator();
    add(file, tr("Quit"), "application-exit", QKeySequence::Quit, [this] { close(); });

    auto* hidden =
        add(view, tr("Show Hidden Items"), "", QKeySequence(Qt::CTRL | Qt::Key_H), [] {});
    hidden->setObjectName("showHiddenAction");
    hidden->setCheckable(true);
    hidden->setChecked(
        AppPreference::sharedAppPreference().boolForKey(PrefKey::SYS_SHOW_HIDDEN_FILES));
    connect(hidden, &QAction::toggled, this, [this](bool on) {
        auto& prefs = AppPreference::sharedAppPreference();
        prefs.setValue(PlistValue(on), PrefKey::SYS_SHOW_HIDDEN_FILES);
        if (auto r = prefs.save(); !r)
            showMessage(QString::fromStdString(r.error().describe()), true);
        for (auto* p : panels_)
            for (int i = 0; i < p->count(); ++i)
                static_cast<FolderTab*>(p->widget(i))->model()->refresh();
    });
    add(view, tr("Refresh"), "view-refresh", QKeySequence(Qt::CTRL | Qt::Key_R),
        [this] { activePanel()->currentTab()->model()->refresh(); });

    add(go, tr("Back"), "go-previous", QKeySequence::Back,
        [this] { activePanel()->currentTab()->back(); });
    add(go, tr("Forward"), "go-next", QKeySequence::Forward,
        [this] { activePanel()->currentTab()->forward(); });
    add(go, tr("Enclosing Folder"), "go-up", QKeySequence(Qt::ALT | Qt::Key_Up),
        [this] { activePanel()->currentTab()->up(); });
    add(go, tr("Location..."), "", QKeySequence(Qt::CTRL | Qt::Key_L), [this] {
        auto* bar = activePanel()->currentTab()->addressBar();
        bar->setFocus();
        bar->selectAll();
    });
    for (auto* a : tools->actions())
        if (auto* w = tools->widgetForAction(a)) w->setAccessibleName(a->text());
}

void MainWindow::buildTransfersDock() {
    auto* dock = new QDockWidget(tr("Transfers"), this);
    dock->setObjectName("transfersDock");
    dock->setFeatures(QDockWidget::DockWidgetMovable | QDockWidget::DockWidgetFloatable);
    auto* box = new QWidget(dock);
    auto* layout = new QHBoxLayout(box);
    layout->setContentsMargins(4, 2, 4, 2);
    transferView_ = new QTreeView(box);
    transferView_->setObjectName("transferList");
    transferView_->setAccessibleName(tr("Transfers"));
    transferView_->setModel(transfers_);
    transferView_->setRootIsDecorated(false);
    transferView_->setUniformRowHeights(true);
    transferView_->setSelectionBehavior(QAbstractItemView::SelectRows);
    transferView_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    transferView_->setItemDelegateForColumn(TransferList::Progress,
                                            new ProgressDelegate(transferView_));
    transferView_->header()->setStretchLastSection(false);
    transferView_->header()->setSectionResizeMode(TransferList::Name, QHeaderView::Stretch);
    transferView_->header()->resizeSection(TransferList::Progress, 220);
    transferView_->header()->resizeSection(TransferList::Rate, 90);
    transferView_->header()->resizeSection(TransferList::TimeLeft, 80);
    transferView_->header()->resizeSection(TransferList::State,
                                           180);  // "Completed, 2 items left out"
    layout->addWidget(transferView_, 1);
    auto* buttons = new QVBoxLayout;
    auto* stop = new QPushButton(tr("Stop"), box);
    stop->setObjectName("stopTransfer");
    stop->setAccessibleName(tr("Stop the selected transfers"));
    auto* stopAll = new QPushButton(tr("Stop All"), box);
    stopAll->setObjectName("stopAllTransfers");
    stopAll->setAccessibleName(tr("Stop all transfers"));
    auto* retry = new QPushButton(tr("Retry"), box);
    retry->setObjectName("retryTransfer");
    retry->setAccessibleName(tr("Retry the selected failed transfers"));
    connect(retry, &QPushButton::clicked, this, [this] { retrySelectedTransfers(); });
    buttons->addWidget(stop);
    buttons->addWidget(stopAll);
    buttons->addWidget(retry);
    buttons->addStretch(1);
    layout->addLayout(buttons);
    connect(stop, &QPushButton::clicked, this, [this] {
        std::vector<FileTransferTaskPtr> tasks;
        for (auto& index : transferView_->selectionModel()->selectedRows())
            if (auto t = transfers_->taskAt(index.row())) tasks.push_back(t);
        for (auto& t : tasks) manager_.stopTask(t);
    });
    connect(stopAll, &QPushButton::clicked, this, [this] { manager_.stopAllTasks(); });
    dock->setWidget(box);
    dock->setMinimumHeight(120);
    addDockWidget(Qt::BottomDockWidgetArea, dock);
    resizeDocks({dock}, {150}, Qt::Vertical);
}

void MainWindow::buildPanelActions() {
    panelActions_ = new PanelActions(this);
    panelActions_->install();
}

void MainWindow::retrySelectedTransfers() {
    int asked = 0;
    for (auto& index : transferView_->selectionModel()->selectedRows())
        asked += panelActions_->retry(index.row()) ? 1 : 0;
    if (asked == 0) showMessage(tr("Only failed or stopped transfers can be retried."));
}

void MainWindow::reloadSidebar() {
    sidebar_->clear();
    auto section = [this](const QString& title) {
        auto* item = new QTreeWidgetItem(sidebar_, {title});
        item->setFlags(Qt::ItemIsEnabled);
        auto font = item->font(0);
        font.setBold(true);
        item->setFont(0, font);
        item->setExpanded(true);
        return item;
    };
    auto entry = [](QTreeWidgetItem* parent, const QString& text, const std::string& where,
                    const char* icon, QStyle::StandardPixmap fallback) {
        auto* item = new QTreeWidgetItem(parent, {text});
        item->setData(0, Qt::UserRole, QString::fromStdString(where));
        item->setToolTip(0, QString::fromStdString(where));
        item->setIcon(0, QIcon::fromTheme(icon, QApplication::style()->standardIcon(fallback)));
        return item;
    };
    auto& servers = ServerInfoService::sharedServerInfoService();
    auto* places = section(tr("Places"));
    entry(places, tr("Home"), PathUtils::getHomeFolderPath(), "user-home", QStyle::SP_DirHomeIcon);
    for (auto& volume : servers.localServerInfos())
        entry(places,
              QString::fromStdString(volume.rootFolderPath == "/" ? std::string("File System")
                                                                  : volume.displayName),
              volume.rootFolderPath, "drive-harddisk", QStyle::SP_DriveHDIcon);
    auto remote = servers.remoteServerInfos();
    if (!remote.empty()) {
        auto* group = section(tr("Servers"));
        for (auto& info : remote)
            entry(group, QString::fromStdString(info.displayName), info.serverID + ":/",
                  "network-server", QStyle::SP_DriveNetIcon)
                ->setData(0, kServerIdRole, QString::fromStdString(info.serverID));
    }
    // Hosts the NetBIOS sweeps found; reached by address, as guest until the user adds them.
    auto hosts = NbtScanner::cachedInfos();
    if (!hosts.empty()) {
        auto* group = section(tr("SMB Hosts"));
        for (auto& host : hosts) {
            auto name = host.computerName.empty() ? host.ip : host.computerName;
            auto* item = entry(group, QString::fromStdString(name), "smb://" + host.ip + "/",
                               "network-workgroup", QStyle::SP_DriveNetIcon);
            item->setToolTip(0, QString::fromStdString(host.domainName.empty()
                                                           ? host.ip
                                                           : host.domainName + " - " + host.ip));
        }
    }
    auto pairs = SyncInfoService::sharedInstance().getAllSyncInfo();
    if (!pairs.empty()) {
        auto* group = section(tr("Sync Pairs"));
        for (auto& pair : pairs)
            entry(group, QString::fromStdString(pair.localFolderMeta.nameOrEmpty()),
                  pair.localFolderMeta.pathOrEmpty(), "folder-sync", QStyle::SP_BrowserReload);
    }
    sidebar_->expandAll();
}

void MainWindow::showMessage(const QString& text, bool error) {
    lastMessage_ = text;
    statusBar()->showMessage(text, error ? 0 : 8000);
}

void MainWindow::transfer(const std::vector<std::string>& sources, const std::string& target,
                          bool moving) {
    auto to = resolveLocation(target);
    if (!to) {
        showMessage(QString::fromStdString(to.error().describe()), true);
        return;
    }
    std::vector<Location> from;
    QStringList problems;
    for (auto& text : sources) {
        if (auto loc = resolveLocation(text))
            from.push_back(*loc);
        else
            problems << QString::fromStdString(loc.error().describe());
    }
    if (from.empty()) {
        if (!problems.isEmpty()) showMessage(problems.join("\n"), true);
        return;
    }
    // A plain pair rather than std::expected: GCC 12 warns about moving an expected through
    // two lambdas.
    struct Outcome {
        TransferPlan plan;
        std::optional<Refusal> refused;
    };
    inBackground(
        [to = *to, from, moving] {
            Outcome out;
            if (auto plan = TransferPlanner::plan(to, from, moving, /*recursive=*/true))
                out.plan = std::move(*plan);
            else
                out.refused = plan.error();
            return out;
        },
        [this, problems](Outcome outcome) mutable {
            if (outcome.refused) {
                showMessage(errorText(*outcome.refused), true);
                return;
            }
            auto& plan = outcome.plan;
            for (auto& refusal : plan.refusals) problems << errorText(refusal);
            for (auto& p : plan.transfers) {
                transfers_->add(p.task, p.label);
                manager_.addTask(p.task);
            }
            if (!plan.transfers.empty()) manager_.start();
            int n = static_cast<int>(plan.transfers.size());
            if (!problems.isEmpty())
                showMessage(problems.join("\n"), true);
            else
                showMessage(n == 1 ? tr("1 transfer queued.") : tr("%1 transfers queued.").arg(n));
        });
}

void MainWindow::transferToOtherPanel(bool moving) {
    auto sources = activePanel()->currentTab()->selectedLocations();
    auto& target = otherPanel()->currentTab()->model()->folder();
    if (sources.empty() || !target || !isDualPanel()) return;
    transfer(sources, FolderModel::locationText(*target), moving);
}

void MainWindow::renameSelected() {
    auto* view = activePanel()->currentTab()->view();
    auto index = view->currentIndex();
    if (index.isValid()) view->edit(index.siblingAtColumn(FolderModel::Name));
}

void MainWindow::rename(const Location& item, const std::string& newName) {
    if (newName.find('/') != std::string::npos || newName == "." || newName == "..") {
        showMessage(tr("\"%1\" cannot be used as a name.").arg(QString::fromStdString(newName)),
                    true);
        return;
    }
    Location to = item;
    to.path = FileTransferUtils::parentPath(item.path);
    to.path = (to.path == "/" || to.path.empty() ? "/" : to.path + "/") + newName;
    inBackground(
        [item, to]() -> std::expected<void, Refusal> {
            auto meta = statLocation(item);
            if (!meta) return std::unexpected(Refusal::failed(meta.error()));
            return TransferPlanner::rename(item, *meta, to);
        },
        [this, item](std::expected<void, Refusal> r) {
            if (!r) showMessage(errorText(r.error()), true);
            refreshFolderOf(item);
        });
}

void MainWindow::deleteSelected() {
    auto* tab = activePanel()->currentTab();
    auto rows = tab->selectedRows();
    if (rows.empty() || !tab->model()->folder()) return;
    Location folder = *tab->model()->folder();
    std::vector<Location> items;
    KvMetadataList metas;
    for (int row : rows) {
        items.push_back(tab->model()->locationOf(row));
        metas.push_back(tab->model()->item(row));
    }
    auto done = [this, folder](std::vector<std::string> problems) {
        QStringList text;
        for (auto& p : problems) text << QString::fromStdString(p);
        if (!text.isEmpty()) showMessage(text.join("\n"), true);
        refreshFolders({folderKey(folder)});
    };
    if (folder.isLocal()) {
        inBackground(
            [items] {
                std::vector<std::string> problems;
                for (auto& loc : items)
                    if (auto r = SandboxFileAccess::trashItem(loc.path); !r)
                        problems.push_back(r.error().describe());
                return problems;
            },
            done);
        return;
    }
    auto* ask = new QMessageBox(
        QMessageBox::Warning, tr("Delete"),
        rows.size() == 1
            ? tr("Delete \"%1\" from %2? This cannot be undone.")
                  .arg(QString::fromStdString(FileTransferUtils::itemName(metas.front())),
                       QString::fromStdString(folder.server->displayName))
            : tr("Delete %1 items from %2? This cannot be undone.")
                  .arg(rows.size())
                  .arg(QString::fromStdString(folder.server->displayName)),
        QMessageBox::Cancel, this);
    ask->setObjectName("deleteConfirmation");
    auto* yes = ask->addButton(tr("Delete"), QMessageBox::DestructiveRole);
    yes->setObjectName("confirmDelete");
    ask->setAttribute(Qt::WA_DeleteOnClose);
    ask->setWindowModality(Qt::WindowModal);
    connect(ask, &QMessageBox::finished, this, [this, ask, yes, folder, metas, done] {
        if (ask->clickedButton() != yes) return;
        inBackground(
            [folder, metas] {
                std::vector<std::string> problems;
                auto client = WrapperProxy::clientForServerInfo(folder.server);
                if (!client)
                    problems.push_back(client.error().describe());
                else if (auto r = (*client)->removeSync(metas); !r)
                    problems.push_back(r.error().describe());
                return problems;
            },
            done);
    });
    ask->open();
}

void MainWindow::newFolder() {
    auto* tab = activePanel()->currentTab();
    if (!tab->model()->folder()) return;
    Location folder = *tab->model()->folder();
    auto* ask = new QInputDialog(this);
    ask->setObjectName("newFolderDialog");
    ask->setWindowTitle(tr("New Folder"));
    ask->setLabelText(tr("Name of the new folder:"));
    ask->setTextValue(tr("untitled folder"));
    ask->setAttribute(Qt::WA_DeleteOnClose);
    ask->setWindowModality(Qt::WindowModal);
    connect(ask, &QInputDialog::textValueSelected, this, [this, folder](const QString& text) {
        auto name = text.trimmed().toStdString();
        if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") {
            showMessage(tr("\"%1\" cannot be used as a name.").arg(text), true);
            return;
        }
        Location created = folder;
        created.path = (folder.path == "/" ? "" : folder.path) + "/" + name;
        inBackground(
            [created]() -> Status {
                auto client = WrapperProxy::clientForServerInfo(created.server);
                if (!client) return std::unexpected(client.error());
                return (*client)->createFolderSync(created.metadata(true));
            },
            [this, folder](Status r) {
                if (!r) showMessage(QString::fromStdString(r.error().describe()), true);
                refreshFolders({folderKey(folder)});
            });
    });
    ask->open();
}

void MainWindow::refreshFolderOf(const Location& item) {
    Location parent = item;
    parent.path = FolderModel::parentFolderPath(item.path);
    refreshFolders({folderKey(parent)});
}

void MainWindow::refreshFolders(const std::vector<std::pair<std::string, std::string>>& folders) {
    for (auto* p : panels_) p->refreshFolders(folders);
}

}  // namespace quillon::gui
