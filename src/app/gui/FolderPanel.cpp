#include "app/gui/FolderPanel.h"

#include <QApplication>
#include <QEvent>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QStyle>
#include <QToolButton>
#include <QTreeView>
#include <QVBoxLayout>

#include "core/GCD.h"
#include "transfer/FileTransferUtils.h"

namespace quillon::gui {

namespace {

QToolButton* navButton(QWidget* parent, const char* themeIcon, QStyle::StandardPixmap fallback,
                       const QString& name) {
    auto* b = new QToolButton(parent);
    b->setIcon(QIcon::fromTheme(themeIcon, QApplication::style()->standardIcon(fallback)));
    b->setToolTip(name);
    b->setAccessibleName(name);
    b->setAutoRaise(true);
    return b;
}

}  // namespace

FolderTab::FolderTab(QWidget* parent) : QWidget(parent), model_(new FolderModel(this)) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(2);
    auto* bar = new QHBoxLayout;
    backButton_ = navButton(this, "go-previous", QStyle::SP_ArrowBack, tr("Back"));
    forwardButton_ = navButton(this, "go-next", QStyle::SP_ArrowForward, tr("Forward"));
    upButton_ = navButton(this, "go-up", QStyle::SP_ArrowUp, tr("Enclosing folder"));
    address_ = new QLineEdit(this);
    address_->setAccessibleName(tr("Location"));
    address_->setPlaceholderText(tr("Path, SERVER:/path or URL"));
    address_->setClearButtonEnabled(true);
    bar->addWidget(backButton_);
    bar->addWidget(forwardButton_);
    bar->addWidget(upButton_);
    bar->addWidget(address_, 1);
    layout->addLayout(bar);

    error_ = new QLabel(this);
    error_->setObjectName("folderError");
    error_->setWordWrap(true);
    error_->setStyleSheet(
        "QLabel { color: palette(bright-text); background: #b3261e; "
        "padding: 3px 6px; border-radius: 3px; }");
    error_->hide();
    layout->addWidget(error_);

    view_ = new QTreeView(this);
    view_->setAccessibleName(tr("Folder contents"));
    view_->setModel(model_);
    view_->setRootIsDecorated(false);
    view_->setItemsExpandable(false);
    view_->setUniformRowHeights(true);
    view_->setAlternatingRowColors(true);
    view_->setSortingEnabled(true);
    view_->sortByColumn(FolderModel::Name, Qt::AscendingOrder);
    view_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    view_->setSelectionBehavior(QAbstractItemView::SelectRows);
    view_->setEditTriggers(QAbstractItemView::EditKeyPressed);
    view_->setDragEnabled(true);
    view_->setAcceptDrops(true);
    view_->setDropIndicatorShown(true);
    view_->setDragDropMode(QAbstractItemView::DragDrop);
    view_->setDefaultDropAction(Qt::CopyAction);
    view_->header()->setStretchLastSection(false);
    view_->header()->setSectionResizeMode(FolderModel::Name, QHeaderView::Stretch);
    view_->header()->resizeSection(FolderModel::Size, 80);
    view_->header()->resizeSection(FolderModel::Kind, 110);
    view_->header()->resizeSection(FolderModel::Modified, 130);
    view_->installEventFilter(this);
    layout->addWidget(view_, 1);

    connect(address_, &QLineEdit::returnPressed, this, [this] { goTo(address_->text()); });
    connect(backButton_, &QToolButton::clicked, this, &FolderTab::back);
    connect(forwardButton_, &QToolButton::clicked, this, &FolderTab::forward);
    connect(upButton_, &QToolButton::clicked, this, &FolderTab::up);
    connect(view_, &QTreeView::activated, this, [this] { openCurrent(); });
    connect(model_, &FolderModel::listingFailed, this, &FolderTab::showError);
    updateControls();
}

QString FolderTab::errorText() const {
    return error_->isHidden() ? QString() : error_->text();
}

void FolderTab::showError(const QString& message) {
    error_->setText(message);
    error_->show();
    emit folderChanged();
}

void FolderTab::goTo(const QString& text) {
    auto loc = resolveLocation(text.trimmed().toStdString());
    if (!loc) {
        showError(QString::fromStdString(loc.error().describe()));
        return;
    }
    auto id = ++lookup_;
    std::weak_ptr<int> alive = model_->alive();
    GCD::doInBackground([this, alive, id, loc = *loc] {
        auto item = statLocation(loc);
        GCD::doInForeground([this, alive, id, loc, item = std::move(item)] {
            if (alive.expired() || id != lookup_) return;
            if (!item) {
                showError(QString::fromStdString(item.error().describe()));
            } else if (!item->isDir) {
                showError(tr("%1 is not a folder.").arg(QString::fromStdString(loc.display())));
            } else {
                showFolder(loc);
            }
        });
    });
}

