// A page of the shell: its title and one-line summary for the header, an optional tool for the
// header's right end (the Home page's search field), and whether it is on screen. A widget of the
// UI thread.
#pragma once
#include <QWidget>

namespace vantle::app {

class Page : public QWidget {
    Q_OBJECT
  public:
    using QWidget::QWidget;
    virtual QString title() const = 0;
    virtual QString summary() const = 0;
    virtual QWidget* headerTool() { return nullptr; }
    // Told when the page comes on screen, so it can start what it shows (a first reading).
    virtual void shown() {}

  Q_SIGNALS:
    void summaryChanged();
    // Asks the shell for another page by its name ("storage"), or for "cleanUp".
    void openPage(const QString& name);
};

// A page that says in one sentence where its content is for now, and what to do meanwhile.
class NoticePage : public Page {
    Q_OBJECT
  public:
    NoticePage(QString title, QString summary, QString icon, QString sentence, QWidget* parent = nullptr);
    QString title() const override { return title_; }
    QString summary() const override { return summary_; }

  private:
    QString title_;
    QString summary_;
};

} // namespace vantle::app
