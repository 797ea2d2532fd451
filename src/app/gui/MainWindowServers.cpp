// The main window's servers, sync, sharing and settings: the server menu and the quick-connect
// bar, the sidebar's menu, and the windows they open.

#include <QAction>
#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QPushButton>
#include <QToolBar>
#include <QTreeWidget>

#include "app/gui/Background.h"
#include "app/gui/FtpServerPane.h"
#include "app/gui/MainWindow.h"
#include "app/gui/PreferencesDialog.h"
#include "app/gui/ServerEditor.h"
#include "app/gui/SyncPane.h"
#include "clients/smb/NbtScanner.h"
#include "core/AppPreference.h"
#include "core/GCD.h"
#include "core/ServerInfoService.h"
#include "servers/ftpserver/FtpServerService.h"
#include "sync/SyncInfoService.h"

namespace quillon::gui {

void MainWindow::buildServerActions() {
    auto* servers = menuBar()->addMenu(tr("&Servers"));
    auto* tools = menuBar()->addMenu(tr("&Tools"));
    auto add = [this](QMenu* menu, const QString& text, const char* icon, QKeySequence key,
                      auto fn) {
        auto* a = new QAction(QIcon::fromTheme(icon), text, this);
        a->setShortcut(key);
        connect(a, &QAction::triggered, this, fn);
        menu->addAction(a);
        return a;
    };
    auto* addMenu = servers->addMenu(QIcon::fromTheme("list-add"), tr("Add Server"));
    const std::pair<std::int32_t, QString> kinds[] = {{ProtocolType::FTP, tr("FTP...")},
                                                      {ProtocolType::SFTP, tr("SFTP...")},
                                                      {ProtocolType::WebDAV, tr("WebDAV...")},
                                                      {ProtocolType::SMB, tr("SMB...")}};
    for (auto& kind : kinds) {
        std::int32_t type = kind.first;
        add(addMenu, kind.second, "", {}, [this, type] { addServer(type); });
    }
    add(servers, tr("Edit Server..."), "document-edit", {}, [this] {
        if (auto* item = sidebar_->currentItem())
            editServer(item->data(0, kServerIdRole).toString().toStdString());
    });
    add(servers, tr("Remove Server"), "list-remove", {}, [this] {
        if (auto* item = sidebar_->currentItem())
            removeServer(item->data(0, kServerIdRole).toString().toStdString());
    });
    servers->addSeparator();
    add(servers, tr("Scan for SMB Hosts"), "network-workgroup", {}, [this] { scanSmbHosts(); });
    add(tools, tr("Sync Pairs..."), "folder-sync", {}, [this] { showSyncPane(); });
    add(tools, tr("Share a Folder over FTP..."), "folder-remote", {},
        [this] { showFtpServerPane(); });
    add(tools, tr("Preferences..."), "preferences-system", QKeySequence::Preferences,
        [this] { showPreferences(); });

    // The quick-connect bar: any location the address bar takes, opened in the active panel.
    auto* bar = addToolBar(tr("Quick Connect"));
    bar->setObjectName("quickConnectToolBar");
    bar->setMovable(false);
    auto* label = new QLabel(tr(" Connect to: "), bar);
    bar->addWidget(label);
    quickConnect_ = new QLineEdit(bar);
    quickConnect_->setObjectName("quickConnect");
    quickConnect_->setAccessibleName(tr("Quick connect"));
    quickConnect_->setPlaceholderText(
        tr("sftp://user@host/path, ftp://..., smb://..., NAME:/path"));
    quickConnect_->setClearButtonEnabled(true);
    label->setBuddy(quickConnect_);
    bar->addWidget(quickConnect_);
    connect(quickConnect_, &QLineEdit::returnPressed, this, [this] {
        auto text = quickConnect_->text().trimmed();
        if (!text.isEmpty()) activePanel()->currentTab()->goTo(text);
    });

    sidebar_->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(sidebar_, &QWidget::customContextMenuRequested, this,
            [this](const QPoint& at) { showSidebarMenu(at); });
}

void MainWindow::showSidebarMenu(const QPoint& at) {
    auto* item = sidebar_->itemAt(at);
    auto id = item ? item->data(0, kServerIdRole).toString().toStdString() : std::string();
    auto* menu = new QMenu(sidebar_);
    menu->setAttribute(Qt::WA_DeleteOnClose);
    auto entry = [this, menu](const QString& text, auto fn) {
        connect(menu->addAction(text), &QAction::triggered, this, fn);
    };
    if (!id.empty()) {
        entry(tr("Edit Server..."), [this, id] { editServer(id); });
        entry(tr("Remove Server"), [this, id] { removeServer(id); });
        menu->addSeparator();
    }
    entry(tr("Add Server..."), [this] { addServer(ProtocolType::FTP); });
    entry(tr("Scan for SMB Hosts"), [this] { scanSmbHosts(); });
    menu->popup(sidebar_->viewport()->mapToGlobal(at));
}

ServerEditor* MainWindow::addServer(std::int32_t kind) {
    auto* editor = new ServerEditor(kind, this);
    editor->setAttribute(Qt::WA_DeleteOnClose);
    connect(editor, &ServerEditor::saved, this, [this](const ServerInfo& info) {
        reloadSidebar();
        showMessage(tr("Server \"%1\" added.").arg(QString::fromStdString(info.displayName)));
    });
    editor->open();
    return editor;
}

ServerEditor* MainWindow::editServer(const std::string& serverID) {
    if (serverID.empty()) return nullptr;
    auto info = ServerInfoService::sharedServerInfoService().serverInfoWithServerID(serverID);
    if (!info || !ServerForm::handles(info->protocolType)) {
        showMessage(tr("This server cannot be edited here."), true);
        return nullptr;
    }
    auto* editor = new ServerEditor(*info, this);
    editor->setAttribute(Qt::WA_DeleteOnClose);
    connect(editor, &ServerEditor::saved, this, [this](const ServerInfo& saved) {
        reloadSidebar();
        showMessage(tr("Server \"%1\" saved.").arg(QString::fromStdString(saved.displayName)));
    });
    editor->open();
    return editor;
}

void MainWindow::removeServer(const std::string& serverID) {
    if (serverID.empty()) return;
    auto info = ServerInfoService::sharedServerInfoService().serverInfoWithServerID(serverID);
    if (!info) return;
    auto text = tr("Remove the server \"%1\"? Its files are not touched.")
                    .arg(QString::fromStdString(info->displayName));
    // A pair whose server is gone cannot run: say which ones before they are orphaned.
    auto pairs = SyncInfoService::sharedInstance().pairsUsingServer(serverID);
    if (!pairs.empty()) text += "\n\n" + tr("The sync pairs using it stop working:");
    for (auto& pair : pairs)
        text += "\n" + tr("sync pair %1: %2 <-> %3")
                           .arg(pair.syncInfoID)
                           .arg(QString::fromStdString(pair.localFolderMeta.pathOrEmpty()),
                                QString::fromStdString(pair.remoteFolderMeta.pathOrEmpty()));
    auto* ask = new QMessageBox(pairs.empty() ? QMessageBox::Question : QMessageBox::Warning,
                                tr("Remove Server"), text, QMessageBox::Cancel, this);
    ask->setObjectName("removeServerConfirmation");
    auto* yes = ask->addButton(tr("Remove"), QMessageBox::DestructiveRole);
    yes->setObjectName("confirmRemoveServer");
    yes->setAccessibleName(tr("Remove the server"));
    ask->setAttribute(Qt::WA_DeleteOnClose);
    ask->setWindowModality(Qt::WindowModal);
    connect(ask, &QMessageBox::finished, this, [this, ask, yes, record = *info] {
        if (ask->clickedButton() != yes) return;
        gui::inBackground(
            this,
            [record] {
                std::optional<std::string> problem;
                if (auto r = ServerInfoService::sharedServerInfoService().deleteServerInfo(record);
                    !r)
                    problem = r.error().describe();
                return problem;
            },
            [this](std::optional<std::string> problem) {
                if (problem) showMessage(QString::fromStdString(*problem), true);
                reloadSidebar();
            });
    });
    ask->open();
}

SyncPane* MainWindow::showSyncPane() {
    if (!syncPane_) {
        syncPane_ = new SyncPane(manager_, transfers_, this);
        connect(syncPane_, &SyncPane::pairsChanged, this, [this] { reloadSidebar(); });
    }
    syncPane_->show();
    syncPane_->raise();
    return syncPane_;
}

FtpServerPane* MainWindow::showFtpServerPane() {
    if (!ftpPane_) ftpPane_ = new FtpServerPane(FtpServerService::sharedFtpServerService(), this);
    ftpPane_->show();
    ftpPane_->raise();
    return ftpPane_;
}

PreferencesDialog* MainWindow::showPreferences() {
    if (preferences_) preferences_->close();
    preferences_ = new PreferencesDialog(this);
    preferences_->setAttribute(Qt::WA_DeleteOnClose);
    connect(preferences_, &PreferencesDialog::changed, this, [this] {
        // The hidden-items switch follows the store; toggling it lists the folders again.
        if (auto* hidden = findChild<QAction*>("showHiddenAction"))
            hidden->setChecked(
                AppPreference::sharedAppPreference().boolForKey(PrefKey::SYS_SHOW_HIDDEN_FILES));
        applyPanelMode();
        showMessage(tr("Preferences saved."));
    });
    preferences_->open();
    return preferences_;
}

void MainWindow::scanSmbHosts() {
    auto target = NbtScanner::localWirelessTarget();
    if (!target) {
        showMessage(tr("No wireless network to look for SMB hosts on."), true);
        return;
    }
    showMessage(tr("Looking for SMB hosts on %1...").arg(QString::fromStdString(*target)));
    // The sweep runs on the scanner's own queue; the sidebar is filled again on the window's
    // thread once the hosts are in the scanner's cache.
    QPointer<MainWindow> self(this);
    NbtScanner scanner;
    scanner.scanNetwork(*target, [self](const std::vector<NbtInfo>& found) {
        NbtScanner::mergeFoundedInfo(found);
        auto count = found.size();
        GCD::doInForeground([self, count] {
            if (!self) return;
            self->reloadSidebar();
            self->showMessage(count == 1 ? tr("1 SMB host found.")
                                         : tr("%1 SMB hosts found.").arg(count));
        });
    });
}

}  // namespace quillon::gui
