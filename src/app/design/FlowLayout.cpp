#include "app/design/FlowLayout.h"

#include <QWidget>

namespace vantle::app {

FlowLayout::FlowLayout(QWidget* parent, int spacing) : QLayout(parent), gap_(spacing) {
    setContentsMargins(0, 0, 0, 0);
}

FlowLayout::~FlowLayout() {
    clear();
}

void FlowLayout::clear() {
    while (auto* item = takeAt(0)) {
        if (auto* widget = item->widget()) widget->deleteLater();
        delete item;
    }
}

void FlowLayout::addItem(QLayoutItem* item) {
    items_.append(item);
}

QLayoutItem* FlowLayout::itemAt(int index) const {
    return index >= 0 && index < items_.size() ? items_[index] : nullptr;
}

QLayoutItem* FlowLayout::takeAt(int index) {
    return index >= 0 && index < items_.size() ? items_.takeAt(index) : nullptr;
}

void FlowLayout::setGeometry(const QRect& rect) {
    QLayout::setGeometry(rect);
    arrange(rect, true);
}

QSize FlowLayout::minimumSize() const {
    QSize size;
    for (auto* item : items_)
        size = size.expandedTo(item->minimumSize());
    return size;
}

int FlowLayout::arrange(const QRect& rect, bool apply) const {
    int x = rect.x();
    int y = rect.y();
    int rowHeight = 0;
    for (auto* item : items_) {
        auto hint = item->sizeHint();
        if (x + hint.width() > rect.right() + 1 && rowHeight > 0) {
            x = rect.x();
            y += rowHeight + gap_;
            rowHeight = 0;
        }
        if (apply) item->setGeometry(QRect(QPoint(x, y), hint));
        x += hint.width() + gap_;
        rowHeight = std::max(rowHeight, hint.height());
    }
    return y + rowHeight - rect.y();
}

} // namespace vantle::app
