// A layout that places its widgets in rows and wraps them to the width it is given (the Home page's
// cards). A UI-thread object.
#pragma once
#include <QLayout>
#include <QList>

namespace vantle::app {

class FlowLayout : public QLayout {
  public:
    explicit FlowLayout(QWidget* parent = nullptr, int spacing = 12);
    ~FlowLayout() override;
    void addItem(QLayoutItem* item) override;
    int count() const override { return int(items_.size()); }
    QLayoutItem* itemAt(int index) const override;
    QLayoutItem* takeAt(int index) override;
    Qt::Orientations expandingDirections() const override { return {}; }
    bool hasHeightForWidth() const override { return true; }
    int heightForWidth(int width) const override { return arrange(QRect(0, 0, width, 0), false); }
    void setGeometry(const QRect& rect) override;
    QSize sizeHint() const override { return minimumSize(); }
    QSize minimumSize() const override;
    void clear();

  private:
    int arrange(const QRect& rect, bool apply) const;
    QList<QLayoutItem*> items_;
    int gap_;
};

} // namespace vantle::app
