#include "app/shell/ScreenLockWatch.h"

#include <QDBusConnection>

namespace vantle::app {

ScreenLockWatch::ScreenLockWatch(QObject* parent) : QObject(parent) {
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) return;
    // Any sender: GNOME, KDE and the light desktops each publish the same interface.
    listening_ = bus.connect(QString(), "/org/freedesktop/ScreenSaver", "org.freedesktop.ScreenSaver",
                             "ActiveChanged", this, SLOT(activeChanged(bool)));
}

} // namespace vantle::app
