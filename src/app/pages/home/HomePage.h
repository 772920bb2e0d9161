// The Home page: the smart lists and clean-up cards in a row that wraps; the user's files by kind
// (a grid of thumbnails for images, a sortable list for the rest), or those of a place, a list or a
// search with its removable chips; duplicates with the copy to keep chosen by the user; sources; and
// the inspector of the selected file with its actions. The catalog is read, searched and watched on
// workers; the page follows the disk while the app runs. A widget of the UI thread.
#pragma once
#include "VantleLibrary/Catalog.h"
#include "VantleLibrary/Duplicates.h"
#include "Vantle_Lite/LiteActions.h"
#include "app/design/Page.h"

#include <QPointer>

#include <memory>
#include <optional>

class QComboBox;
class QLabel;
class QLineEdit;
class QListView;
class QPushButton;
class QStackedWidget;
class QTableView;
class QTimer;
class QTreeWidget;
class QButtonGroup;
class QProgressBar;

namespace vantle {
class ChangeStream;
}

namespace vantle::app {

class ProductBridge;
class FileListModel;
class FlowLayout;
class Thumbnails;

class HomePage : public Page {
    Q_OBJECT
  public:
    enum class View { files, duplicates, sources };

    explicit HomePage(ProductBridge& bridge, QWidget* parent = nullptr);
    ~HomePage() override;
    QString title() const override { return title_; }
    QString summary() const override { return summary_; }
    QWidget* headerTool() override;
    void shown() override;

    // What the files view lists.
    void showKind(std::optional<LibraryKind> kind);
    void showFolder(const QString& folder);
    void showList(SmartList list);
    void search(const QString& words);
    void removeChip(int index);
    void showView(View view);
    void findDuplicates();

    // Moves the selected files (or the ticked copies, on the duplicates view) to the Trash, asking first.
    void trashSelection();
    bool select(const QString& path);

    // For tests and the screenshot tour.
    FileListModel* files() const { return model_; }
    QStringList chips() const { return chipTexts_; }
    bool reading() const { return reading_; }
    QTreeWidget* duplicatesTree() const { return duplicates_; }
    QTreeWidget* sourcesTree() const { return sources_; }
    QString inspectorName() const;
    // Ticks a copy of a duplicate group for the Trash (untick: keep it).
    bool tickCopy(const QString& path, bool toTrash);

  Q_SIGNALS:
    void listed();
    // The user asked to keep the search in the sidebar.
    void saveSearch(const QString& words);
    void duplicatesShown();

  private:
    void read(bool again);
    void readDone(Catalog::Result result);
    void refreshList();
    void showCards(std::vector<CleanUpCard> cards);
    void showChips(const std::vector<std::string>& chips);
    void forgetSearch();
    void showDuplicates(DuplicateScan scan);
    void showSources();
    void selectionChanged();
    void updateSummary();
    void countTotals();
    void addDuplicateGroups();
    void pollChanges();
    void productChanged();
    void duplicateTicked();

    ProductBridge& bridge_;
    QString title_ = "Home";
    QString summary_;
    std::shared_ptr<const Snapshot> snapshot_;
    std::optional<Reading> readingFacts_;
    bool reading_ = false;
    bool readAgain_ = false;
    bool started_ = false;
    std::optional<std::pair<std::int64_t, std::int64_t>> totals_; // files and bytes of the reading
    std::vector<DuplicateGroup> duplicateGroups_;                 // found, and shown a batch at a time
    std::size_t duplicatesAdded_ = 0;

    // What the files view lists: one of these, by precedence search, list, folder, kind.
    std::optional<LibraryKind> kind_;
    std::optional<std::string> folder_;
    std::optional<SmartList> list_;
    QString words_;
    QStringList chipTexts_;
    int listing_ = 0; // the newest listing asked for; older answers are dropped

    std::shared_ptr<ChangeStream> changes_;
    QTimer* changeTimer_;
    QTimer* searchTimer_;
    std::optional<ResultLine> lastResult_;

    Thumbnails* thumbnails_;
    FileListModel* model_;
    QPointer<QLineEdit> searchField_;
    QWidget* cardsHolder_;
    FlowLayout* cards_;
    QWidget* chipsRow_;
    QStackedWidget* views_;
    QButtonGroup* viewButtons_;
    QComboBox* kinds_;
    QStackedWidget* fileViews_;
    QTableView* table_;
    QListView* grid_;
    QLabel* listTitle_;
    QLabel* empty_;
    QTreeWidget* duplicates_;
    QLabel* duplicatesText_;
    QPushButton* findDuplicates_;
    QPushButton* trashCopies_;
    QProgressBar* duplicatesProgress_;
    std::shared_ptr<CancelFlag> duplicatesCancel_;
    QTreeWidget* sources_;
    QPushButton* trash_;
    QWidget* inspector_;
    QLabel* inspectorIcon_;
    QLabel* inspectorName_;
    QLabel* inspectorFacts_;
    QPushButton* open_;
    QPushButton* reveal_;
};

} // namespace vantle::app
