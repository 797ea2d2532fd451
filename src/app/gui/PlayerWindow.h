#pragma once
// PlayerWindow: a small window over a MusicPlayerService: the play list, play and pause,
// previous and next, and a position slider that seeks. It follows the player's notifications
// and its time reports; it never asks the player on a timer.

#include <QWidget>

#include "core/NotificationCenter.h"
#include "media/MusicPlayerService.h"

class QLabel;
class QListWidget;
class QSlider;
class QToolButton;

namespace quillon::gui {

class PlayerWindow : public QWidget {
    Q_OBJECT
  public:
    explicit PlayerWindow(MusicPlayerService& player, QWidget* parent = nullptr);
    ~PlayerWindow() override;

    // Plays `items` from `atIndex` and shows the window; an error that keeps the first item from
    // playing is shown in it.
    void play(std::vector<PlayListItem> items, int atIndex);
    MusicPlayerService& player() const { return player_; }
    QListWidget* list() const { return list_; }
    QString statusText() const;

  private:
    void reloadList();
    void updateState();
    void updateTime();

    MusicPlayerService& player_;
    QListWidget* list_;
    QToolButton* previous_;
    QToolButton* playPause_;
    QToolButton* next_;
    QSlider* position_;
    QLabel* time_;
    QLabel* status_;
    bool dragging_ = false;
    NotificationCenter::Token statusToken_ = 0;
    NotificationCenter::Token itemToken_ = 0;
};

}  // namespace quillon::gui
