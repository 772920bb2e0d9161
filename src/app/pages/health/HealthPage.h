// The Health page: the health score as a ring with its grade and each penalty with its help and fix;
// live gauges of processor, memory, disk, heat and battery; the history chart for a day, a month or a
// year from the health record; what is busy now, each process with its sentence; Balance the load
// with its candidates, question and report; and the checkup's findings and sections. The machine is
// read only while the page is on screen and the window can be seen; every reading runs off the UI
// thread. A widget of the UI thread.
#pragma once
#include "VantleLiteLive/LoadBalance.h"
#include "VantleSpec/CheckupRecords.h"
#include "VantleSpec/HealthScoreKeeper.h"
#include "VantleVitals/HealthHistory.h"
#include "app/design/Page.h"

#include <optional>
#include <vector>

class QButtonGroup;
class QGridLayout;
class QCheckBox;
class QLabel;
class QPushButton;
class QScrollArea;
class QStackedWidget;
class QTimer;
class QTreeWidget;
class QVBoxLayout;

namespace vantle::app {

class ProductBridge;
class Ring;
class HistoryChart;

class HealthPage : public Page {
    Q_OBJECT
  public:
    explicit HealthPage(ProductBridge& bridge, QWidget* parent = nullptr);
    QString title() const override { return "Health"; }
    QString summary() const override { return summary_; }
    void shown() override;

    // Live readings run only while the page is on screen and the window can be seen.
    bool readingLive() const;
    int readingsTaken() const { return readings_; }
    void setRefreshInterval(int ms);
    const std::optional<HealthScore>& score() const { return keeper_.shown; }

    void showSpan(HealthHistory::Span span);
    HealthHistory::Span span() const { return span_; }
    int historyRows() const;
    bool historyEmpty() const;

    // The busy processes shown: name and sentence, in the list's order.
    std::vector<std::pair<QString, QString>> busyRows() const;

    // `asking` while the product's question is open: the candidates stay on screen, held.
    enum class Balance { idle, reading, candidates, asking, balancing, report };
    Balance balanceState() const { return balance_; }
    void startBalance();
    // Ticks or unticks the candidate at `index`; false when there is none.
    bool tickCandidate(int index, bool on);
    int candidateCount() const { return int(found_.candidates.size()); }
    void askToBalance();
    QStringList reportLines() const { return report_; }
    void closeBalance();

    void runCheckup();
    const std::optional<MacCheckup>& checkup() const { return checkup_; }

    // The cards, for showing one on screen (the screenshot tour).
    enum class Card { score, gauges, history, activity, balance, checkup };
    void scrollTo(Card card);

  Q_SIGNALS:
    void readingApplied();
    void historyShown();
    void balanceChanged();
    void checkupShown();

  protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

  private:
    struct Reading;
    QWidget* makeScoreCard();
    QWidget* makeGaugesCard();
    QWidget* makeHistoryCard();
    QWidget* makeActivityCard();
    QWidget* makeBalanceCard();
    QWidget* makeCheckupCard();
    void updateLive();
    void tick();
    void apply(const Reading& reading);
    void showScore();
    void showActivity();
    void readHistory();
    void showHistory(const HealthHistory::Reading& reading, bool keeping);
    void fillCandidates();
    void showBalance();
    void showCheckup();
    void act(const CheckupAction& action);
    QWidget* card(Card which) const;
    void setSummary(const QString& text);

    ProductBridge& bridge_;
    QString summary_;
    QTimer* timer_;
    bool inFlight_ = false;
    int readings_ = 0;
    bool started_ = false;
    HealthScoreKeeper keeper_;
    std::optional<std::vector<HealthScore::Penalty>> shownPenalties_;
    std::vector<ProcessRow> busy_;
    AgentsReading agents_;

    HealthHistory::Span span_ = HealthHistory::Span::day;

    Balance balance_ = Balance::idle;
    std::optional<ScoredReading> before_;
    BalanceFound found_;
    std::vector<QCheckBox*> ticks_;
    QStringList report_;

    std::optional<MacCheckup> checkup_;
    bool checking_ = false;

    QScrollArea* scroll_;
    QWidget* scoreCard_;
    Ring* scoreRing_;
    QLabel* scoreLine_;
    QVBoxLayout* penalties_;
    QLabel* explanation_;
    QWidget* gaugesCard_;
    std::vector<Ring*> gauges_;
    std::vector<QLabel*> gaugeLines_;
    QWidget* batteryGauge_;
    QWidget* historyCard_;
    QButtonGroup* spans_;
    HistoryChart* chart_;
    QLabel* historyLine_;
    QLabel* historyEmpty_;
    QPushButton* keepRecord_;
    QWidget* activityCard_;
    QTreeWidget* activity_;
    QPushButton* quit_;
    QWidget* balanceCard_;
    QStackedWidget* balanceStates_;
    QLabel* balanceStatus_;
    QVBoxLayout* candidates_;
    QLabel* nothing_;
    QPushButton* balanceGo_;
    QPushButton* balanceCancel_;
    QLabel* reportLabel_;
    QPushButton* balanceUndo_;
    QWidget* checkupCard_;
    QLabel* checkupLine_;
    QPushButton* checkAgain_;
    QVBoxLayout* findings_;
    QGridLayout* sections_;
    static constexpr int sectionColumns = 3;
    QLabel* checkupNote_;
};

} // namespace vantle::app
