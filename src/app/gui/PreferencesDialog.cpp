#include "app/gui/PreferencesDialog.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QLabel>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>
#include <algorithm>

#include "core/AppPreference.h"
#include "core/StringEncoding.h"

namespace quillon::gui {

namespace {
constexpr std::int64_t kMiB = 1024 * 1024;
}

PreferencesDialog::PreferencesDialog(QWidget* parent) : QDialog(parent) {
    setObjectName("preferencesDialog");
    setWindowTitle(tr("Preferences"));
    setWindowModality(Qt::WindowModal);
    auto& prefs = AppPreference::sharedAppPreference();
    auto* outer = new QVBoxLayout(this);
    auto check = [&](QLayout* into, std::string_view key, const QString& text) {
        auto* box = new QCheckBox(text, this);
        box->setObjectName(QString::fromUtf8(key.data(), static_cast<int>(key.size())));
        box->setAccessibleName(text);
        box->setChecked(prefs.boolForKey(key));
        into->addWidget(box);
        checks_.emplace(std::string(key), box);
    };

    auto* display = new QGroupBox(tr("Display"), this);
    auto* displayLayout = new QVBoxLayout(display);
    check(displayLayout, PrefKey::SYS_SHOW_HIDDEN_FILES, tr("Show hidden items"));
    check(displayLayout, PrefKey::SYS_DISPLAY_FILE_EXTENSION, tr("Show file name extensions"));
    check(displayLayout, PrefKey::SYS_AUTO_GEN_THUMBNAIL, tr("Make thumbnails automatically"));
    check(displayLayout, PrefKey::DualPanelMode, tr("Two folder panels side by side"));
    auto* viewRow = new QFormLayout;
    viewType_ = new QComboBox(display);
    viewType_->setObjectName("viewType");
    viewType_->setAccessibleName(tr("Folder view for new windows"));
    viewType_->addItem(tr("List"), 0);
    viewType_->addItem(tr("Icons"), 1);
    viewType_->setCurrentIndex(
        std::max(0, viewType_->findData(static_cast<int>(prefs.integerForKey(PrefKey::ViewType)))));
    viewRow->addRow(tr("Folder view:"), viewType_);
    displayLayout->addLayout(viewRow);
    outer->addWidget(display);

    auto* other = new QGroupBox(tr("Transfers and Network"), this);
    auto* form = new QFormLayout(other);
    maxTransfers_ = new QSpinBox(other);
    maxTransfers_->setObjectName("maxTransfers");
    maxTransfers_->setAccessibleName(tr("Transfers at once"));
    maxTransfers_->setRange(1, 32);
    maxTransfers_->setValue(static_cast<int>(
        std::clamp<std::int64_t>(prefs.integerForKey(PrefKey::MaxSimultaneousTransfers), 1, 32)));
    form->addRow(tr("Transfers at once:"), maxTransfers_);
    cacheSize_ = new QSpinBox(other);
    cacheSize_->setObjectName("cacheSize");
    cacheSize_->setAccessibleName(tr("Download cache size in MiB"));
    cacheSize_->setRange(0, 1024 * 1024);
    cacheSize_->setSuffix(tr(" MiB"));
    cacheSize_->setValue(static_cast<int>(prefs.integerForKey(PrefKey::MAX_CACHE_SIZE) / kMiB));
    form->addRow(tr("Download cache:"), cacheSize_);
    textEncoding_ = new QComboBox(other);
    textEncoding_->setObjectName("textEncoding");
    textEncoding_->setAccessibleName(tr("Text encoding"));
    textEncoding_->addItem(tr("Automatic"), QString());
    for (auto& e : StringEncoding::knownEncodings()) {
        auto name = QString::fromUtf8(e.name.data(), static_cast<int>(e.name.size()));
        textEncoding_->addItem(name, name);
    }
    auto current = QString::fromStdString(prefs.stringForKey(PrefKey::TextEncoding));
    if (!current.isEmpty() && textEncoding_->findData(current) < 0)
        textEncoding_->addItem(current, current);  // an iconv name set elsewhere, kept
    textEncoding_->setCurrentIndex(std::max(0, textEncoding_->findData(current)));
    form->addRow(tr("Text encoding:"), textEncoding_);
    auto* boxes = new QVBoxLayout;
    check(boxes, PrefKey::SYS_ENABLE_NETWORK_DISCOVERY,
          tr("Look for servers on the local network"));
    check(boxes, PrefKey::SYS_AUTO_SYNC_CONN, tr("Share the server list between installations"));
    form->addRow(boxes);
    outer->addWidget(other);

    error_ = new QLabel(this);
    error_->setObjectName("preferencesError");
    error_->setWordWrap(true);
    error_->setStyleSheet("QLabel { color: #b3261e; }");
    error_->hide();
    outer->addWidget(error_);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    buttons->button(QDialogButtonBox::Ok)->setObjectName("savePreferences");
    buttons->button(QDialogButtonBox::Ok)->setAccessibleName(tr("Save the preferences"));
    buttons->button(QDialogButtonBox::Cancel)->setAccessibleName(tr("Cancel"));
    connect(buttons, &QDialogButtonBox::accepted, this, &PreferencesDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &PreferencesDialog::reject);
    outer->addWidget(buttons);
}

QCheckBox* PreferencesDialog::checkBox(std::string_view key) const {
    auto it = checks_.find(key);
    return it == checks_.end() ? nullptr : it->second;
}

QString PreferencesDialog::errorText() const {
    return error_->isVisible() ? error_->text() : QString();
}

void PreferencesDialog::accept() {
    auto& prefs = AppPreference::sharedAppPreference();
    PlistValue transfers(static_cast<std::int64_t>(maxTransfers_->value()));
    if (auto allowed = AppPreference::checkValue(PrefKey::MaxSimultaneousTransfers, transfers);
        !allowed) {
        error_->setText(QString::fromStdString(allowed.error().reason));
        error_->show();
        return;
    }
    for (auto& [key, box] : checks_) prefs.setValue(PlistValue(box->isChecked()), key);
    prefs.setValue(PlistValue(static_cast<std::int64_t>(viewType_->currentData().toInt())),
                   PrefKey::ViewType);
    prefs.setValue(std::move(transfers), PrefKey::MaxSimultaneousTransfers);
    prefs.setValue(PlistValue(static_cast<std::int64_t>(cacheSize_->value()) * kMiB),
                   PrefKey::MAX_CACHE_SIZE);
    auto encoding = textEncoding_->currentData().toString().toStdString();
    if (encoding.empty())
        prefs.removeValueForKey(PrefKey::TextEncoding);  // automatic detection
    else
        prefs.setValue(PlistValue(encoding), PrefKey::TextEncoding);
    if (auto saved = prefs.save(); !saved) {
        error_->setText(QString::fromStdString(saved.error().describe()));
        error_->show();
        return;
    }
    emit changed();
    QDialog::accept();
}

}  // namespace quillon::gui
