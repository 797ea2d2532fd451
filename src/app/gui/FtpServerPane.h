#pragma once
// FtpServerPane: shares a local folder with the built-in FTP server: the folder, port, user and
// password (kept in the preferences), start and stop, the state, and the addresses other
// devices connect to while it runs.

#include <QDialog>

class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;
class QSpinBox;

namespace quillon {
class FtpServerService;
}

namespace quillon::gui {

class FtpServerPane : public QDialog {
    Q_OBJECT
  public:
    explicit FtpServerPane(FtpServerService& service, QWidget* parent = nullptr);

    void start();
    void stop();
    bool starting() const { return starting_; }
    // The addresses shown ("ftp://..."), empty while offline.
    QStringList addresses() const;
    QString stateText() const;
    QLineEdit* folderField() const { return folder_; }
    QSpinBox* portField() const { return port_; }
    QLineEdit* userField() const { return user_; }
    QLineEdit* passwordField() const { return password_; }

  signals:
    // Started or stopped (or a start failed).
    void stateChanged();

  private:
    void showState(const QString& problem = {});

    FtpServerService& service_;
    bool starting_ = false;
    QLineEdit* folder_;
    QWidget* chooseFolder_;
    QSpinBox* port_;
    QLineEdit* user_;
    QLineEdit* password_;
    QLabel* state_;
    QListWidget* addresses_;
    QPushButton* toggle_;
};

}  // namespace quillon::gui
