// The update window on Qt's offscreen platform, driven as a user would:
// alerts are found and dismissed by the test, the window is closed mid-run.

#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QApplication>
#include <QLabel>
#include <QMessageBox>
#include <QProgressBar>
#include <QTimer>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "quarvel/CVUserDefaults.h"
#include "quarvel/UpdateWindowController.h"
#include "support/DataFileTargets.h"
#include "support/ScriptedHttpServer.h"
#include "support/SettingsSandbox.h"

// Qt is not built with ThreadSanitizer, so its own lock-free hand-overs
// (thread pool, event queues) show up as races; the run and the window's
// bridge use only standard locks and atomics, which are still checked.
extern "C" const char* __tsan_default_suppressions() {
  return "race:libQt6Core.so\nrace:libQt6Gui.so\nrace:libQt6Widgets.so\n"
         "race:libQt6DBus.so\nrace:libfontconfig.so\nrace:libglib-2.0.so\n";
}

// Fontconfig keeps the patterns Qt's font database asks it for until the
// process ends, in blocks LeakSanitizer cannot trace back to a live pointer
// on some font caches; nothing of ours is suppressed.
extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }

namespace quarvel {
namespace {

using namespace std::chrono_literals;
using testing::kDataFileTargets;

// Looks for a visible alert every few milliseconds on the GUI thread,
// records it as "title|text|informative|icon|buttons" and presses its first
// button.
class AlertDismisser {
 public:
  AlertDismisser() {
    QObject::connect(&timer_, &QTimer::timeout, [this] {
      for (QWidget* widget : QApplication::topLevelWidgets()) {
        auto* box = qobject_cast<QMessageBox*>(widget);
        if (!box || !box->isVisible()) continue;
        QStringList seen{box->windowTitle(), box->text(), box->informativeText(),
                         QString::number(box->icon())};
        for (QAbstractButton* button : box->buttons()) seen << button->text();
        alerts.push_back(seen.join('|').toStdString());
        if (onAlert) onAlert();
        box->buttons().value(0)->click();
      }
    });
    timer_.start(10);
  }
  std::vector<std::string> alerts;
  std::function<void()> onAlert;

 private:
  QTimer timer_;
};

class UpdateWindowTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ::setenv("QT_QPA_PLATFORM", "offscreen", 0);
    static int argc = 1;
    static char name[] = "update_window_test";
    static char* argv[] = {name, nullptr};
    static QApplication app(argc, argv);
  }

  void SetUp() override {
    CVUserDefaults::standardUserDefaults();
    for (const auto& file : kDataFileTargets) server.serve(file.target, "list");
  }

  UpdateOptions options() {
    UpdateOptions o;
    o.listServer = o.fileServer = server.origin();
    o.pacing = 20ms;
    o.dataFileTimeout = 5s;
    o.networkCheck = [] { return true; };
    o.dayOfMonth = [] { return std::string("31"); };
    return o;
  }

  std::unique_ptr<UpdateWindowController> makeWindow(UpdateOptions o) {
    auto window = std::make_unique<UpdateWindowController>(false, std::move(o));
    QObject::connect(window->downloadProgressBar(), &QProgressBar::valueChanged,
                     [this](int value) { progress.push_back(value); });
    return window;
  }

  testing::SettingsSandbox sandbox;
  testing::ScriptedHttpServer server;
  AlertDismisser dismisser;
  std::vector<int> progress;
};

// An alert as the window shows it: a warning with one "확인" button.
std::string warning(const std::string& informative, const std::string& text = "Quarvel") {
  return "Quarvel|" + text + "|" + informative + "|" + std::to_string(QMessageBox::Warning) +
         "|확인";
}

