#include "app/design/Page.h"

#include "app/design/Symbols.h"

#include <QLabel>
#include <QVBoxLayout>

namespace vantle::app {

NoticePage::NoticePage(QString title, QString summary, QString icon, QString sentence, QWidget* parent)
    : Page(parent), title_(std::move(title)), summary_(std::move(summary)) {
    auto* column = new QVBoxLayout(this);
    column->addStretch(1);
    auto* symbol = new QLabel;
    symbol->setPixmap(symbolIcon(icon.toStdString()).pixmap(64, 64));
    symbol->setAlignment(Qt::AlignHCenter);
    auto* text = new QLabel(sentence);
    text->setWordWrap(true);
    text->setAlignment(Qt::AlignHCenter);
    text->setMaximumWidth(520);
    text->setObjectName("notice");
    column->addWidget(symbol);
    column->addSpacing(12);
    column->addWidget(text, 0, Qt::AlignHCenter);
    column->addStretch(2);
}

} // namespace vantle::app
