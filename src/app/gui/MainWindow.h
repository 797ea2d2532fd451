#pragma once
// MainWindow: the desktop window. A sidebar of places (volumes, servers, sync pairs), two folder
// panels side by side and the transfers dock. Every action goes through the engine's services:
// copies and moves are tasks of the one transfer manager, planned by TransferPlanner; lookups,
// listings and changes run on the background queue, never on the window's thread.

#include <QMainWindow>
#include <QPointer>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/gui/FolderPanel.h"
#include "app/gui/GuiPrompts.h"
#include "app/gui/TransferList.h"
#include "core/NotificationCenter.h"

class QLineEdit;
class QTreeWidget;
class QTreeView;

namespace quillon::gui {

class FtpServerPane;
class HostKeyAsker;
class PreferencesDialog;
class ServerEditor;
class SyncPane;
class PanelActions;

class MainWindow : public QMainWindow {
    Q_OBJECT
  public:
    // A window over `manager` whose left panel shows `start` (the home folder when absent or
    // when it cannot be shown).
    explicit MainWindow(FileTransferTaskManager& manager,
                        const std::optional<std::string>& start = std::nullopt,
                        QWidget* parent = nullptr);
    ~MainWindow() override;

    FolderPanel* panel(int side) const { return panels_[side]; }
    FolderPanel* activePanel() const { return panels_[active_]; }
    FolderPanel* otherPanel() const { return panels_[1 - active_]; }
    void setActivePanel(int side);
    // Two panels side by side ("Dual Panel Mode"), or the left one alone.
    bool isDualPanel() const;
    // Shows one panel or two, as the preference says.
    void applyPanelMode();
    TransferList* transfers() const { return transfers_; }
    const std::shared_ptr<GuiPrompts>& prompts() const { return prompts_; }
    QTreeWidget* sidebar() const { return sidebar_; }
    // Open, clipboard, properties, archives, play and stream, retry.
    PanelActions* panelActions() const { return panelActions_; }
    // The last message shown in the status bar.
    QString lastMessage() const { return lastMessage_; }

    // Copies (or moves) the items at `sources` into the folder at `target` (location texts):
    // looked up and planned in the background, then queued on the transfer manager.
    void transfer(const std::vector<std::string>& sources, const std::string& target, bool moving);
    // F5 / F6: the selection of the active panel into the folder of the other one.
    void transferToOtherPanel(bool moving);
    void renameSelected();
    // Local items go to the desktop trash; remote ones are deleted after a confirmation.
    void deleteSelected();
    void newFolder();
    // Fills the sidebar again from the services.
    void reloadSidebar();

    // Servers, sync, sharing and settings: each opens its window (or brings it forward) and
    // returns it.
    ServerEditor* addServer(std::int32_t kind);
    // Null when no server has the id.
    ServerEditor* editServer(const std::string& serverID);
    // Asks first.
    void removeServer(const std::string& serverID);
    SyncPane* showSyncPane();
    FtpServerPane* showFtpServerPane();
    PreferencesDialog* showPreferences();
    // A NetBIOS sweep of the local network, asked for by the user; the hosts found join the
    // sidebar.
    void scanSmbHosts();
    QLineEdit* quickConnectBar() const { return quickConnect_; }
    HostKeyAsker* hostKeys() const { return hostKeys_; }
    // Sidebar item data: the server id of a server's entry.
    static constexpr int kServerIdRole = Qt::UserRole + 1;

  protected:
    bool focusNextPrevChild(bool next) override;

  private:
    friend class PanelActions;
    void buildActions();
    void buildPanelActions();
    void retrySelectedTransfers();
    void buildTransfersDock();
    void buildServerActions();
    void showSidebarMenu(const QPoint& at);
    void rename(const Location& item, const std::string& newName);
    void refreshFolders(const std::vector<std::pair<std::string, std::string>>& folders);
    void refreshFolderOf(const Location& item);
    void showMessage(const QString& text, bool error = false);
    // Runs `work` on the background queue and `then` with its result on the window's thread,
    // unless the window has gone by then.
    template <typename Work, typename Then>
    void inBackground(Work work, Then then);

    FileTransferTaskManager& manager_;
    FolderPanel* panels_[2];
    // Copy and move to the other panel: only while there is one on show.
    std::vector<QAction*> otherPanelActions_;
    int active_ = 0;
    QTreeWidget* sidebar_;
    TransferList* transfers_;
    QTreeView* transferView_ = nullptr;
    PanelActions* panelActions_ = nullptr;
    std::shared_ptr<GuiPrompts> prompts_;
    HostKeyAsker* hostKeys_ = nullptr;
    QLineEdit* quickConnect_ = nullptr;
    QPointer<SyncPane> syncPane_;
    QPointer<FtpServerPane> ftpPane_;
    QPointer<PreferencesDialog> preferences_;
    QString lastMessage_;
    NotificationCenter::Token refreshToken_ = 0;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace quillon::gui
