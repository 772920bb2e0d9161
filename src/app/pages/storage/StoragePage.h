// The Storage page: one sentence and Scan before a scan; progress with Cancel during it; after it, the
// home's space by class, the categories under their class headings with size, what freeing costs and
// when it is allowed, ticks for the categories to clean and the items to set aside, and the held
// items with Put Back. Every scan, plan and clean runs off the UI thread. A widget of the UI thread.
#pragma once
#include "VantleStorage/HoldingShelf.h"
#include "VantleStorage/StorageReport.h"
#include "app/design/Page.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class QLabel;
class QPushButton;
class QStackedWidget;
class QTreeWidget;
class QTreeWidgetItem;
class QProgressBar;

namespace vantle {
class CancelFlag;
}

namespace vantle::app {

class ProductBridge;
class ClassBar;

class StoragePage : public Page {
    Q_OBJECT
  public:
    explicit StoragePage(ProductBridge& bridge, QWidget* parent = nullptr);
    QString title() const override { return "Storage"; }
    QString summary() const override { return summary_; }
    void shown() override;

    void scan();
    void scanIfNone();
    void cancelScan();
    // Asks to delete the ticked categories, or to set aside the ticked items, after planning off the UI.
    void cleanTicked();
    void setAsideTicked();
    void putBackTicked();
    // Ticks a category or item by its id (what a click on its box does).
    bool tick(const QString& id, bool on = true);

    enum class State { before, scanning, report };
    State state() const { return state_; }
    const std::optional<StorageReport>& report() const { return report_; }
    QString stateText() const;

  Q_SIGNALS:
    void reportShown();
    void scanProgress(QString text);

  private:
    void showReport();
    void enter(State state);
    void ticksChanged();
    std::vector<std::string> tickedIds(bool heldItems, bool categories) const;
    void planned(std::expected<CleanPlan, CleanRefusal> plan);
    using PlanFrom = std::function<std::expected<CleanPlan, CleanRefusal>(const StorageScan&)>;
    void planFromRecentScan(const std::vector<std::string>& ids, PlanFrom plan);

    ProductBridge& bridge_;
    QString summary_;
    State state_ = State::before;
    bool loadedKept_ = false;
    bool rescanAfterAnswer_ = false;
    std::optional<StorageScan> scan_;
    std::optional<StorageReport> report_;
    std::vector<HeldItem> held_;
    std::shared_ptr<CancelFlag> cancel_;

    QStackedWidget* states_;
    QLabel* beforeText_;
    QPushButton* scanButton_;
    QLabel* progressText_;
    QProgressBar* progress_;
    QLabel* figure_;
    QLabel* figureLine_;
    ClassBar* bar_;
    QTreeWidget* tree_;
    QLabel* details_;
    QPushButton* clean_;
    QPushButton* setAside_;
    QPushButton* putBack_;
};

} // namespace vantle::app