// Each way a run ends that the window itself shows: where the bar stopped,
// the status line, the one alert, whether the day of the update was kept.
// A failed run differs from a done one only in the run (the fault table).
TEST_F(UpdateWindowTest, EachOutcomeShowsItsProgressStatusAndAlert) {
  for (bool network : {false, true}) {
    progress.clear();
    dismisser.alerts.clear();
    UpdateOptions o = options();
    o.networkCheck = [network] { return network; };
    auto window = makeWindow(o);
    bool visibleDuringAlert = false;
    dismisser.onAlert = [&] { visibleDuringAlert = window->isVisible(); };
    EXPECT_EQ(window->showWindow(), network ? UpdateStatusDone : UpdateStatusPending);
    EXPECT_EQ(progress,
              (network ? std::vector<int>{333, 500, 667, 833, 1000} : std::vector<int>{}));
    EXPECT_EQ(window->statusTextField()->text(),
              QString::fromUtf8(network ? "업데이트가 완료되었습니다."
                                        : "인터넷 연결상태를 확인 중입니다."));
    EXPECT_EQ(dismisser.alerts,
              std::vector{network ? warning("업데이트가 완료되었습니다.")
                                  : warning("인터넷 연결 상태를 확인해 주세요.\n※체크리스트를 "
                                            "다운로드 하시려면 인터넷 환경을 확인하세요.",
                                            "인터넷 연결 오류")});
    const auto day = CVUserDefaults::standardUserDefaults()->lastUpdateDate();
    EXPECT_EQ(day == PlistValue::string("31"), network);
    // The run closes the window only after the alert; without a network
    // there is no run and nothing is asked.
    EXPECT_EQ(visibleDuringAlert, network);
    EXPECT_FALSE(window->isVisible());
    EXPECT_EQ(window->bRun(), network);
    EXPECT_EQ(server.targets().empty(), !network);
  }
}

// Closing the window mid-run cancels at once, the transfer under way still
// held; the worker finishes it after the window is gone and asks for nothing
// more. Just before closing, the window is drawn into a PNG:
// $QUARVEL_SCREENSHOT, else update-window.png in the build folder
// (docs/update-window.png is one).
TEST_F(UpdateWindowTest, ClosingDuringTheRunCancelsAndReturnsAtOnce) {
  const char* chosen = std::getenv("QUARVEL_SCREENSHOT");
  const std::string shot = chosen ? chosen : QUARVEL_BINARY_DIR "/update-window.png";
  const char* held = kDataFileTargets[2].target;
  server.hold(held);
  auto window = makeWindow(options());
  bool saved = false;
  std::chrono::steady_clock::time_point closedAt;
  QTimer closer;
  closer.setInterval(10);
  QObject::connect(&closer, &QTimer::timeout, [&] {
    if (server.count(held) == 0 || !window->isVisible()) return;
    closer.stop();
    QApplication::processEvents();
    saved = window->grab().save(QString::fromStdString(shot));
    closedAt = std::chrono::steady_clock::now();
    window->close();
  });
  closer.start();
  EXPECT_EQ(window->showWindow(), UpdateStatusCancelled);
  EXPECT_TRUE(saved);
  // The transfer is still held (for up to its 5-second idle time-out).
  EXPECT_LT(std::chrono::steady_clock::now() - closedAt, 4s);
  EXPECT_FALSE(window->bRun());

  auto run = window->run();
  window.reset();
  server.release();
  ASSERT_TRUE(run->waitUntilFinished(10s));
  EXPECT_EQ(run->updateStatus(), UpdateStatusCancelled);
  EXPECT_EQ(server.count(kDataFileTargets[3].target), 0);
  QApplication::processEvents();
  EXPECT_TRUE(dismisser.alerts.empty());
}

TEST_F(UpdateWindowTest, AlertCodesWithoutTextShowTitleAndButtonOnly) {
  UpdateWindowController window(false, options());
  window.errorAlert("DB_LATEST_VERSION");
  window.errorAlert("SOMETHING_ELSE");
  EXPECT_EQ(dismisser.alerts,
            (std::vector{warning("이미 최신버전을 사용중입니다.\n업데이트 할 항목이 없습니다."),
                         warning("")}));
}

}  // namespace
}  // namespace quarvel
