#include "app/gui/FtpServerPane.h"

#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QSpinBox>
#include <QToolButton>
#include <filesystem>

#include "app/gui/Background.h"
#include "core/AppPreference.h"
#include "core/PathUtils.h"
#include "servers/ftpserver/FtpServerService.h"

namespace quillon::gui {

FtpServerPane::FtpServerPane(FtpServerService& service, QWidget* parent)
    : QDialog(parent), service_(service) {
    setObjectName("ftpServerPane");
    setWindowTitle(tr("Share a Folder over FTP"));
    auto* outer = new QVBoxLayout(this);
    auto* form = new QFormLayout;
    form->setFieldGrowthPolicy(QFormLayout::ExpandingFieldsGrow);
    outer->addLayout(form);

    service_.loadSettings();
    auto* folderRow = new QWidget(this);
    auto* folderLayout = new QHBoxLayout(folderRow);
    folderLayout->setContentsMargins(0, 0, 0, 0);
    folder_ = new QLineEdit(folderRow);
    folder_->setObjectName("ftpServerFolder");
    folder_->setAccessibleName(tr("Shared folder"));
    folder_->setText(QString::fromStdString(
        service_.rootFolder.empty() ? PathUtils::getHomeFolderPath() : service_.rootFolder));
    auto* browse = new QToolButton(folderRow);
    browse->setObjectName("ftpServerChooseFolder");
    browse->setText(tr("Choose..."));
    browse->setAccessibleName(tr("Choose the shared folder"));
    folderLayout->addWidget(folder_, 1);
    folderLayout->addWidget(browse);
    chooseFolder_ = browse;
    form->addRow(tr("Folder:"), folderRow);
    connect(browse, &QToolButton::clicked, this, [this] {
        auto* pick = new QFileDialog(this, tr("Folder to Share"), folder_->text());
        pick->setAttribute(Qt::WA_DeleteOnClose);
        pick->setFileMode(QFileDialog::Directory);
        pick->setOption(QFileDialog::ShowDirsOnly);
        pick->setOption(QFileDialog::DontUseNativeDialog);
        connect(pick, &QFileDialog::fileSelected, folder_, &QLineEdit::setText);
        pick->open();
    });

    port_ = new QSpinBox(this);
    port_->setObjectName("ftpServerPort");
    port_->setAccessibleName(tr("Port"));
    port_->setRange(0, 65535);
    port_->setSpecialValueText(tr("any free port"));
    port_->setValue(service_.port);
    form->addRow(tr("Port:"), port_);
    user_ = new QLineEdit(QString::fromStdString(service_.username), this);
    user_->setObjectName("ftpServerUser");
    user_->setAccessibleName(tr("User name"));
    user_->setPlaceholderText(tr("empty: anyone may log in, read-only"));
    form->addRow(tr("User:"), user_);
    password_ = new QLineEdit(QString::fromStdString(service_.password), this);
    password_->setObjectName("ftpServerPassword");
    password_->setAccessibleName(tr("Password"));
    password_->setEchoMode(QLineEdit::Password);
    form->addRow(tr("Password:"), password_);

    state_ = new QLabel(this);
    state_->setObjectName("ftpServerState");
    state_->setWordWrap(true);
    outer->addWidget(state_);
    auto* connectLabel = new QLabel(tr("Connect to:"), this);
    outer->addWidget(connectLabel);
    addresses_ = new QListWidget(this);
    addresses_->setObjectName("ftpServerAddresses");
    addresses_->setAccessibleName(tr("Addresses to connect to"));
    // A taller pane shows more addresses, not more room between the lines above them.
    outer->addWidget(addresses_, 1);

    auto* buttons = new QDialogButtonBox(this);
    toggle_ = buttons->addButton(tr("Start Sharing"), QDialogButtonBox::ActionRole);
    toggle_->setObjectName("ftpServerToggle");
    auto* close = buttons->addButton(QDialogButtonBox::Close);
    close->setAccessibleName(tr("Close"));
    connect(close, &QPushButton::clicked, this, &QDialog::close);
    connect(toggle_, &QPushButton::clicked, this, [this] {
        if (service_.online())
            stop();
        else
            start();
    });
    outer->addWidget(buttons);
    setMinimumWidth(460);
    showState();
}

void FtpServerPane::start() {
    if (starting_ || service_.online()) return;
    auto folder = folder_->text().trimmed().toStdString();
    auto& prefs = AppPreference::sharedAppPreference();
    prefs.setValue(PlistValue(folder), PrefKey::FTP_SERVER_LOCATION);
    prefs.setValue(PlistValue(static_cast<std::int64_t>(port_->value())), PrefKey::FTP_SERVER_PORT);
    prefs.setValue(PlistValue(user_->text().toStdString()), PrefKey::FTP_SERVER_USERNAME);
    prefs.setValue(PlistValue(password_->text().toStdString()), PrefKey::FTP_SERVER_PASSWORD);
    service_.rootFolder = folder;
    service_.port = port_->value();
    service_.username = user_->text().toStdString();
    service_.password = password_->text().toStdString();
    starting_ = true;
    showState();
    // The folder is looked at and the port opened off the window's thread.
    struct Outcome {
        std::optional<std::string> problem;
    };
    inBackground(
        this,
        [&service = service_, folder] {
            Outcome out;
            std::error_code ec;
            if (!std::filesystem::is_directory(folder, ec))
                out.problem = folder + ": no such folder";
            else if (auto r = service.startServer(); !r)
                out.problem = r.error().describe();
            else if (auto saved = AppPreference::sharedAppPreference().save(); !saved)
                out.problem = saved.error().describe();
            return out;
        },
        [this](Outcome out) {
            starting_ = false;
            showState(out.problem ? QString::fromStdString(*out.problem) : QString());
            emit stateChanged();
        });
}

void FtpServerPane::stop() {
    service_.stopServer();
    showState();
    emit stateChanged();
}

QStringList FtpServerPane::addresses() const {
    QStringList out;
    for (int i = 0; i < addresses_->count(); ++i) out << addresses_->item(i)->text();
    return out;
}

QString FtpServerPane::stateText() const {
    return state_->text();
}

void FtpServerPane::showState(const QString& problem) {
    bool online = service_.online();
    for (auto* field : {static_cast<QWidget*>(folder_), chooseFolder_, static_cast<QWidget*>(port_),
                        static_cast<QWidget*>(user_), static_cast<QWidget*>(password_)})
        field->setEnabled(!online && !starting_);
    toggle_->setEnabled(!starting_);
    toggle_->setText(online ? tr("Stop Sharing") : tr("Start Sharing"));
    toggle_->setAccessibleName(online ? tr("Stop sharing the folder")
                                      : tr("Start sharing the folder"));
    addresses_->clear();
    if (starting_) {
        state_->setText(tr("Starting..."));
        return;
    }
    if (!online) {
        state_->setText(problem.isEmpty() ? tr("Not sharing.")
                                          : tr("Could not start: %1").arg(problem));
        return;
    }
    state_->setText(tr("Sharing %1 on port %2.")
                        .arg(QString::fromStdString(service_.rootFolder))
                        .arg(service_.listeningPort()));
    std::string who = service_.username.empty() || service_.username == "anonymous"
                          ? std::string()
                          : service_.username + "@";
    auto url = [&](std::string host) {
        if (host.find(':') != std::string::npos) host = "[" + host + "]";
        return QString::fromStdString("ftp://" + who + host + ":" +
                                      std::to_string(service_.listeningPort()) + "/");
    };
    auto ip = service_.localIPAddress();
    if (!ip.empty() && ip != "0.0.0.0" && ip != "error") addresses_->addItem(url(ip));
    if (auto host = service_.localHostName(); !host.empty()) addresses_->addItem(url(host));
    // This machine itself, whatever the network.
    addresses_->addItem(url("127.0.0.1"));
}

}  // namespace quillon::gui
