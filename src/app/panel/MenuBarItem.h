// The app's item in the desktop's tray (a StatusNotifierItem, as QSystemTrayIcon offers it): a click
// opens the menu bar panel or closes it, and its menu opens the window or quits. The panel is made on
// first use and kept. It also answers `vantle-lite --panel` from a second launch over a local socket
// of this user's, so a desktop shortcut that runs that command works as the hot key. A UI-thread object
// owned by the main window.
#pragma once
#include <QObject>
#include <QString>

class QLocalServer;
class QSystemTrayIcon;
class QWidget;

namespace vantle::app {

class PanelView;
class ProductBridge;

class MenuBarItem : public QObject {
    Q_OBJECT
  public:
    // `home` names the run (the sandbox folder, or empty for the real home) so each run has its own call.
    MenuBarItem(ProductBridge& bridge, const QString& home, QObject* parent = nullptr);
    ~MenuBarItem() override;

    PanelView* panel();
    bool panelMade() const { return panel_ != nullptr; }
    void open();
    void toggle();
    bool hasTray() const { return tray_ != nullptr; }
    // The panel is asking its own question: the window must not ask it again.
    bool asksItself() const;

    // What this desktop lets the hot key be, in a sentence for Settings.
    QString hotKeyNote() const;

    // The local socket a run with this home listens on.
    static QString callName(const QString& home);
    // Asks a running app of this home to open its panel; false when none answered.
    static bool callRunning(const QString& home);

  Q_SIGNALS:
    void openWindow();
    void showInVantle(QString path);
    void showActivity();

  private:
    void listen(const QString& home);

    ProductBridge& bridge_;
    PanelView* panel_ = nullptr;
    QSystemTrayIcon* tray_ = nullptr;
    QLocalServer* server_ = nullptr;
};

} // namespace vantle::app
