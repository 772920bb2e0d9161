// Small labels every page uses alike. Widgets of the UI thread; the caller's layout takes ownership.
#pragma once
#include <QLabel>

namespace vantle::app {

// A wrapping line in the palette's quieter colour: help, notes, secondary facts.
QLabel* mutedLabel(const QString& words = {});

} // namespace vantle::app
