// The Settings page, in groups: the health record (on or off, and Erase… with its question), updates
// (the updater's status sentence and Check for Updates…), the menu bar panel's hot key, Open at login
// (the app's own autostart entry), and the Privacy & Security help. Every change runs through the
// product on its thread. A widget of the UI thread.
#pragma once
#include "app/design/Page.h"

#include <QKeySequence>
#include <QStringList>

#include <functional>

class QCheckBox;
class QKeySequenceEdit;
class QLabel;
class QPushButton;
class QTimer;
class QVBoxLayout;

namespace vantle::app {

class ProductBridge;

class SettingsPage : public Page {
    Q_OBJECT
  public:
    // `loginCommand` is what the autostart entry runs (this program, its launch option, --at-login).
    SettingsPage(ProductBridge& bridge, QStringList loginCommand, QWidget* parent = nullptr);
    QString title() const override { return "Settings"; }
    QString summary() const override { return "Your choices for Vantle Lite"; }
    void shown() override;

    QCheckBox* keepRecord() const { return keepRecord_; }
    QPushButton* eraseRecord() const { return erase_; }
    QCheckBox* openAtLogin() const { return openAtLogin_; }
    QString loginNote() const;
    // Says what the desktop does with the hot key (registered, or what to set up by hand).
    void setHotKeyNote(const QString& text);

    // The settings key of the panel's hot key (one string, in the portable key-sequence form).
    static constexpr const char* hotKeyKey = "panelHotKey";
    static constexpr const char* defaultHotKey = "Ctrl+Alt+Space";

  Q_SIGNALS:
    void hotKeyChanged(QKeySequence key);

  protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

  private:
    void readStatus();
    void setOpenAtLogin(bool on);

    ProductBridge& bridge_;
    QStringList loginCommand_;
    QCheckBox* keepRecord_;
    QPushButton* erase_;
    QLabel* status_;
    QPushButton* check_;
    QKeySequenceEdit* hotKey_;
    QLabel* hotKeyNote_;
    QCheckBox* openAtLogin_;
    QLabel* loginNote_;
    QTimer* statusPoll_;
    bool checking_ = false;
};

} // namespace vantle::app
