#include "app/design/ResultBar.h"

#include "app/bridge/ProductBridge.h"
#include "app/design/Symbols.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>

namespace vantle::app {

ResultBar::ResultBar(ProductBridge& bridge, QWidget* parent) : QFrame(parent), bridge_(bridge) {
    setObjectName("resultBar");
    setFrameShape(QFrame::NoFrame);
    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(16, 8, 16, 8);
    row->setSpacing(8);
    icon_ = new QLabel;
    icon_->setFixedSize(16, 16);
    text_ = new QLabel;
    text_->setObjectName("resultText");
    text_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    text_->setAccessibleName("Result");
    // A receipt can be long: it wraps rather than widening the window.
    text_->setWordWrap(true);
    text_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    undo_ = new QPushButton(symbolIcon("arrow.uturn.backward"), "Undo");
    undo_->setAccessibleName("Undo the last action");
    undo_->setToolTip("Ctrl+Z");
    row->addWidget(icon_);
    row->addWidget(text_, 1);
    row->addWidget(undo_);
    connect(undo_, &QPushButton::clicked, &bridge_, &ProductBridge::undoLast);
    connect(&bridge_, &ProductBridge::changed, this, &ResultBar::update);
    update();
}

QString ResultBar::text() const {
    return text_->text();
}

void ResultBar::update() {
    const auto& result = bridge_.result();
    setVisible(result.has_value() || bridge_.undoable());
    text_->setText(result ? qt(result->text) : QString());
    icon_->setPixmap(result ? symbolIcon(result->symbol).pixmap(16, 16) : QPixmap());
    undo_->setVisible(bridge_.undoable());
}

} // namespace vantle::app
