#pragma once
// MainWindow: the desktop window. A sidebar of places (volumes, servers, sync pairs), two folder
// panels side by side and the transfers dock. Every action goes through the engine's services:
// copies and moves are tasks of the one transfer manager, planned by TransferPlanner; lookups,
// listings and changes run on the background queue, never on the window's thread.

#include <QMainWindow>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/gui/FolderPanel.h"
#include "app/gui/GuiPrompts.h"
#include "app/gui/TransferList.h"
#include "core/NotificationCenter.h"

class QTreeWidget;
class QTreeView;

namespace quillon::gui {

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

  protected:
    bool focusNextPrevChild(bool next) override;

  private:
    friend class PanelActions;
    void buildActions();
    void buildPanelActions();
    void retrySelectedTransfers();
    void buildTransfersDock();
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
    int active_ = 0;
    QTreeWidget* sidebar_;
    TransferList* transfers_;
    QTreeView* transferView_ = nullptr;
    PanelActions* panelActions_ = nullptr;
    std::shared_ptr<GuiPrompts> prompts_;
    QString lastMessage_;
    NotificationCenter::Token refreshToken_ = 0;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace quillon::gui
