// The result line at the foot of the window: the last action's sentence and symbol, with an Undo
// button while the product holds something to undo. A widget of the UI thread.
#pragma once
#include <QFrame>

class QLabel;
class QPushButton;

namespace vantle::app {

class ProductBridge;

class ResultBar : public QFrame {
    Q_OBJECT
  public:
    explicit ResultBar(ProductBridge& bridge, QWidget* parent = nullptr);
    QString text() const;
    QPushButton* undoButton() const { return undo_; }

  private:
    void update();
    ProductBridge& bridge_;
    QLabel* icon_;
    QLabel* text_;
    QPushButton* undo_;
};

} // namespace vantle::app
