#include "app/design/Symbols.h"

#include <QApplication>
#include <QDir>
#include <QPalette>
#include <QStyleFactory>

#include <array>
#include <utility>

namespace vantle::app {

QString freedesktopName(std::string_view symbol) {
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 14> table{{
        {"info.circle", "dialog-information"},
        {"arrow.uturn.backward", "edit-undo"},
        {"exclamationmark.circle", "dialog-warning"},
        {"exclamationmark.triangle", "dialog-warning"},
        {"lock", "changes-prevent"},
        {"trash", "user-trash"},
        {"power", "system-shutdown"},
        {"restart", "system-reboot"},
        {"folder", "folder"},
        {"tray.and.arrow.down", "folder-download"},
        {"checkmark.circle", "emblem-ok"},
        {"xmark.circle.fill", "edit-clear"},
        {"magnifyingglass", "edit-find"},
        {"arrow.up.forward.app", "go-jump"},
    }};
    for (const auto& [name, theme] : table)
        if (name == symbol) return QString::fromLatin1(theme.data(), qsizetype(theme.size()));
    return QString::fromUtf8(symbol.data(), qsizetype(symbol.size()));
}

QIcon symbolIcon(std::string_view symbol) {
    auto name = freedesktopName(symbol);
    auto icon = QIcon::fromTheme(name);
    if (icon.isNull()) icon = QIcon::fromTheme(name + "-symbolic");
    return icon;
}

void chooseIconTheme() {
    if (!QIcon::themeName().isEmpty() && QIcon::themeName() != "hicolor") return;
    for (const char* theme : {"Adwaita", "breeze", "gnome"})
        for (const auto& base : QIcon::themeSearchPaths())
            if (QDir(base + "/" + theme).exists()) {
                QIcon::setThemeName(theme);
                return;
            }
}

void applyAppearance() {
    if (qgetenv("VANTLE_APPEARANCE") != "dark") return;
    QApplication::setStyle(QStyleFactory::create("Fusion"));
    QPalette dark;
    // Fusion outlines check boxes in the window colour darkened: the window must stand well above the
    // base colour, or ticks vanish in lists.
    dark.setColor(QPalette::Window, QColor(53, 53, 56));
    dark.setColor(QPalette::WindowText, QColor(230, 230, 232));
    dark.setColor(QPalette::Base, QColor(30, 30, 32));
    dark.setColor(QPalette::AlternateBase, QColor(48, 48, 51));
    dark.setColor(QPalette::Text, QColor(230, 230, 232));
    dark.setColor(QPalette::PlaceholderText, QColor(150, 150, 155));
    dark.setColor(QPalette::Button, QColor(52, 52, 55));
    dark.setColor(QPalette::ButtonText, QColor(230, 230, 232));
    dark.setColor(QPalette::ToolTipBase, QColor(52, 52, 55));
    dark.setColor(QPalette::ToolTipText, QColor(230, 230, 232));
    dark.setColor(QPalette::Highlight, QColor(53, 132, 228));
    dark.setColor(QPalette::HighlightedText, Qt::white);
    dark.setColor(QPalette::Mid, QColor(84, 84, 88));
    dark.setColor(QPalette::Light, QColor(80, 80, 84));
    dark.setColor(QPalette::Dark, QColor(20, 20, 22));
    dark.setColor(QPalette::Link, QColor(120, 174, 237));
    dark.setColor(QPalette::Disabled, QPalette::Text, QColor(120, 120, 125));
    dark.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(120, 120, 125));
    dark.setColor(QPalette::Disabled, QPalette::WindowText, QColor(120, 120, 125));
    QApplication::setPalette(dark);
}

} // namespace vantle::app
