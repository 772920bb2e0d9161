#include "app/design/Labels.h"

namespace vantle::app {

QLabel* mutedLabel(const QString& words) {
    auto* label = new QLabel(words);
    label->setWordWrap(true);
    label->setForegroundRole(QPalette::PlaceholderText);
    return label;
}

} // namespace vantle::app
