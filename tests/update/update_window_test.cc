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
#include <vector>

#include "quarvel/CVUserDefaults.h"
#include "quarvel/UpdateWindowController.h"
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

const char* kTargets[] = {"/quarvel/download/list/check/mac/",
                          "/quarvel/download/list/package/mac/",
                          "/quarvel/download/list/filter/mac/", "/quarvel/download/list/user/mac/",
                          "/quarvel/download/list/font/mac/"};

struct SeenAlert {
  QString title, text, informative;
  QMessageBox::Icon icon;
  QStringList buttons;
};

// Looks for a visible alert every few milliseconds on the GUI thread,
// records it and presses its first button.
class AlertDismisser {
 public:
  AlertDismisser() {
    timer_.setInterval(10);
    QObject::connect(&timer_, &QTimer::timeout, [this] {
      for (QWidget* widget : QApplication::topLevelWidgets()) {
        auto* box = qobject_cast<QMessageBox*>(widget);
        if (!box || !box->isVisible()) continue;
        SeenAlert seen{box->windowTitle(), box->text(), box->informativeText(), box->icon(), {}};
        for (QAbstractButton* button : box->buttons()) seen.buttons << button->text();
        alerts.push_back(seen);
        if (onAlert) onAlert();
        box->buttons().value(0)->click();
      }
    });
    timer_.start();
  }
  std::vector<SeenAlert> alerts;
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
    for (const char* target : kTargets) server.serve(target, "list");
  }

  UpdateOptions options() {
    UpdateOptions o;
    o.listServer = server.origin();
    o.fileServer = server.origin();
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
  std::vector<int> progress;  // per mille
};

void expectOutcomeAlert(const SeenAlert& alert, const char* informative) {
  EXPECT_EQ(alert.title, "Quarvel");
  EXPECT_EQ(alert.text, "Quarvel");
  EXPECT_EQ(alert.informative, QString::fromUtf8(informative));
  EXPECT_EQ(alert.icon, QMessageBox::Warning);
  EXPECT_EQ(alert.buttons, QStringList{QString::fromUtf8("확인")});
}

TEST_F(UpdateWindowTest, SuccessfulRunShowsProgressAlertsAndRecordsTheDay) {
  auto window = makeWindow(options());
  bool visibleDuringAlert = false;
  dismisser.onAlert = [&] { visibleDuringAlert = window->isVisible(); };
  EXPECT_EQ(window->showWindow(), UpdateStatusDone);

  EXPECT_EQ(progress, (std::vector<int>{333, 500, 667, 833, 1000}));
  EXPECT_EQ(window->statusTextField()->text(), QString::fromUtf8("업데이트가 완료되었습니다."));
  ASSERT_EQ(dismisser.alerts.size(), 1u);
  expectOutcomeAlert(dismisser.alerts[0], "업데이트가 완료되었습니다.");
  EXPECT_TRUE(visibleDuringAlert);  // the run closes the window only afterwards
  EXPECT_FALSE(window->isVisible());
  EXPECT_EQ(*CVUserDefaults::standardUserDefaults()->lastUpdateDate(), PlistValue::string("31"));
}

// The window's side of a failed run (the run's retries are the fault
// table's): the bar stops where the run did, the alert says it failed.
TEST_F(UpdateWindowTest, AFailedRunShowsWhereItStoppedAndTheFailureAlert) {
  server.failTimes(kTargets[2], 5);
  auto window = makeWindow(options());
  EXPECT_EQ(window->showWindow(), UpdateStatusFailed);
  EXPECT_EQ(progress, (std::vector<int>{333, 500}));
  EXPECT_EQ(window->statusTextField()->text(), QString::fromUtf8("필터 DB를 업데이트 중입니다."));
  ASSERT_EQ(dismisser.alerts.size(), 1u);
  expectOutcomeAlert(dismisser.alerts[0], "DB 업데이트 도중 오류가 발생하였습니다.");
}

