#pragma once
// NearbyWindow: devices nearby and sending files to them. The devices found over DNS-SD fill a
// list; a device, an address or "address:port" is the target of a send of the items the window
// is asked for (the active panel's local selection). Receiving can be switched on, into the
// "Nearby Location" folder. Everything is done by a NearbyController; the window follows its
// notifications.

#include <QWidget>
#include <functional>
#include <memory>

#include "core/KvMetadata.h"
#include "core/NotificationCenter.h"

class QCheckBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;

namespace quillon {
class NearbyController;
}

namespace quillon::gui {

class NearbyWindow : public QWidget {
    Q_OBJECT
  public:
    // `selection` gives the items a send takes.
    explicit NearbyWindow(std::function<KvMetadataList()> selection, QWidget* parent = nullptr);
    ~NearbyWindow() override;

    // Looks for devices (an error is shown when discovery cannot work; sending to an address
    // still can).
    void startBrowsing();
    // Sends the selection to the target typed or picked.
    void send();
    QLineEdit* target() const { return target_; }
    QListWidget* devices() const { return devices_; }
    QListWidget* items() const { return items_; }
    QString statusText() const;
    const std::shared_ptr<NearbyController>& controller() const { return controller_; }

  private:
    void reloadDevices();
    void reloadItems();
    void setStatus(const QString& text, bool error);
    bool ours(const UserInfo& info) const;

    std::function<KvMetadataList()> selection_;
    std::shared_ptr<NearbyController> controller_;
    QListWidget* devices_;
    QLineEdit* target_;
    QPushButton* send_;
    QPushButton* stop_;
    QCheckBox* receive_;
    QListWidget* items_;
    QLabel* status_;
    std::vector<NotificationCenter::Token> tokens_;
};

}  // namespace quillon::gui
