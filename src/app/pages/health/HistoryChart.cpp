#include "app/pages/health/HistoryChart.h"

#include "app/design/Gauges.h"

#include <QDateTime>
#include <QPainter>

#include <algorithm>
#include <chrono>
#include <cmath>

namespace vantle::app {

namespace {
QDateTime localOf(TimePoint at) {
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(at.time_since_epoch()).count();
    return QDateTime::fromMSecsSinceEpoch(ms);
}
double clamped(double fraction) {
    return std::isfinite(fraction) ? std::clamp(fraction, 0.0, 1.0) : 0.0;
}
} // namespace

HistoryChart::HistoryChart(QWidget* parent) : QWidget(parent) {
    setAccessibleName("History chart");
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    setFixedHeight(220);
}

void HistoryChart::setRows(HealthHistory::Span span, std::vector<HealthPoint> rows) {
    span_ = span;
    rows_ = std::move(rows);
    update();
}

QString HistoryChart::labelOf(const HealthPoint& row) const {
    auto at = localOf(row.start);
    switch (span_) {
    case HealthHistory::Span::day:
        return at.toString("HH");
    case HealthHistory::Span::month:
        return at.toString("d");
    case HealthHistory::Span::year:
        return QLocale().monthName(at.date().month(), QLocale::ShortFormat);
    }
    return {};
}

QColor HistoryChart::processorColor(const QPalette& palette) {
    return palette.color(QPalette::Highlight);
}

QColor HistoryChart::memoryColor(const QPalette& palette) {
    // A paler bar on a light window, a deeper one on a dark window: either way a step back.
    auto accent = processorColor(palette);
    return palette.color(QPalette::Window).lightness() < 128 ? accent.darker(150) : accent.lighter(160);
}

void HistoryChart::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    auto metrics = fontMetrics();
    const int scaleWidth = metrics.horizontalAdvance("100%") + 8;
    const int labelHeight = metrics.height() + 10;
    QRectF plot(scaleWidth, 6, width() - scaleWidth - 4, height() - labelHeight - 6 - 10);

    // The scale: quiet lines at every quarter.
    auto grid = palette().color(QPalette::Mid);
    grid.setAlpha(80);
    for (int q = 0; q <= 4; ++q) {
        double y = plot.bottom() - plot.height() * q / 4.0;
        p.setPen(QPen(grid, 1));
        p.drawLine(QPointF(plot.left(), y), QPointF(plot.right(), y));
        p.setPen(palette().color(QPalette::PlaceholderText));
        p.drawText(QRectF(0, y - metrics.height() / 2.0, scaleWidth - 6, metrics.height()),
                   Qt::AlignRight | Qt::AlignVCenter, QString("%1%").arg(q * 25));
    }
    if (rows_.empty()) return;

    // As many slots as the span has rows, so a week of a month sits at its days, not stretched.
    const int slots = span_ == HealthHistory::Span::day ? 24 : span_ == HealthHistory::Span::month ? 30 : 12;
    const int count = std::max<int>(slots, int(rows_.size()));
    const double slot = plot.width() / count;
    const double bar = std::max(2.0, std::min(14.0, slot * 0.36));
    const int offset = count - int(rows_.size()); // the newest row sits at the right end
    auto processor = processorColor(palette());
    auto memory = memoryColor(palette());
    // Labels only where they fit: every n-th row.
    const int labelEvery = std::max(1, int(std::ceil((metrics.horizontalAdvance("Sep") + 10) / slot)));
    for (int i = 0; i < int(rows_.size()); ++i) {
        const auto& row = rows_[std::size_t(i)];
        double center = plot.left() + slot * (offset + i + 0.5);
        double cpu = clamped(row.cpu), mem = clamped(row.memory);
        p.setPen(Qt::NoPen);
        p.setBrush(processor);
        p.drawRoundedRect(
            QRectF(center - bar - 1, plot.bottom() - plot.height() * cpu, bar, plot.height() * cpu), 2, 2);
        p.setBrush(memory);
        p.drawRoundedRect(QRectF(center + 1, plot.bottom() - plot.height() * mem, bar, plot.height() * mem),
                          2, 2);
        if (row.pressure != VitalsSnapshot::Pressure::normal ||
            row.thermal >= VitalsSnapshot::Thermal::serious) {
            p.setBrush(warningColor());
            p.drawEllipse(QPointF(center, plot.bottom() + 6), 3, 3);
        }
        if ((count - offset - i - 1) % labelEvery == 0) {
            p.setPen(palette().color(QPalette::PlaceholderText));
            p.drawText(
                QRectF(center - slot * labelEvery / 2.0, plot.bottom() + 10, slot * labelEvery, labelHeight),
                Qt::AlignHCenter | Qt::AlignTop, labelOf(row));
        }
    }
}

} // namespace vantle::app
