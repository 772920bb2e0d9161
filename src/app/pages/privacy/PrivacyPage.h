// The Privacy page: what may leave this computer and what never does, whether this run is offline,
// and the network ledger as a table (time, purpose, host, result), newest first, each request's two
// lines joined into one row that opens to both. New lines arrive from the ledger's own stream, taken
// up only while the page is on screen. A widget of the UI thread.
#pragma once
#include "VantleSpec/LedgerEntry.h"
#include "app/design/Page.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

class QLabel;
class QStackedWidget;
class QTimer;
class QTreeWidget;
class QTreeWidgetItem;

namespace vantle {
class LedgerStream;
}

namespace vantle::app {

class ProductBridge;

class PrivacyPage : public Page {
    Q_OBJECT
  public:
    explicit PrivacyPage(ProductBridge& bridge, QWidget* parent = nullptr);
    QString title() const override { return "Privacy"; }
    QString summary() const override;
    void shown() override;

    QTreeWidget* requests() const { return tree_; }
    // Whether new ledger lines are being taken up (only while the page is on screen).
    bool takingUp() const;

  protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

  private:
    void takeUpNew();
    void add(const LedgerEntry& entry);
    void fill(QTreeWidgetItem* row, const std::vector<LedgerEntry>& lines);
    void updateEmpty();

    ProductBridge& bridge_;
    std::shared_ptr<LedgerStream> stream_;
    bool loaded_ = false;
    // A request's lines by its id, in the order they came.
    std::map<std::string, std::vector<LedgerEntry>> lines_;
    std::map<std::string, QTreeWidgetItem*> rows_;
    QLabel* statement_;
    QLabel* offline_;
    QStackedWidget* states_;
    QTreeWidget* tree_;
    QTimer* poll_;
};

} // namespace vantle::app
