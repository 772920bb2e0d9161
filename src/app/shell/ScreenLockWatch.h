// Listens for the desktop's screen lock (org.freedesktop.ScreenSaver ActiveChanged on the session
// bus) and reports each change. Without a session bus it stays silent. A UI-thread object.
#pragma once
#include <QObject>

namespace vantle::app {

class ScreenLockWatch : public QObject {
    Q_OBJECT
  public:
    explicit ScreenLockWatch(QObject* parent = nullptr);
    bool listening() const { return listening_; }

  Q_SIGNALS:
    void lockChanged(bool locked);

  public Q_SLOTS:
    void activeChanged(bool active) { Q_EMIT lockChanged(active); }

  private:
    bool listening_ = false;
};

} // namespace vantle::app
