#include "app/gui/ServerEditor.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QToolButton>
#include <algorithm>

#include "app/gui/Background.h"
#include "core/ServerInfoService.h"
#include "core/StringEncoding.h"

namespace quillon::gui {

namespace {

template <typename W>
W* named(W* widget, const char* objectName, const QString& accessible) {
    widget->setObjectName(objectName);
    widget->setAccessibleName(accessible);
    return widget;
}

}  // namespace

ServerEditor::ServerEditor(std::int32_t kind, QWidget* parent) : QDialog(parent) {
    build();
    setWindowTitle(tr("Add Server"));
    setKind(kind);
}

ServerEditor::ServerEditor(const ServerInfo& existing, QWidget* parent)
    : QDialog(parent), existing_(existing) {
    build();
    setWindowTitle(tr("Edit Server \"%1\"").arg(QString::fromStdString(existing.displayName)));
    fill(ServerForm::of(existing));
    password_->setPlaceholderText(tr("unchanged"));
}

void ServerEditor::build() {
    setObjectName("serverEditor");
    setWindowModality(Qt::WindowModal);
    auto* outer = new QVBoxLayout(this);
    layout_ = new QFormLayout;
    layout_->setFieldGrowthPolicy(QFormLayout::ExpandingFieldsGrow);
    outer->addLayout(layout_);

    kind_ = named(new QComboBox(this), "serverKind", tr("Kind of server"));
    kind_->addItem(tr("FTP"), ProtocolType::FTP);
    kind_->addItem(tr("SFTP (SSH)"), ProtocolType::SFTP);
    kind_->addItem(tr("WebDAV"), ProtocolType::WebDAV);
    kind_->addItem(tr("SMB (Windows sharing)"), ProtocolType::SMB);
    layout_->addRow(tr("Kind:"), kind_);
    name_ = named(new QLineEdit(this), "serverName", tr("Name"));
    layout_->addRow(tr("Name:"), name_);
    addr_ = named(new QLineEdit(this), "serverAddress", tr("Address"));
    addr_->setPlaceholderText(tr("host name or IP address"));
    layout_->addRow(tr("Address:"), addr_);
    port_ = named(new QLineEdit(this), "serverPort", tr("Port"));
    port_->setMaxLength(5);
    layout_->addRow(tr("Port:"), port_);
    path_ = named(new QLineEdit(this), "serverPath", tr("Start folder"));
    path_->setPlaceholderText(tr("/"));
    layout_->addRow(tr("Start folder:"), path_);

    ftpProtocol_ = named(new QComboBox(this), "ftpProtocol", tr("FTP security"));
    ftpProtocol_->addItem(tr("FTP (unencrypted)"), "FTP_PROTOCOL_PLAIN");
    ftpProtocol_->addItem(tr("FTPES if the server offers it"),
                          "FTP_PROTOCOL_EXPLICIT_IF_AVAILABLE");
    ftpProtocol_->addItem(tr("FTPES (explicit TLS)"), "FTP_PROTOCOL_EXPLICIT");
    ftpProtocol_->addItem(tr("FTPS (implicit TLS)"), "FTP_PROTOCOL_IMPLICIT");
    layout_->addRow(tr("Security:"), ftpProtocol_);
    encoding_ = named(new QComboBox(this), "serverEncoding", tr("File name encoding"));
    for (auto& e : StringEncoding::knownEncodings())
        encoding_->addItem(QString::fromUtf8(e.name.data(), static_cast<int>(e.name.size())),
                           QString::number(e.number));
    layout_->addRow(tr("Encoding:"), encoding_);
    active_ = named(new QCheckBox(tr("Active mode (the server connects back)"), this),
                    "ftpActiveMode", tr("Active mode"));
    layout_->addRow(QString(), active_);

    sftpLogin_ = named(new QComboBox(this), "sftpLogin", tr("Log in with"));
    sftpLogin_->addItem(tr("Password"), static_cast<int>(ServerForm::SftpLogin::Password));
    sftpLogin_->addItem(tr("Key file"), static_cast<int>(ServerForm::SftpLogin::KeyFile));
    sftpLogin_->addItem(tr("SSH agent"), static_cast<int>(ServerForm::SftpLogin::Agent));
    layout_->addRow(tr("Log in with:"), sftpLogin_);
    auto* keyRow = new QWidget(this);
    auto* keyLayout = new QHBoxLayout(keyRow);
    keyLayout->setContentsMargins(0, 0, 0, 0);
    keyFile_ = named(new QLineEdit(keyRow), "sftpKeyFile", tr("Private key file"));
    auto* browse = named(new QToolButton(keyRow), "browseKeyFile", tr("Choose the key file"));
    browse->setText(tr("Choose..."));
    keyLayout->addWidget(keyFile_, 1);
    keyLayout->addWidget(browse);
    layout_->addRow(tr("Key file:"), keyRow);
    connect(browse, &QToolButton::clicked, this, [this] {
        auto* pick = new QFileDialog(this, tr("Private Key File"), QDir::homePath() + "/.ssh");
        pick->setAttribute(Qt::WA_DeleteOnClose);
        pick->setFileMode(QFileDialog::ExistingFile);
        pick->setOption(QFileDialog::DontUseNativeDialog);
        pick->setFilter(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
        connect(pick, &QFileDialog::fileSelected, keyFile_, &QLineEdit::setText);
        pick->open();
    });

    https_ = named(new QCheckBox(tr("Use https"), this), "webdavHttps", tr("Use https"));
    layout_->addRow(QString(), https_);
    guest_ = named(new QCheckBox(tr("Log in as guest"), this), "smbGuest", tr("Log in as guest"));
    layout_->addRow(QString(), guest_);
    user_ = named(new QLineEdit(this), "serverUser", tr("User name"));
    layout_->addRow(tr("User:"), user_);
    password_ = named(new QLineEdit(this), "serverPassword", tr("Password"));
    password_->setEchoMode(QLineEdit::Password);
    layout_->addRow(tr("Password:"), password_);

    error_ = new QLabel(this);
    error_->setObjectName("serverEditorError");
    error_->setWordWrap(true);
    error_->setStyleSheet(
        "QLabel { color: palette(bright-text); background: #b3261e; "
        "padding: 3px 6px; border-radius: 3px; }");
    error_->hide();
    outer->addWidget(error_);
    buttons_ = new QDialogButtonBox(QDialogButtonBox::Save | QDialogButtonBox::Cancel, this);
    buttons_->button(QDialogButtonBox::Save)->setObjectName("saveServer");
    buttons_->button(QDialogButtonBox::Save)->setAccessibleName(tr("Save the server"));
    buttons_->button(QDialogButtonBox::Cancel)->setAccessibleName(tr("Cancel"));
    outer->addWidget(buttons_);
    connect(buttons_, &QDialogButtonBox::accepted, this, &ServerEditor::accept);
    connect(buttons_, &QDialogButtonBox::rejected, this, &ServerEditor::reject);

    for (auto* box : {kind_, ftpProtocol_, sftpLogin_})
        connect(box, &QComboBox::currentIndexChanged, this, [this] { updateFields(); });
    for (auto* check : {https_, guest_})
        connect(check, &QCheckBox::toggled, this, [this] { updateFields(); });
    // A refusal is about what was typed: it goes once the fields change.
    for (auto* field : {name_, addr_, port_, path_, keyFile_, user_, password_})
        connect(field, &QLineEdit::textChanged, this, [this] { showError({}); });
    for (auto* box : {kind_, ftpProtocol_, encoding_, sftpLogin_})
        connect(box, &QComboBox::currentIndexChanged, this, [this] { showError({}); });
    setMinimumWidth(440);
}

void ServerEditor::setKind(std::int32_t kind) {
    kind_->setCurrentIndex(std::max(0, kind_->findData(kind)));
    updateFields();
}

void ServerEditor::fill(const ServerForm& f) {
    setKind(f.protocolType);
    name_->setText(QString::fromStdString(f.name));
    addr_->setText(QString::fromStdString(f.addr));
    port_->setText(QString::fromStdString(f.port));
    path_->setText(QString::fromStdString(f.path));
    user_->setText(QString::fromStdString(f.user));
    ftpProtocol_->setCurrentIndex(std::max(
        0, ftpProtocol_->findData(QString::fromStdString(
               f.ftpProtocol.empty() ? std::string("FTP_PROTOCOL_PLAIN") : f.ftpProtocol))));
    auto number = StringEncoding::encodingNumberForName(f.encoding.empty() ? "UTF-8" : f.encoding);
    encoding_->setCurrentIndex(
        std::max(0, encoding_->findData(QString::number(number.value_or(StringEncoding::UTF8)))));
    active_->setChecked(f.activeMode);
    sftpLogin_->setCurrentIndex(sftpLogin_->findData(static_cast<int>(f.sftpLogin)));
    keyFile_->setText(QString::fromStdString(f.keyFile));
    https_->setChecked(f.https);
    guest_->setChecked(f.protocolType == ProtocolType::SMB && f.user.empty());
    updateFields();
}

void ServerEditor::updateFields() {
    auto kind = kind_->currentData().toInt();
    bool ftp = kind == ProtocolType::FTP, sftp = kind == ProtocolType::SFTP,
         smb = kind == ProtocolType::SMB;
    auto login = static_cast<ServerForm::SftpLogin>(sftpLogin_->currentData().toInt());
    auto show = [this](QWidget* field, bool on) { layout_->setRowVisible(field, on); };
    show(ftpProtocol_, ftp);
    show(encoding_, ftp);
    show(active_, ftp);
    show(sftpLogin_, sftp);
    show(keyFile_->parentWidget(), sftp && login == ServerForm::SftpLogin::KeyFile);
    show(https_, kind == ProtocolType::WebDAV);
    show(guest_, smb);
    bool guest = smb && guest_->isChecked();
    user_->setEnabled(!guest);
    password_->setEnabled(!guest && !(sftp && login == ServerForm::SftpLogin::Agent));
    if (auto* label = qobject_cast<QLabel*>(layout_->labelForField(password_)))
        label->setText(sftp && login == ServerForm::SftpLogin::KeyFile ? tr("Passphrase:")
                                                                       : tr("Password:"));
    password_->setAccessibleName(sftp && login == ServerForm::SftpLogin::KeyFile
                                     ? tr("Passphrase of the key file")
                                     : tr("Password"));
    port_->setPlaceholderText(QString::fromStdString(ServerForm::defaultPort(
        kind, ftpProtocol_->currentData().toString().toStdString(), https_->isChecked())));
    adjustSize();
}

ServerForm ServerEditor::form() const {
    ServerForm f;
    f.protocolType = kind_->currentData().toInt();
    f.name = name_->text().trimmed().toStdString();
    f.addr = addr_->text().trimmed().toStdString();
    f.port = port_->text().trimmed().toStdString();
    f.path = path_->text().trimmed().toStdString();
    bool guest = f.protocolType == ProtocolType::SMB && guest_->isChecked();
    f.user = guest ? std::string() : user_->text().trimmed().toStdString();
    if (guest)
        f.password = std::string();
    else if (!password_->text().isEmpty())
        f.password = password_->text().toStdString();
    if (f.protocolType == ProtocolType::FTP) {
        f.ftpProtocol = ftpProtocol_->currentData().toString().toStdString();
        f.encoding = encoding_->currentData().toString().toStdString();
        f.activeMode = active_->isChecked();
    }
    f.sftpLogin = static_cast<ServerForm::SftpLogin>(sftpLogin_->currentData().toInt());
    if (f.protocolType == ProtocolType::SFTP && f.sftpLogin == ServerForm::SftpLogin::KeyFile)
        f.keyFile = keyFile_->text().trimmed().toStdString();
    f.https = https_->isChecked();
    // A WebDAV address typed as a URL says which scheme it wants.
    if (f.protocolType == ProtocolType::WebDAV && f.addr.starts_with("https://")) f.https = true;
    return f;
}

QString ServerEditor::errorText() const {
    return error_->isVisible() ? error_->text() : QString();
}

void ServerEditor::showError(const QString& text) {
    error_->setText(text);
    error_->setVisible(!text.isEmpty());
}

void ServerEditor::accept() {
    if (saving_) return;
    ServerInfo info = existing_ ? *existing_ : ServerInfo();
    if (auto r = form().applyTo(info); !r) {
        showError(QString::fromStdString(r.error().reason));
        return;
    }
    saving_ = true;
    buttons_->setEnabled(false);
    bool adding = !existing_;
    // The database is written on the background queue; the dialog closes once it is stored.
    struct Outcome {
        ServerInfo info;
        std::optional<Error> error;
    };
    inBackground(
        this,
        [info, adding]() mutable {
            Outcome out{info, std::nullopt};
            if (auto r = adding ? addServer(out.info) : updateServer(out.info); !r)
                out.error = r.error();
            return out;
        },
        [this](Outcome out) {
            saving_ = false;
            buttons_->setEnabled(true);
            if (out.error) {
                showError(QString::fromStdString(out.error->reason));
                return;
            }
            showError({});
            existing_ = out.info;
            emit saved(out.info);
            QDialog::accept();
        });
}

}  // namespace quillon::gui
