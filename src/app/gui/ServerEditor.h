#pragma once
// ServerEditor: the dialog that adds or changes a server reached by address: FTP (plain, FTPS,
// FTPES; encoding, active mode), SFTP (password, key file with its passphrase, or the SSH agent),
// WebDAV (http or https) and SMB (a user or guest). One form for every kind: the fields a kind
// does not use are hidden. The record is written through ServerForm, as the command line does.

#include <QDialog>
#include <optional>

#include "clients/ServerForm.h"
#include "core/ServerInfo.h"

class QCheckBox;
class QComboBox;
class QDialogButtonBox;
class QFormLayout;
class QLabel;
class QLineEdit;

namespace quillon::gui {

class ServerEditor : public QDialog {
    Q_OBJECT
  public:
    // A new server (of `kind`), or the record to change.
    explicit ServerEditor(std::int32_t kind, QWidget* parent = nullptr);
    explicit ServerEditor(const ServerInfo& existing, QWidget* parent = nullptr);

    // The form as the fields give it now.
    ServerForm form() const;
    void setKind(std::int32_t kind);
    // The error of the last refused save ("" when none).
    QString errorText() const;

    void accept() override;

  signals:
    // The record was stored (added or changed).
    void saved(const ServerInfo& info);

  private:
    void build();
    void fill(const ServerForm& form);
    void updateFields();
    void showError(const QString& text);

    std::optional<ServerInfo> existing_;
    bool saving_ = false;
    QFormLayout* layout_;
    QComboBox* kind_;
    QLineEdit* name_;
    QLineEdit* addr_;
    QLineEdit* port_;
    QLineEdit* path_;
    QComboBox* ftpProtocol_;
    QComboBox* encoding_;
    QCheckBox* active_;
    QComboBox* sftpLogin_;
    QLineEdit* keyFile_;
    QCheckBox* https_;
    QCheckBox* guest_;
    QLineEdit* user_;
    QLineEdit* password_;
    QLabel* error_;
    QDialogButtonBox* buttons_;
};

}  // namespace quillon::gui
