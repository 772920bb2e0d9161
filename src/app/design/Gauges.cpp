#include "app/design/Gauges.h"

#include <QPainter>

#include <algorithm>
#include <cmath>

namespace vantle::app {

QColor warningColor() {
    return QColor(224, 128, 32);
}

Ring::Ring(int side, QWidget* parent) : QWidget(parent), side_(side) {
    setFixedSize(side, side);
}

void Ring::set(double fraction, const QString& figure, const QString& caption, bool warning) {
    fraction_ = std::isfinite(fraction) ? std::clamp(fraction, 0.0, 1.0) : 0.0;
    known_ = true;
    figure_ = figure;
    caption_ = caption;
    warning_ = warning;
    setAccessibleName(caption.isEmpty() ? figure : figure + " " + caption);
    update();
}

void Ring::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const double thickness = std::max(4.0, side_ / 12.0);
    QRectF box(thickness / 2, thickness / 2, side_ - thickness, side_ - thickness);
    QPen track(palette().color(QPalette::Mid), thickness, Qt::SolidLine, Qt::RoundCap);
    auto trackColor = palette().color(QPalette::Mid);
    trackColor.setAlpha(90);
    track.setColor(trackColor);
    p.setPen(track);
    p.drawEllipse(box);
    if (known_ && fraction_ > 0) {
        QPen filled(warning_ ? warningColor() : palette().color(QPalette::Highlight), thickness,
                    Qt::SolidLine, Qt::RoundCap);
        p.setPen(filled);
        // From the top, clockwise; Qt counts sixteenths of a degree, anticlockwise.
        p.drawArc(box, 90 * 16, -int(std::lround(fraction_ * 360 * 16)));
    }
    p.setPen(palette().color(QPalette::WindowText));
    auto big = font();
    big.setBold(true);
    big.setPointSizeF(std::max(9.0, side_ / (figure_.size() > 3 ? 6.5 : 4.5) * 0.75));
    QFontMetricsF bigMetrics(big);
    auto small = font();
    if (side_ < 100) small.setPointSizeF(small.pointSizeF() - 1);
    QFontMetricsF smallMetrics(small);
    double height = bigMetrics.height() + (caption_.isEmpty() ? 0 : smallMetrics.height());
    double top = (side_ - height) / 2;
    p.setFont(big);
    p.drawText(QRectF(0, top, side_, bigMetrics.height()), Qt::AlignCenter, known_ ? figure_ : "–");
    if (!caption_.isEmpty()) {
        p.setFont(small);
        p.setPen(palette().color(QPalette::PlaceholderText));
        p.drawText(QRectF(0, top + bigMetrics.height(), side_, smallMetrics.height()), Qt::AlignCenter,
                   caption_);
    }
}

} // namespace vantle::app
