// vantle-lite [-sandbox DIR]: the desktop app. Parses the launch option, shows the window at once and
// lets it build the live services on a worker.
#include "Vantle_Lite/LiteLaunch.h"
#include "app/design/Symbols.h"
#include "app/shell/MainWindow.h"

#include <QApplication>

int main(int argc, char** argv) {
    QApplication::setApplicationName("Vantle Lite");
    QApplication::setApplicationDisplayName("Vantle Lite");
    QApplication::setDesktopFileName("vantle-lite");
    QApplication app(argc, argv);
    vantle::app::chooseIconTheme();
    vantle::app::applyAppearance();
    std::vector<std::string> arguments(argv, argv + argc);
    vantle::app::MainWindow window(vantle::LiteLaunch::parse(arguments));
    window.show();
    return QApplication::exec();
}
