// The symbols of result lines and pages, by the names the product model uses, mapped once to the
// desktop icon theme's freedesktop names. Call from the UI thread (icons are GUI objects).
#pragma once
#include <QIcon>
#include <QString>

#include <string_view>

namespace vantle::app {

// The freedesktop icon name for a product symbol name ("info.circle" -> "dialog-information").
QString freedesktopName(std::string_view symbol);
// The theme's icon for a product symbol name or a freedesktop name.
QIcon symbolIcon(std::string_view symbol);
// Where the desktop names no icon theme (a bare X server, offscreen), the installed one is used.
void chooseIconTheme();
// The desktop's light or dark style. Where no desktop theme says which (a bare X server), the
// environment's VANTLE_APPEARANCE=dark asks for the dark palette, so both can be looked at.
void applyAppearance();

} // namespace vantle::app
