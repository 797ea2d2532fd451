#include "app/gui/PlayerWindow.h"

#include <QApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QSlider>
#include <QStyle>
#include <QToolButton>
#include <QVBoxLayout>
#include <cmath>

namespace quillon::gui {

namespace {

QString clock(std::optional<double> seconds) {
    if (!seconds) return QStringLiteral("--:--");
    long s = std::lround(std::floor(std::max(0.0, *seconds)));
    return QStringLiteral("%1:%2").arg(s / 60).arg(s % 60, 2, 10, QLatin1Char('0'));
}

QToolButton* button(QWidget* parent, const char* icon, QStyle::StandardPixmap fallback,
                    const QString& name, const char* objectName) {
    auto* b = new QToolButton(parent);
    b->setObjectName(objectName);
    b->setIcon(QIcon::fromTheme(icon, QApplication::style()->standardIcon(fallback)));
    b->setIconSize(QSize(24, 24));
    b->setToolTip(name);
    b->setAccessibleName(name);
    b->setAutoRaise(true);
    return b;
}

}  // namespace

PlayerWindow::PlayerWindow(MusicPlayerService& player, QWidget* parent)
    : QWidget(parent, Qt::Window), player_(player) {
    setObjectName("playerWindow");
    setWindowTitle(tr("Player"));
    resize(420, 360);
    auto* layout = new QVBoxLayout(this);
    status_ = new QLabel(this);
    status_->setObjectName("playerStatus");
    status_->setWordWrap(true);
    auto font = status_->font();
    font.setBold(true);
    status_->setFont(font);
    layout->addWidget(status_);

    auto* seekRow = new QHBoxLayout;
    position_ = new QSlider(Qt::Horizontal, this);
    position_->setObjectName("playerPosition");
    position_->setAccessibleName(tr("Position"));
    position_->setRange(0, 0);
    time_ = new QLabel(clock(std::nullopt) + " / " + clock(std::nullopt), this);
    seekRow->addWidget(position_, 1);
    seekRow->addWidget(time_);
    layout->addLayout(seekRow);

    auto* controls = new QHBoxLayout;
    previous_ = button(this, "media-skip-backward", QStyle::SP_MediaSkipBackward, tr("Previous"),
                       "playerPrevious");
    playPause_ =
        button(this, "media-playback-start", QStyle::SP_MediaPlay, tr("Play"), "playerPlayPause");
    next_ =
        button(this, "media-skip-forward", QStyle::SP_MediaSkipForward, tr("Next"), "playerNext");
    controls->addStretch(1);
    controls->addWidget(previous_);
    controls->addWidget(playPause_);
    controls->addWidget(next_);
    controls->addStretch(1);
    layout->addLayout(controls);

    list_ = new QListWidget(this);
    list_->setObjectName("playList");
    list_->setAccessibleName(tr("Play list"));
    list_->setAlternatingRowColors(true);
    layout->addWidget(list_, 1);

    connect(previous_, &QToolButton::clicked, this, [this] { player_.previous(); });
    connect(next_, &QToolButton::clicked, this, [this] { player_.next(); });
    connect(playPause_, &QToolButton::clicked, this, [this] {
        player_.isPlaying() ? player_.pause() : player_.play();
        updateState();
    });
    connect(position_, &QSlider::sliderPressed, this, [this] { dragging_ = true; });
    connect(position_, &QSlider::sliderReleased, this, [this] {
        dragging_ = false;
        player_.seek(position_->value());
    });
    connect(list_, &QListWidget::itemActivated, this, [this](QListWidgetItem* item) {
        auto items = player_.items();
        player_.playItems(items, nullptr, list_->row(item), [](std::optional<Error>) {});
    });

    auto& center = NotificationCenter::defaultCenter();
    statusToken_ = center.addObserver(MUSIC_STATUS_CHANGED_NOTIFICATION,
                                      [this](const UserInfo&) { updateState(); });
    itemToken_ = center.addObserver(MUSIC_ITEM_CHANGED_NOTIFICATION,
                                    [this](const UserInfo&) { updateState(); });
    player_.setTimeObserver([this](double) { updateTime(); });
    reloadList();
    updateState();
}

PlayerWindow::~PlayerWindow() {
    auto& center = NotificationCenter::defaultCenter();
    center.removeObserver(statusToken_);
    center.removeObserver(itemToken_);
    player_.setTimeObserver(nullptr);
}

void PlayerWindow::play(std::vector<PlayListItem> items, int atIndex) {
    player_.playItems(std::move(items), nullptr, atIndex, [this](std::optional<Error> error) {
        if (error) status_->setText(QString::fromStdString(error->describe()));
    });
    reloadList();
    updateState();
    show();
    raise();
}

QString PlayerWindow::statusText() const {
    return status_->text();
}

void PlayerWindow::reloadList() {
    list_->clear();
    for (auto& item : player_.items()) {
        QString text = QString::fromStdString(item.songName);
        if (!item.artist.empty())
            text += QStringLiteral(" \u2014 ") + QString::fromStdString(item.artist);
        if (item.duration) text += QStringLiteral("  (%1)").arg(clock(item.duration));
        list_->addItem(text);
    }
}

void PlayerWindow::updateState() {
    bool playing = player_.isPlaying();
    playPause_->setIcon(QIcon::fromTheme(
        playing ? "media-playback-pause" : "media-playback-start",
        style()->standardIcon(playing ? QStyle::SP_MediaPause : QStyle::SP_MediaPlay)));
    playPause_->setAccessibleName(playing ? tr("Pause") : tr("Play"));
    playPause_->setToolTip(playPause_->accessibleName());
    int current = player_.isActive() ? player_.currentIndex() : -1;
    if (list_->count() != static_cast<int>(player_.items().size())) reloadList();
    for (int i = 0; i < list_->count(); ++i) {
        auto font = list_->item(i)->font();
        font.setBold(i == current);
        list_->item(i)->setFont(font);
    }
    if (current >= 0 && current < list_->count()) {
        list_->setCurrentRow(current);
        auto& item = player_.items()[static_cast<std::size_t>(current)];
        status_->setText(QString::fromStdString(item.songName) +
                         (playing ? QString() : tr("  (paused)")));
    } else if (auto error = player_.lastError()) {
        status_->setText(QString::fromStdString(error->describe()));
    } else if (!player_.isActive()) {
        status_->setText(tr("Nothing is playing."));
    }
    updateTime();
}

void PlayerWindow::updateTime() {
    auto at = player_.position();
    auto length = player_.itemDuration();
    position_->setEnabled(length.has_value());
    if (!dragging_) {
        position_->setRange(0, length ? static_cast<int>(std::ceil(*length)) : 0);
        position_->setValue(at ? static_cast<int>(*at) : 0);
    }
    time_->setText(clock(at) + " / " + clock(length));
}

}  // namespace quillon::gui
