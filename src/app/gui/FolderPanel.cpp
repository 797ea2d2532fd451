#include "app/gui/FolderPanel.h"

#include <QApplication>
#include <QEvent>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QStackedWidget>
#include <QStyle>
#include <QTabBar>
#include <QToolButton>
#include <QTreeView>
#include <QUrl>
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

    crumbs_ = new QWidget(this);
    crumbs_->setObjectName("breadcrumbs");
    crumbs_->setAccessibleName(tr("Path"));
    crumbsLayout_ = new QHBoxLayout(crumbs_);
    crumbsLayout_->setContentsMargins(0, 0, 0, 0);
    crumbsLayout_->setSpacing(0);
    layout->addWidget(crumbs_);

    views_ = new QStackedWidget(this);
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
    view_->setContextMenuPolicy(Qt::CustomContextMenu);
    views_->addWidget(view_);

    icons_ = new QListView(this);
    icons_->setObjectName("iconView");
    icons_->setAccessibleName(tr("Folder contents as icons"));
    icons_->setModel(model_);
    icons_->setSelectionModel(view_->selectionModel());
    icons_->setViewMode(QListView::IconMode);
    icons_->setResizeMode(QListView::Adjust);
    icons_->setMovement(QListView::Static);
    icons_->setWrapping(true);
    icons_->setWordWrap(true);
    icons_->setUniformItemSizes(true);
    icons_->setIconSize(QSize(48, 48));
    icons_->setGridSize(QSize(104, 88));
    icons_->setLayoutMode(QListView::Batched);  // a big folder is laid out a batch at a time
    icons_->setBatchSize(500);
    icons_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    icons_->setEditTriggers(QAbstractItemView::EditKeyPressed);
    icons_->setDragEnabled(true);
    icons_->setAcceptDrops(true);
    icons_->setDropIndicatorShown(true);
    icons_->setDragDropMode(QAbstractItemView::DragDrop);
    icons_->setDefaultDropAction(Qt::CopyAction);
    icons_->setContextMenuPolicy(Qt::CustomContextMenu);
    icons_->installEventFilter(this);
    views_->addWidget(icons_);
    layout->addWidget(views_, 1);

    connect(address_, &QLineEdit::returnPressed, this, [this] { goTo(address_->text()); });
    connect(backButton_, &QToolButton::clicked, this, &FolderTab::back);
    connect(forwardButton_, &QToolButton::clicked, this, &FolderTab::forward);
    connect(upButton_, &QToolButton::clicked, this, &FolderTab::up);
    connect(view_, &QTreeView::activated, this, [this] { openCurrent(); });
    connect(icons_, &QListView::activated, this, [this] { openCurrent(); });
    for (QAbstractItemView* v :
         {static_cast<QAbstractItemView*>(view_), static_cast<QAbstractItemView*>(icons_)})
        connect(v, &QWidget::customContextMenuRequested, this, [this, v](const QPoint& at) {
            emit contextMenuRequested(v->viewport()->mapToGlobal(at));
        });
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
    // A file URL (from the desktop's launcher, or pasted) is the local path it names.
    QUrl url(text.trimmed());
    auto where = url.isLocalFile() ? url.toLocalFile() : text.trimmed();
    auto loc = resolveLocation(where.toStdString());
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
    if (item.isDir)
        navigate(model_->locationOf(index.row()), true);
    else
        emit openRequested(index.row());
}

void FolderTab::setIconView(bool on) {
    bool focus = currentView()->hasFocus();
    views_->setCurrentWidget(on ? static_cast<QWidget*>(icons_) : view_);
    if (focus) currentView()->setFocus();
}

bool FolderTab::isIconView() const {
    return views_->currentWidget() == icons_;
}

QAbstractItemView* FolderTab::currentView() const {
    return isIconView() ? static_cast<QAbstractItemView*>(icons_) : view_;
}

void FolderTab::updateBreadcrumbs() {
    // Later, not now: the button clicked may be the one whose signal got us here.
    while (auto* child = crumbsLayout_->takeAt(0)) {
        if (auto* w = child->widget()) {
            w->hide();
            w->deleteLater();
        }
        delete child;
    }
    if (!model_->folder()) return;
    const Location& folder = *model_->folder();
    // The folders from the top down to the shown one, each a button that goes there.
    std::vector<std::pair<QString, std::string>> steps;
    steps.emplace_back(
        folder.isLocal() ? QStringLiteral("/") : QString::fromStdString(folder.server->displayName),
        "/");
    std::string path;
    for (auto& part : QString::fromStdString(folder.path).split('/', Qt::SkipEmptyParts)) {
        path += "/" + part.toStdString();
        steps.emplace_back(part, path);
    }
    constexpr std::size_t kShown = 6;  // deeper paths keep their last folders
    std::size_t first = steps.size() > kShown ? steps.size() - kShown : 0;
    if (first > 0) {
        auto* more = new QLabel(QStringLiteral("\u2026"), crumbs_);
        crumbsLayout_->addWidget(more);
    }
    for (std::size_t i = first; i < steps.size(); ++i) {
        auto* b = new QToolButton(crumbs_);
        b->setText(steps[i].first);
        b->setAutoRaise(true);
        b->setAccessibleName(tr("Go to %1").arg(steps[i].first));
        b->setToolTip(QString::fromStdString(steps[i].second));
        bool last = i + 1 == steps.size();
        if (last) {
            auto font = b->font();
            font.setBold(true);
            b->setFont(font);
        }
        Location to = folder;
        to.path = steps[i].second;
        connect(b, &QToolButton::clicked, this, [this, to, last] {
            if (!last) navigate(to, true);
        });
        crumbsLayout_->addWidget(b);
        if (!last) {
            auto* sep = new QLabel(QStringLiteral("\u203a"), crumbs_);
            sep->setEnabled(false);
            crumbsLayout_->addWidget(sep);
        }
    }
    crumbsLayout_->addStretch(1);
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
    updateBreadcrumbs();
}

bool FolderTab::eventFilter(QObject* watched, QEvent* event) {
    bool ours = watched == view_ || watched == icons_;
    if (ours && event->type() == QEvent::FocusIn) emit focused();
    if (ours && event->type() == QEvent::KeyPress) {
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
    connect(tab, &FolderTab::openRequested, this,
            [this, tab](int row) { emit openRequested(tab, row); });
    connect(tab, &FolderTab::contextMenuRequested, this,
            [this, tab](const QPoint& at) { emit contextMenuRequested(tab, at); });
    if (where) tab->showFolder(*where);
    setCurrentIndex(index);
    return tab;
}

void FolderPanel::tabInserted(int) {
    updateCloseButtons();
}

void FolderPanel::tabRemoved(int) {
    updateCloseButtons();
}

void FolderPanel::updateCloseButtons() {
    // The last tab stays: it shows no close button.
    setTabsClosable(count() > 1);
    for (int i = 0; i < count(); ++i)
        if (auto* close = tabBar()->tabButton(i, QTabBar::RightSide))
            close->setAccessibleName(tr("Close tab"));
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