TEST_F(UpdateWindowTest, ClosingDuringTheRunCancelsAndReturnsAtOnce) {
  server.hold(kTargets[1]);
  auto window = makeWindow(options());
  std::chrono::steady_clock::time_point closedAt;
  QTimer closer;
  closer.setInterval(10);
  QObject::connect(&closer, &QTimer::timeout, [&] {
    if (server.count(kTargets[1]) == 0 || !window->isVisible()) return;
    closer.stop();
    closedAt = std::chrono::steady_clock::now();
    window->close();
  });
  closer.start();
  EXPECT_EQ(window->showWindow(), UpdateStatusCancelled);
  // The transfer is still held (for up to its 5-second idle time-out).
  EXPECT_LT(std::chrono::steady_clock::now() - closedAt, 4s);
  EXPECT_FALSE(window->bRun());

  // The worker finishes its transfer after the window is gone and stops.
  auto run = window->run();
  window.reset();
  server.release();
  ASSERT_TRUE(run->waitUntilFinished(10s));
  EXPECT_EQ(run->updateStatus(), UpdateStatusCancelled);
  EXPECT_EQ(server.count(kTargets[2]), 0);
  QApplication::processEvents();
  EXPECT_TRUE(dismisser.alerts.empty());
}

TEST_F(UpdateWindowTest, WithoutNetworkAlertsAndReturnsPending) {
  UpdateOptions o = options();
  o.networkCheck = [] { return false; };
  auto window = makeWindow(o);
  EXPECT_EQ(window->showWindow(), UpdateStatusPending);
  ASSERT_EQ(dismisser.alerts.size(), 1u);
  EXPECT_EQ(dismisser.alerts[0].text, QString::fromUtf8("인터넷 연결 오류"));
  EXPECT_EQ(dismisser.alerts[0].informative,
            QString::fromUtf8("인터넷 연결 상태를 확인해 주세요.\n※체크리스트를 다운로드 하시려면 "
                              "인터넷 환경을 확인하세요."));
  EXPECT_EQ(dismisser.alerts[0].icon, QMessageBox::Warning);
  EXPECT_EQ(dismisser.alerts[0].buttons, QStringList{QString::fromUtf8("확인")});
  EXPECT_EQ(window->statusTextField()->text(),
            QString::fromUtf8("인터넷 연결상태를 확인 중입니다."));
  EXPECT_FALSE(window->bRun());
  EXPECT_TRUE(server.targets().empty());
  EXPECT_FALSE(CVUserDefaults::standardUserDefaults()->lastUpdateDate());
}

TEST_F(UpdateWindowTest, AlertCodesWithoutTextShowTitleAndButtonOnly) {
  UpdateWindowController window(false, options());
  window.errorAlert("DB_LATEST_VERSION");
  window.errorAlert("SOMETHING_ELSE");
  ASSERT_EQ(dismisser.alerts.size(), 2u);
  expectOutcomeAlert(dismisser.alerts[0],
                     "이미 최신버전을 사용중입니다.\n업데이트 할 항목이 없습니다.");
  expectOutcomeAlert(dismisser.alerts[1], "");
}

// Draws the window during a run into a PNG: $QUARVEL_SCREENSHOT, else
// update-window.png in the build folder (docs/update-window.png is one).
TEST_F(UpdateWindowTest, Screenshot) {
  const char* chosen = std::getenv("QUARVEL_SCREENSHOT");
  const std::string target = chosen ? chosen : QUARVEL_BINARY_DIR "/update-window.png";
  server.hold(kTargets[2]);
  auto window = makeWindow(options());
  bool saved = false;
  QTimer shooter;
  shooter.setInterval(10);
  QObject::connect(&shooter, &QTimer::timeout, [&] {
    if (server.count(kTargets[2]) == 0 || !window->isVisible()) return;
    shooter.stop();
    QApplication::processEvents();
    saved = window->grab().save(QString::fromStdString(target));
    window->close();
  });
  shooter.start();
  window->showWindow();
  EXPECT_TRUE(saved);
  auto run = window->run();
  window.reset();
  server.release();
  run->waitUntilFinished(10s);
}

}  // namespace
}  // namespace quarvel
