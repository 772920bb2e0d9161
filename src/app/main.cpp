// vantle-lite [-sandbox DIR] [--panel] [--at-login]: the desktop app. Parses the launch option, shows
// the window at once and lets it build the live services on a worker. `--panel` asks an app already
// running on the same home to open its menu bar panel (what a desktop shortcut runs), else starts
// with the panel open; `--at-login` (the autostart entry's) starts in the tray without the window.
#include "Vantle_Lite/LiteLaunch.h"
#include "app/design/Symbols.h"
#include "app/panel/MenuBarItem.h"
#include "app/shell/MainWindow.h"

#include <QApplication>
#include <QSystemTrayIcon>

#include <algorithm>

int main(int argc, char** argv) {
    QApplication::setApplicationName("Vantle Lite");
    QApplication::setApplicationDisplayName("Vantle Lite");
    QApplication::setDesktopFileName("vantle-lite");
    QApplication app(argc, argv);
    std::vector<std::string> arguments(argv, argv + argc);
    auto launch = vantle::LiteLaunch::parse(arguments);
    auto has = [&](const char* flag) { return std::ranges::find(arguments, flag) != arguments.end(); };
    bool panel = has("--panel");
    bool atLogin = has("--at-login");
    if (panel && vantle::app::MenuBarItem::callRunning(
                     launch.sandbox ? QString::fromStdString(launch.sandbox->string()) : QString()))
        return 0;
    vantle::app::chooseIconTheme();
    vantle::app::applyAppearance();
    vantle::app::MainWindow window(launch);
    if (panel) window.openPanel();
    // At login the tray is the way in; without one the window waits minimised in the task bar.
    if (!atLogin && !panel)
        window.show();
    else if (!QSystemTrayIcon::isSystemTrayAvailable())
        window.showMinimized();
    return QApplication::exec();
}
