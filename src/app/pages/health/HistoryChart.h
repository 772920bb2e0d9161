// The health record drawn for people: one pair of bars a row (an hour of a day, a day of a month, a
// month of a year), the processor's average beside memory in use, with a mark under rows that saw
// memory pressure or heat, and a scale in percent. A widget of the UI thread.
#pragma once
#include "VantleSpec/HealthPoint.h"
#include "VantleVitals/HealthHistory.h"

#include <QWidget>

#include <vector>

namespace vantle::app {

class HistoryChart : public QWidget {
    Q_OBJECT
  public:
    explicit HistoryChart(QWidget* parent = nullptr);
    void setRows(HealthHistory::Span span, std::vector<HealthPoint> rows);
    int rowCount() const { return int(rows_.size()); }
    QSize sizeHint() const override { return {720, 220}; }
    // The bars' colours, for the legend beside the chart.
    static QColor processorColor(const QPalette& palette);
    static QColor memoryColor(const QPalette& palette);
    QSize minimumSizeHint() const override { return {320, 180}; }

  protected:
    void paintEvent(QPaintEvent*) override;

  private:
    QString labelOf(const HealthPoint& row) const;
    HealthHistory::Span span_ = HealthHistory::Span::day;
    std::vector<HealthPoint> rows_;
};

} // namespace vantle::app
