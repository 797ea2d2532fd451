#pragma once
// FolderPanel: one side of the window: tabs, each a folder with its address bar, back, forward
// and up, and a sortable list. Going to a typed location looks it up first: a bad location shows
// an error and the tab stays where it was.

#include <QTabWidget>
#include <QWidget>
#include <optional>
#include <string>
#include <vector>

#include "app/gui/FolderModel.h"
#include "core/Location.h"

class QAbstractItemView;
class QHBoxLayout;
class QLabel;
class QLineEdit;
class QListView;
class QStackedWidget;
class QToolButton;
class QTreeView;

namespace quillon::gui {

class FolderTab : public QWidget {
    Q_OBJECT
  public:
    explicit FolderTab(QWidget* parent = nullptr);

    // Looks the typed location up (in the background) and shows it when it is a folder; an error
    // in the tab otherwise. Returns at once.
    void goTo(const QString& text);
    // Shows a folder known to exist, adding it to the history.
    void showFolder(const Location& folder);
    void back();
    void forward();
    void up();
    // Opens the current row: a folder is entered, a file is asked for (openRequested).
    void openCurrent();
    // Shows the folder as icons rather than as a list with columns.
    void setIconView(bool on);
    bool isIconView() const;
    // The view shown now (the list or the icons; both share one selection).
    QAbstractItemView* currentView() const;

    FolderModel* model() const { return model_; }
    QTreeView* view() const { return view_; }
    QLineEdit* addressBar() const { return address_; }
    QListView* iconView() const { return icons_; }
    // The path buttons above the list, from the top folder to the one shown.
    QWidget* breadcrumbs() const { return crumbs_; }
    // The error of the last failed lookup or listing ("" when there is none).
    QString errorText() const;
    // The location texts of the selected rows.
    std::vector<std::string> selectedLocations() const;
    std::vector<int> selectedRows() const;

  signals:
    // The tab now shows another folder (or an error).
    void folderChanged();
    void focused();
    // A file was opened (Enter, a double click).
    void openRequested(int row);
    // A context menu was asked for at `globalPos`.
    void contextMenuRequested(const QPoint& globalPos);

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    void navigate(const Location& folder, bool record);
    void showError(const QString& message);
    void updateControls();
    void updateBreadcrumbs();

    FolderModel* model_;
    QTreeView* view_;
    QListView* icons_;
    QStackedWidget* views_;
    QWidget* crumbs_;
    QHBoxLayout* crumbsLayout_;
    QLineEdit* address_;
    QLabel* error_;
    QToolButton* backButton_;
    QToolButton* forwardButton_;
    QToolButton* upButton_;
    std::vector<Location> backStack_;
    std::vector<Location> forwardStack_;
    std::uint64_t lookup_ = 0;  // a later lookup wins over an earlier one still running
};

class FolderPanel : public QTabWidget {
    Q_OBJECT
  public:
    explicit FolderPanel(const QString& name, QWidget* parent = nullptr);

    FolderTab* currentTab() const;
    // A new tab at the location (the current tab's folder when absent).
    FolderTab* addTab(const std::optional<Location>& at = std::nullopt);
    void closeCurrentTab();
    // Lists again every tab that shows one of `folders` (server id and path).
    void refreshFolders(const std::vector<std::pair<std::string, std::string>>& folders);

  signals:
    void focused();
    void renameRequested(const Location& item, const std::string& newName);
    void dropped(const std::vector<std::string>& sources, const std::string& target, bool moving);
    void openRequested(FolderTab* tab, int row);
    void contextMenuRequested(FolderTab* tab, const QPoint& globalPos);

  protected:
    void tabInserted(int index) override;
    void tabRemoved(int index) override;

  private:
    void updateCloseButtons();
};

}  // namespace quillon::gui
