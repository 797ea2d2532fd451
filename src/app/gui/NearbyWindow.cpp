#include "app/gui/NearbyWindow.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QVBoxLayout>

#include "nearby/NearbyController.h"
#include "transfer/TransferEstimate.h"

namespace quillon::gui {

NearbyWindow::NearbyWindow(std::function<KvMetadataList()> selection, QWidget* parent)
    : QWidget(parent, Qt::Window),
      selection_(std::move(selection)),
      controller_(NearbyController::create()) {
    setObjectName("nearbyWindow");
    setWindowTitle(tr("Nearby"));
    resize(460, 420);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(new QLabel(tr("Devices nearby:"), this));
    devices_ = new QListWidget(this);
    devices_->setObjectName("nearbyDevices");
    devices_->setAccessibleName(tr("Devices nearby"));
    layout->addWidget(devices_, 1);

    auto* sendRow = new QHBoxLayout;
    target_ = new QLineEdit(this);
    target_->setObjectName("nearbyTarget");
    target_->setAccessibleName(tr("Send to"));
    target_->setPlaceholderText(tr("Device, address or address:port"));
    send_ = new QPushButton(tr("Send Selected Items"), this);
    send_->setObjectName("nearbySend");
    send_->setAccessibleName(tr("Send the selected items"));
    stop_ = new QPushButton(tr("Stop"), this);
    stop_->setObjectName("nearbyStop");
    stop_->setAccessibleName(tr("Stop sending"));
    stop_->setEnabled(false);
    sendRow->addWidget(target_, 1);
    sendRow->addWidget(send_);
    sendRow->addWidget(stop_);
    layout->addLayout(sendRow);

    receive_ = new QCheckBox(tr("Receive files from devices nearby"), this);
    receive_->setObjectName("nearbyReceive");
    receive_->setAccessibleName(receive_->text());
    layout->addWidget(receive_);

    layout->addWidget(new QLabel(tr("Files:"), this));
    items_ = new QListWidget(this);
    items_->setObjectName("nearbyItems");
    items_->setAccessibleName(tr("Files sent and received"));
    layout->addWidget(items_, 1);
    status_ = new QLabel(this);
    status_->setObjectName("nearbyStatus");
    status_->setWordWrap(true);
    layout->addWidget(status_);

    connect(devices_, &QListWidget::currentTextChanged, target_, &QLineEdit::setText);
    connect(send_, &QPushButton::clicked, this, &NearbyWindow::send);
    connect(target_, &QLineEdit::returnPressed, this, &NearbyWindow::send);
    connect(stop_, &QPushButton::clicked, this, [this] { controller_->stopBatch(); });
    connect(receive_, &QCheckBox::toggled, this, [this](bool on) {
        if (!on) {
            controller_->stopReceiving();
            setStatus(QString(), false);
            return;
        }
        if (auto r = controller_->startReceiving({}); !r) {
            setStatus(QString::fromStdString(r.error().describe()), true);
            QSignalBlocker quiet(receive_);
            receive_->setChecked(false);
            return;
        }
        setStatus(tr("Receiving into %1 on port %2.")
                      .arg(QString::fromStdString(controller_->receiveFolder()))
                      .arg(controller_->receivingPort()),
                  false);
    });

    auto& center = NotificationCenter::defaultCenter();
    tokens_.push_back(
        center.addObserver(NEARBY_DEVICES_CHANGED_NOTIFICATION, [this](const UserInfo& info) {
            if (ours(info)) reloadDevices();
        }));
    tokens_.push_back(
        center.addObserver(NEARBY_ITEM_CHANGED_NOTIFICATION, [this](const UserInfo& info) {
            if (ours(info)) reloadItems();
        }));
    tokens_.push_back(
        center.addObserver(NEARBY_BATCH_ENDED_NOTIFICATION, [this](const UserInfo& info) {
            if (!ours(info)) return;
            stop_->setEnabled(false);
            reloadItems();
            auto it = info.find(std::string(NEARBY_ERROR));
            if (it != info.end())
                if (auto* error = std::any_cast<Error>(&it->second))
                    return setStatus(QString::fromStdString(error->describe()), true);
            setStatus(tr("Sent."), false);
        }));
    tokens_.push_back(
        center.addObserver(NEARBY_DISCOVERY_FAILED_NOTIFICATION, [this](const UserInfo& info) {
            if (!ours(info)) return;
            auto it = info.find(std::string(NEARBY_ERROR));
            if (it != info.end())
                if (auto* error = std::any_cast<Error>(&it->second))
                    setStatus(QString::fromStdString(error->describe()), true);
        }));
}

NearbyWindow::~NearbyWindow() {
    for (auto token : tokens_) NotificationCenter::defaultCenter().removeObserver(token);
    controller_->stopBatch();
    controller_->stopReceiving();
    controller_->stopBrowsing();
}

bool NearbyWindow::ours(const UserInfo& info) const {
    auto it = info.find(std::string(NEARBY_CONTROLLER));
    if (it == info.end()) return true;
    auto* from = std::any_cast<const NearbyController*>(&it->second);
    return !from || *from == controller_.get();
}

QString NearbyWindow::statusText() const {
    return status_->text();
}

void NearbyWindow::setStatus(const QString& text, bool error) {
    status_->setText(text);
    status_->setStyleSheet(error ? "QLabel { color: #b3261e; }" : QString());
}

void NearbyWindow::startBrowsing() {
    if (auto r = controller_->startBrowsing(); !r)
        setStatus(QString::fromStdString(r.error().describe()), true);
    reloadDevices();
}

void NearbyWindow::send() {
    auto items = selection_ ? selection_() : KvMetadataList{};
    auto to = target_->text().trimmed().toStdString();
    if (items.empty()) {
        setStatus(tr("Select the files to send in a panel of this computer's folders."), true);
        return;
    }
    if (to.empty()) {
        setStatus(tr("Pick a device or type an address."), true);
        return;
    }
    if (auto r = controller_->sendItems(items, to); !r) {
        setStatus(QString::fromStdString(r.error().describe()), true);
        return;
    }
    stop_->setEnabled(true);
    setStatus(tr("Sending to %1...").arg(QString::fromStdString(to)), false);
    reloadItems();
}

void NearbyWindow::reloadDevices() {
    auto current = devices_->currentItem() ? devices_->currentItem()->text() : QString();
    QSignalBlocker quiet(devices_);
    devices_->clear();
    for (auto& device : controller_->devices()) {
        devices_->addItem(QString::fromStdString(device.hostname));
        if (devices_->item(devices_->count() - 1)->text() == current)
            devices_->setCurrentRow(devices_->count() - 1);
    }
}

void NearbyWindow::reloadItems() {
    items_->clear();
    for (auto& item : controller_->transferItems()) {
        QString state;
        switch (item->status) {
            case NearbyStatus::Waiting:
                state = tr("waiting");
                break;
            case NearbyStatus::Transferring:
                state = tr("%1 of %2")
                            .arg(QString::fromStdString(formatBytes(item->transferredBytes)),
                                 QString::fromStdString(formatBytes(item->fileSize)));
                break;
            case NearbyStatus::Finished:
                state = tr("done, %1").arg(QString::fromStdString(formatBytes(item->fileSize)));
                break;
            default:
                state = tr("failed");
        }
        items_->addItem(QString::fromStdString(item->name) + QStringLiteral(" \u2014 ") + state);
    }
}

}  // namespace quillon::gui
