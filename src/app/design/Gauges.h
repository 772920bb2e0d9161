// Small painted gauges: a ring with a figure in its middle (the health score, a gauge of the machine)
// and its colours. The warning colour is the one accent beside the palette's highlight, kept for
// what needs attention. Widgets of the UI thread.
#pragma once
#include <QWidget>

namespace vantle::app {

// The one colour beside the highlight: for attention, pressure and heat.
QColor warningColor();

class Ring : public QWidget {
    Q_OBJECT
  public:
    explicit Ring(int side, QWidget* parent = nullptr);
    // `fraction` 0..1 of the ring filled; `figure` in the middle, `caption` under it (either may be
    // empty). `warning` paints the filled part in the warning colour.
    void set(double fraction, const QString& figure, const QString& caption, bool warning = false);
    QString figure() const { return figure_; }
    QString caption() const { return caption_; }
    QSize sizeHint() const override { return {side_, side_}; }
    QSize minimumSizeHint() const override { return sizeHint(); }

  protected:
    void paintEvent(QPaintEvent*) override;

  private:
    int side_;
    double fraction_ = 0;
    bool known_ = false;
    bool warning_ = false;
    QString figure_;
    QString caption_;
};

} // namespace vantle::app
