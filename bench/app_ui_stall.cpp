// bench_app_ui_stall --home DIR: opens the desktop app offscreen on a sandbox home (a copy made by
// tools/make-demo-home, e.g. --files 300000), then has it catalogue the home, list it, scan its storage
// and find its duplicates, while a 1 ms timer on the UI thread records the longest gap between its ticks:
// the longest the window would have been unable to answer. Prints that stall, the median gap and how
// long the work took. Changes nothing in the home: the data folder is a temporary one.
#include "BenchHome.h"

#include "app/bridge/ProductBridge.h"
#include "app/pages/home/FileListModel.h"
#include "app/pages/home/HomePage.h"
#include "app/pages/storage/StoragePage.h"
#include "app/shell/MainWindow.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QTest>
#include <QTimer>
#include <QTreeWidget>

#include <algorithm>
#include <cstdio>
#include <unistd.h>
#include <vector>

using namespace vantle;
using namespace vantle::app;

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    std::vector<char*> rest;
    auto home = bench::takeHome(argc, argv, rest, "bench_app_ui_stall --home DIR");
    if (!home) return 2;
    int qtArgc = 1;
    QApplication app(qtArgc, argv);

    QElapsedTimer clock;
    std::vector<qint64> gaps;
    std::vector<std::pair<qint64, qint64>> stalls; // (gap, when it ended), for the longest few
    qint64 last = -1;
    bool measuring = false;
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    tick.setInterval(1);
    QObject::connect(&tick, &QTimer::timeout, [&] {
        auto now = clock.nsecsElapsed();
        if (measuring && last >= 0) {
            gaps.push_back(now - last);
            if (now - last > 50'000'000) stalls.emplace_back(now - last, now);
        }
        last = now;
    });

    // The data folder goes to a folder of its own, so a shared benchmark home keeps no catalog index or
    // report from this run.
    auto support = std::filesystem::temp_directory_path() / ("vantle-stall-" + std::to_string(::getpid()));
    VantleLite::Options options;
    options.support = support;
    options.offline = true;
    MainWindow window(LiteLaunch::parse({"vantle-lite", "-sandbox", home->string()}), options);
    window.show();
    clock.start();
    tick.start();
    measuring = true;
    auto wait = [](const std::function<bool()>& done) { return QTest::qWaitFor(done, 600'000); };
    if (!wait([&] { return window.phase() != MainWindow::Phase::starting; })) return 1;
    window.leaveWelcome();
    auto* homePage = window.homePage();
    wait([&] { return !homePage->reading() && homePage->files()->rowCount() > 0; });
    auto catalogued = clock.elapsed();
    window.showPage("storage");
    window.storagePage()->scan();
    wait([&] { return window.storagePage()->state() == StoragePage::State::report; });
    auto scanned = clock.elapsed();
    window.showPage("home");
    homePage->showView(HomePage::View::duplicates);
    homePage->findDuplicates();
    wait([&] {
        return homePage->duplicatesTree()->topLevelItemCount() > 0 || window.bridge()->pending() == 0;
    });
    wait([&] { return window.bridge()->pending() == 0; });
    measuring = false;
    auto done = clock.elapsed();

    std::error_code ignored;
    std::filesystem::remove_all(support, ignored);
    std::sort(gaps.begin(), gaps.end());
    auto ms = [](qint64 ns) { return double(ns) / 1e6; };
    std::printf("files listed: %d\n", homePage->files()->rowCount());
    std::printf("catalogued and listed after %.1f s, storage scanned after %.1f s, duplicates after %.1f s\n",
                catalogued / 1000.0, scanned / 1000.0, done / 1000.0);
    if (gaps.empty()) return 1;
    std::sort(stalls.rbegin(), stalls.rend());
    for (std::size_t i = 0; i < stalls.size() && i < 5; ++i)
        std::printf("  stall of %.1f ms ending at %.2f s\n", ms(stalls[i].first), stalls[i].second / 1e9);
    std::printf(
        "UI thread: longest stall %.1f ms, median tick gap %.2f ms, 99th percentile %.1f ms (%zu ticks)\n",
        ms(gaps.back()), ms(gaps[gaps.size() / 2]), ms(gaps[gaps.size() * 99 / 100]), gaps.size());
    return 0;
}
