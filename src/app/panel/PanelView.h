// The menu bar panel: a small frameless window with the search by file name, the recent downloads
// (or the files found), what is busy with each process's sentence and its Quit question asked in the
// panel itself, the machine's reading line and "Open Vantle Lite". It reads the machine only while
// open, keeps the product's `panelOpen` in step, and closes on Escape and when it loses focus. A
// widget of the UI thread; product work runs through the bridge.
#pragma once
#include "VantleSpec/ActivityRecords.h"
#include "VantleSpec/LibraryRecords.h"

#include <QWidget>

#include <memory>
#include <vector>

class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;
class QTimer;
class QVBoxLayout;
class QFrame;

namespace vantle {
class CancelFlag;
}

namespace vantle::app {

class ProductBridge;

class PanelView : public QWidget {
    Q_OBJECT
  public:
    explicit PanelView(ProductBridge& bridge, QWidget* parent = nullptr);
    ~PanelView() override;

    // Shows the panel at `corner` (its top-right point), or near the screen's top-right without one.
    void open(std::optional<QPoint> corner = std::nullopt);

    // What tests and the tour look at and do.
    QLineEdit* searchField() const { return search_; }
    QListWidget* fileList() const { return files_; }
    QString filesTitle() const;
    QString filesNote() const;
    QString readingText() const;
    const std::vector<FileItem>& filesShown() const { return shownFiles_; }
    const std::vector<ProcessRow>& busyShown() const { return busy_; }
    // Asks to quit the busy process in row `index`; the question is asked in the panel.
    void askToQuit(int index);
    bool asking() const { return asking_; }
    QFrame* questionFrame() const { return question_; }
    void answer(bool yes);
    // Acts on the selected file as Return does, with the key's modifiers.
    void actOnSelection(Qt::KeyboardModifiers modifiers);
    // Readings and searches handed out and not yet applied.
    bool busy() const { return outstanding_ > 0; }

  Q_SIGNALS:
    void openWindow();
    void showInVantle(QString path);
    void showActivity();

  protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    bool event(QEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    void searchChanged(const QString& text);
    void showFiles(const std::vector<FileItem>& files);
    void readDownloads();
    void readMachine();
    void showBusy(const ActivitySample& sample);
    void productChanged();
    void updateHint();
    void say(const QString& text);
    void fitContent();

    ProductBridge& bridge_;
    QLineEdit* search_;
    QLabel* filesTitle_;
    QListWidget* files_;
    QLabel* filesNote_;
    QLabel* hint_;
    QWidget* busyBox_;
    QVBoxLayout* busyRows_;
    QLabel* busyNote_;
    QFrame* question_;
    QLabel* questionTitle_;
    QLabel* questionText_;
    QPushButton* questionYes_;
    QLabel* reading_;
    QLabel* said_;
    QTimer* readings_;

    std::vector<FileItem> downloads_;
    bool downloadsRead_ = false;
    std::vector<FileItem> shownFiles_;
    std::vector<ProcessRow> busy_;
    std::shared_ptr<CancelFlag> searching_;
    int searchGeneration_ = 0;
    int outstanding_ = 0;
    bool reading_machine_ = false;
    bool asking_ = false;
    bool awaitingResult_ = false;
};

} // namespace vantle::app
