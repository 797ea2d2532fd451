#pragma once
// PreferencesDialog: the settings of the preference store a person changes: display (hidden
// items, extensions, thumbnails, view kind), transfers, the cache, the text encoding
// and the network. Saved to the store when accepted.

#include <QDialog>
#include <map>
#include <string>
#include <string_view>

class QCheckBox;
class QComboBox;
class QLabel;
class QSpinBox;

namespace quillon::gui {

class PreferencesDialog : public QDialog {
    Q_OBJECT
  public:
    explicit PreferencesDialog(QWidget* parent = nullptr);

    // The check box of a boolean key, or null.
    QCheckBox* checkBox(std::string_view key) const;
    QSpinBox* maxTransfers() const { return maxTransfers_; }
    QComboBox* textEncoding() const { return textEncoding_; }
    QString errorText() const;

    void accept() override;

  signals:
    // The store was saved with changed values.
    void changed();

  private:
    std::map<std::string, QCheckBox*, std::less<>> checks_;
    QComboBox* viewType_;
    QSpinBox* maxTransfers_;
    QSpinBox* cacheSize_;
    QComboBox* textEncoding_;
    QLabel* error_;
};

}  // namespace quillon::gui