void FolderTab::showFolder(const Location& folder) {
    navigate(folder, true);
}

void FolderTab::navigate(const Location& folder, bool record) {
    ++lookup_;
    if (record && model_->folder()) {
        backStack_.push_back(*model_->folder());
        forwardStack_.clear();
    }
    error_->hide();
    model_->setFolder(folder);
    updateControls();
    emit folderChanged();
}

void FolderTab::back() {
    if (backStack_.empty() || !model_->folder()) return;
    forwardStack_.push_back(*model_->folder());
    auto to = backStack_.back();
    backStack_.pop_back();
    navigate(to, false);
}

void FolderTab::forward() {
    if (forwardStack_.empty() || !model_->folder()) return;
    backStack_.push_back(*model_->folder());
    auto to = forwardStack_.back();
    forwardStack_.pop_back();
    navigate(to, false);
}

void FolderTab::up() {
    if (!model_->folder() || model_->folder()->path == "/") return;
    Location parent = *model_->folder();
    parent.path = FolderModel::parentFolderPath(parent.path);
    navigate(parent, true);
}

void FolderTab::openCurrent() {
    auto index = view_->currentIndex();
    if (!index.isValid()) return;
    const auto& item = model_->item(index.row());
    if (item.isDir) navigate(model_->locationOf(index.row()), true);
}

std::vector<int> FolderTab::selectedRows() const {
    std::vector<int> rows;
    for (auto& index : view_->selectionModel()->selectedRows()) rows.push_back(index.row());
    std::sort(rows.begin(), rows.end());
    return rows;
}

std::vector<std::string> FolderTab::selectedLocations() const {
    std::vector<std::string> out;
    for (int row : selectedRows())
        out.push_back(FolderModel::locationText(model_->locationOf(row)));
    return out;
}

void FolderTab::updateControls() {
    backButton_->setEnabled(!backStack_.empty());
    forwardButton_->setEnabled(!forwardStack_.empty());
    upButton_->setEnabled(model_->folder() && model_->folder()->path != "/");
    if (model_->folder()) address_->setText(QString::fromStdString(model_->folder()->display()));
}

bool FolderTab::eventFilter(QObject* watched, QEvent* event) {
    if (watched == view_ && event->type() == QEvent::FocusIn) emit focused();
    if (watched == view_ && event->type() == QEvent::KeyPress) {
        auto* key = static_cast<QKeyEvent*>(event);
        // While a name is edited in place, keys go to the editor, not here.
        if (key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter) {
            openCurrent();
            return true;
        }
        if (key->key() == Qt::Key_Backspace) {
            up();
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

FolderPanel::FolderPanel(const QString& name, QWidget* parent) : QTabWidget(parent) {
    setAccessibleName(name);
    setDocumentMode(true);
    setTabsClosable(true);
    setMovable(true);
    connect(this, &QTabWidget::tabCloseRequested, this, [this](int index) {
        if (count() > 1) delete widget(index);
    });
}

FolderTab* FolderPanel::currentTab() const {
    return static_cast<FolderTab*>(currentWidget());
}

FolderTab* FolderPanel::addTab(const std::optional<Location>& at) {
    auto* tab = new FolderTab(this);
    std::optional<Location> where = at;
    if (!where && currentTab() && currentTab()->model()->folder())
        where = currentTab()->model()->folder();
    int index = QTabWidget::addTab(tab, tr("Folder"));
    auto retitle = [this, tab] {
        int i = indexOf(tab);
        if (i < 0) return;
        auto& folder = tab->model()->folder();
        QString title =
            folder
                ? QString::fromStdString(folder->path == "/"
                                             ? folder->display()
                                             : FileTransferUtils::itemName(folder->metadata(true)))
                : tr("Folder");
        setTabText(i, title);
        setTabToolTip(i, folder ? QString::fromStdString(folder->display()) : QString());
    };
    connect(tab, &FolderTab::folderChanged, this, retitle);
    connect(tab, &FolderTab::focused, this, &FolderPanel::focused);
    connect(tab->model(), &FolderModel::dropped, this, &FolderPanel::dropped);
    connect(tab->model(), &FolderModel::renameRequested, this, &FolderPanel::renameRequested);
    if (where) tab->showFolder(*where);
    setCurrentIndex(index);
    return tab;
}

void FolderPanel::closeCurrentTab() {
    if (count() > 1) delete currentWidget();
}

void FolderPanel::refreshFolders(const std::vector<std::pair<std::string, std::string>>& folders) {
    for (int i = 0; i < count(); ++i) {
        auto* tab = static_cast<FolderTab*>(widget(i));
        auto& shown = tab->model()->folder();
        if (!shown) continue;
        for (auto& [server, path] : folders)
            if ((server.empty() || server == shown->server->serverID) && path == shown->path)
                tab->model()->refresh();
    }
}

}  // namespace quillon::gui
