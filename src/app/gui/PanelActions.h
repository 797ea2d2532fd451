#pragma once
// PanelActions: what the panels' context menu and the Edit menu do with the selected items:
// open (a remote file is downloaded into the cache first), copy, cut and paste through the
// clipboard, properties, compress and extract, play and stream, and retrying a failed transfer.
// Every copy, download and archive job is a task of the window's transfer manager, so each
// shows a row in the transfers list.

#include <QObject>
#include <QPointer>
#include <QUrl>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "app/gui/NearbyWindow.h"
#include "app/gui/PlayerWindow.h"
#include "core/Location.h"
#include "transfer/FileTransferTask.h"

class QAction;
class QDialog;
class QMenu;
class QMimeData;

namespace quillon {
class ExtractionPlan;
class MusicPlayerService;
}  // namespace quillon

namespace quillon::gui {

class FolderTab;
class MainWindow;

class PanelActions : public QObject {
    Q_OBJECT
  public:
    // Hands a file or URL to the desktop (its default application); false when nothing took it.
    using Opener = std::function<bool(const QUrl&)>;
    // Marks a clipboard's items as cut (moved when pasted), as file managers of the desktop do.
    static constexpr const char* kCutMimeType = "application/x-kde-cutselection";

    explicit PanelActions(MainWindow* window);
    ~PanelActions() override;

    // Adds the Edit menu and the view actions to the window; connects the panels' tabs.
    void install();
    // The menu for the selection of `tab` (the folder itself when nothing is selected).
    QMenu* contextMenu(FolderTab* tab);

    void setOpener(Opener opener) { opener_ = std::move(opener); }
    // The player the Play action uses (the shared one unless set).
    void setPlayer(MusicPlayerService* player) { player_ = player; }

    // The active panel's selection:
    void openSelected();
    void copySelected(bool cut);
    // Queues the clipboard's items into the active panel's folder (moved when they were cut).
    void paste();
    void showProperties();
    // A zip of the selected local items beside them.
    void compressSelected();
    // Each selected archive into a new folder in the panel's folder; an encrypted one asks for
    // its password.
    void extractSelected();
    // Audio files and play lists in the player window.
    void playSelected();
    // The selected file offered by the streaming server; its URL goes to the opener.
    void streamSelected();
    void toggleIconView(bool on);
    // The nearby window, whose sends take the active panel's local selection.
    void showNearby();
    // Asks again for the copy or move of a failed (or stopped) row of the transfers list.
    bool retry(int row);

    QDialog* propertiesDialog() const { return properties_; }
    // The question for an archive's password open now, or null.
    QDialog* passwordDialog() const { return passwordDialog_; }
    PlayerWindow* playerWindow() const { return playerWindow_; }
    NearbyWindow* nearbyWindow() const { return nearbyWindow_; }

  private:
    struct Job;
    FolderTab* tab() const;
    void open(const Location& item, bool isDir);
    // Tasks with the names their rows show.
    using Labelled = std::vector<std::pair<FileTransferTaskPtr, std::string>>;
    // Queues `tasks`, shown with their labels; `then` runs once each has ended.
    void queue(Labelled tasks, std::function<void(bool allCompleted)> then);
    void taskEnded(const FileTransferTaskPtr& task);
    void extract(std::vector<Location> archives, Location target,
                 std::optional<std::string> password);
    // The stages of `plan` from `stage` on; `extracted` gets the extractions once they ended.
    void runExtraction(std::shared_ptr<ExtractionPlan> plan, int stage,
                       std::function<void(const Labelled&)> extracted);
    // Asks for the password of `archives` (their extraction needed one, or another one), then
    // extracts them again with it.
    void askPassword(std::vector<Location> archives, Location target, bool wrong);
    void message(const QString& text, bool error = false);
    template <typename Work, typename Then>
    void inBackground(Work work, Then then);

    MainWindow* window_;
    Opener opener_;
    MusicPlayerService* player_ = nullptr;
    QPointer<QDialog> properties_;
    QPointer<QDialog> passwordDialog_;
    QPointer<PlayerWindow> playerWindow_;
    QPointer<NearbyWindow> nearbyWindow_;
    std::vector<std::shared_ptr<Job>> jobs_;
    QAction* iconView_ = nullptr;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace quillon::gui
