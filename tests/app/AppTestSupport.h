// What the desktop app's offscreen tests share: a window over a sandbox home made by the test, waiting
// for it to settle, and reading a named label. Test-only; the UI thread only.
#pragma once
#include "app/bridge/ProductBridge.h"
#include "app/shell/MainWindow.h"

#include "support/TempDir.h"

#include <QLabel>
#include <QTest>

#include <gtest/gtest.h>
#include <memory>
#include <ostream>

// Failures name the text, not its UTF-16 units.
inline void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}

namespace vantle::testing {

// Long enough for a loaded machine running the sanitizer build; a passing test never waits it out.
inline constexpr int appWaitMs = 20000;

inline VantleLite::Options sandboxSeams(const TempDir& dir) {
    dir.mkdir("home");
    VantleLite::Options options;
    options.sandboxRule = SandboxRule{{dir / "home"}};
    options.offline = true;
    return options;
}

inline LiteLaunch sandboxLaunch(const TempDir& dir) {
    return LiteLaunch::parse({"vantle-lite", "-sandbox", (dir / "box").string()});
}

// A window over `box` that has left the welcome and shows the shell.
inline std::unique_ptr<app::MainWindow> shellOver(const TempDir& dir) {
    auto window = std::make_unique<app::MainWindow>(sandboxLaunch(dir), sandboxSeams(dir));
    window->show();
    window->activateWindow();
    EXPECT_TRUE(QTest::qWaitForWindowActive(window.get()));
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return window->phase() != app::MainWindow::Phase::starting; }, appWaitMs));
    if (window->phase() == app::MainWindow::Phase::welcome) window->leaveWelcome();
    EXPECT_EQ(window->phase(), app::MainWindow::Phase::shell);
    return window;
}

// Every piece of product work the window started has come back to the UI thread.
inline bool settle(app::MainWindow& window) {
    return QTest::qWaitFor([&] { return window.bridge() && window.bridge()->pending() == 0; }, appWaitMs);
}

inline QString labelText(QWidget& root, const char* name) {
    auto* label = root.findChild<QLabel*>(name);
    return label ? label->text() : QString("(no label %1)").arg(name);
}

} // namespace vantle::testing
