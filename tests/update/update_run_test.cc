// The download run against a scripted loopback server: order, retries,
// failure, cancellation, the in-house variant and the single-file operations.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <vector>

#include "common/Log.h"
#include "quarvel/CVUserDefaults.h"
#include "quarvel/UpdateRun.h"
#include "support/DataFileTargets.h"
#include "support/FileText.h"
#include "support/RecordingUpdateView.h"
#include "support/ScriptedHttpServer.h"
#include "support/SettingsSandbox.h"

namespace quarvel {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using testing::kDataFileTargets;
using testing::readFile;
using testing::RecordingView;

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

class UpdateRunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    settings = CVUserDefaults::standardUserDefaults();
    library = *settings->libraryPath();
    for (const testing::DataFileTarget& file : kDataFileTargets) {
      server.serve(file.target, std::string("new ") + file.name);
      writeFile(path(file.name), std::string("old ") + file.name);
    }
  }

  UpdateOptions options() {
    UpdateOptions o;
    o.listServer = server.origin();
    o.fileServer = server.origin();
    o.windowsPackageServer = server.origin() + "/file/keyfile60";
    o.dataFileTimeout = 5s;
    o.windowsFileTimeout = 300ms;
    o.pacing = 5ms;
    o.networkCheck = [] { return true; };
    o.dayOfMonth = [] { return std::string("07"); };
    return o;
  }
  std::shared_ptr<UpdateRun> makeRun() { return UpdateRun::create(view, options()); }
  std::string path(const std::string& name) const { return library + "/" + name; }

  std::int64_t runToEnd(const std::shared_ptr<UpdateRun>& run) {
    run->start();
    EXPECT_TRUE(run->waitUntilFinished(30s));
    return run->updateStatus();
  }

  testing::SettingsSandbox sandbox;
  testing::ScriptedHttpServer server;
  std::shared_ptr<RecordingView> view = std::make_shared<RecordingView>();
  CVUserDefaults* settings = nullptr;
  std::string library;
};

TEST_F(UpdateRunTest, SuccessfulRunReplacesTheFiveFilesInOrderAndRecordsTheDay) {
  LogCapture log;
  auto run = makeRun();
  EXPECT_EQ(run->updateStatus(), UpdateStatusPending);
  EXPECT_EQ(runToEnd(run), UpdateStatusDone);

  std::vector<std::string> expectedTargets;
  for (const testing::DataFileTarget& file : kDataFileTargets) {
    expectedTargets.push_back(file.target);
    EXPECT_EQ(readFile(path(file.name)), std::string("new ") + file.name);
  }
  EXPECT_EQ(server.targets(), expectedTargets);  // the version file is not fetched
  EXPECT_EQ(view->progress(), (std::vector<double>{2 / 6.0, 3 / 6.0, 4 / 6.0, 5 / 6.0, 1.0, 1.0}));
  EXPECT_EQ(view->statuses(), (std::vector<std::string>{
                                  "체크리스트 DB를 업데이트 중입니다.",
                                  "패키지 DB를 업데이트 중입니다.",
                                  "필터 DB를 업데이트 중입니다.",
                                  "유저 체크 리스트 DB를 업데이트 중입니다.",
                                  "폰트리스트 DB를 업데이트 중입니다.",
                                  "업데이트가 완료되었습니다.",
                              }));
  EXPECT_EQ(view->alerts(), std::vector<std::string>{"DOWNLOAD_DONE"});
  EXPECT_EQ(view->closes(), 1);
  ASSERT_TRUE(settings->lastUpdateDate());
  EXPECT_EQ(*settings->lastUpdateDate(), PlistValue::string("07"));

  const std::string origin = server.origin();
  for (const std::string line :
       {"체크리스트 : ", "패키지 : ", "필터 : ", "유저 체크리스트 : ", "폰트리스트 : "}) {
    SCOPED_TRACE(line);
    EXPECT_TRUE(log.contains(line + origin + "/quarvel/download/list/"));
  }
  // Each file was replaced by a rename: no temporary file is left behind.
  int entries = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator(library)) ++entries;
  EXPECT_EQ(entries, 5);
}

TEST_F(UpdateRunTest, AFileMaySucceedOnItsFifthAttempt) {
  server.failTimes(kDataFileTargets[2].target, 4);
  auto run = makeRun();
  EXPECT_EQ(runToEnd(run), UpdateStatusDone);
  EXPECT_EQ(server.count(kDataFileTargets[2].target), 5);
  EXPECT_EQ(readFile(path(kDataFileTargets[2].name)), "new macfilterlist.dat");
  EXPECT_EQ(view->alerts(), std::vector<std::string>{"DOWNLOAD_DONE"});
}

TEST_F(UpdateRunTest, AFileFailingFiveTimesEndsTheRun) {
  server.failTimes(kDataFileTargets[2].target, 5);
  auto run = makeRun();
  EXPECT_EQ(runToEnd(run), UpdateStatusFailed);
  EXPECT_EQ(server.count(kDataFileTargets[2].target), 5);
  // The files before the failing one stay replaced; it and the ones after
  // it keep their old content, and the later ones are not asked for.
  EXPECT_EQ(readFile(path(kDataFileTargets[0].name)), "new macchecklist.dat");
  EXPECT_EQ(readFile(path(kDataFileTargets[1].name)), "new macpcklist.dat");
  for (int i = 2; i < 5; ++i) {
    EXPECT_EQ(readFile(path(kDataFileTargets[i].name)),
              std::string("old ") + kDataFileTargets[i].name);
  }
  EXPECT_EQ(server.count(kDataFileTargets[3].target), 0);
  EXPECT_EQ(server.count(kDataFileTargets[4].target), 0);
  EXPECT_EQ(view->alerts(), std::vector<std::string>{"DOWNLOAD_FAIL"});
  EXPECT_EQ(view->closes(), 1);
  EXPECT_EQ(view->progress(), (std::vector<double>{2 / 6.0, 3 / 6.0}));
  EXPECT_EQ(view->statuses().back(), "필터 DB를 업데이트 중입니다.");
  EXPECT_FALSE(settings->lastUpdateDate());
}

TEST_F(UpdateRunTest, CancellingDuringATransferStopsAfterIt) {
  server.hold(kDataFileTargets[1].target);
  auto run = makeRun();
  EXPECT_FALSE(run->cancel());  // nothing to cancel yet
  run->start();
  ASSERT_TRUE(server.waitForRequest(kDataFileTargets[1].target, 10s));
  EXPECT_TRUE(run->cancel());
  EXPECT_EQ(run->updateStatus(), UpdateStatusCancelled);
  EXPECT_FALSE(run->bRun());
  EXPECT_FALSE(run->cancel());  // only once

  server.release();
  ASSERT_TRUE(run->waitUntilFinished(10s));
  EXPECT_EQ(run->updateStatus(), UpdateStatusCancelled);
  // The transfer under way still lands; nothing after it is fetched.
  EXPECT_EQ(readFile(path(kDataFileTargets[1].name)), "new macpcklist.dat");
  EXPECT_EQ(server.count(kDataFileTargets[2].target), 0);
  EXPECT_EQ(view->progress().back(), 3 / 6.0);
  EXPECT_TRUE(view->alerts().empty());
  EXPECT_EQ(view->closes(), 0);
  EXPECT_FALSE(settings->lastUpdateDate());
}

TEST_F(UpdateRunTest, InHouseVariantAsksTheConfiguredAddressAsItStands) {
  const std::string query = "/cmmn/download.nis?type=keyfile&filename=";
  for (const testing::DataFileTarget& file : kDataFileTargets)
    server.serve(query + file.name, std::string("web ") + file.name);
  settings->setWebQuarvelIPAddress(
      PlistValue::string("127.0.0.1:" + std::to_string(server.port())));

  LogCapture log;
  auto run = makeRun();
  run->setIsWebQuarvel(true);
  EXPECT_EQ(runToEnd(run), UpdateStatusDone);
  for (const testing::DataFileTarget& file : kDataFileTargets) {
    SCOPED_TRACE(file.name);
    EXPECT_EQ(server.count(query + file.name), 1);
    EXPECT_EQ(readFile(path(file.name)), std::string("web ") + file.name);
  }
  // Only the check list is logged in this variant.
  EXPECT_TRUE(log.contains("WebQuarvel : " + server.origin() + query + "macchecklist.dat"));
  EXPECT_FALSE(log.contains("패키지 : "));
  EXPECT_FALSE(log.contains("WebQuarvel : " + server.origin() + query + "macpcklist.dat"));
}

TEST_F(UpdateRunTest, InHouseVariantWithoutAnAddressFailsEveryAttempt) {
  settings->setWebQuarvelIPAddress(PlistValue::string(""));
  LogCapture log;
  auto run = makeRun();
  run->setIsWebQuarvel(true);
  EXPECT_EQ(runToEnd(run), UpdateStatusFailed);
  EXPECT_TRUE(log.contains(
      "WebQuarvel : http:///cmmn/download.nis?type=keyfile&filename=macchecklist.dat"));
  EXPECT_TRUE(server.targets().empty());
  EXPECT_EQ(readFile(path("macchecklist.dat")), "old macchecklist.dat");
}

TEST_F(UpdateRunTest, VersionFileAndOutOfRangeIndexesGoToTheFileServer) {
  const std::string query = "/cmmn/download.nis?type=file&filename=";
  server.serve(query + "ver.dat", "version 42");
  struct Case {
    std::int64_t index;
    const char* status;
    const char* target;
    double progress;
  };
  for (bool web : {false, true}) {
    for (Case c : {Case{0, "버전 체크 중입니다.", "ver.dat", 1 / 6.0}, Case{6, "", "", 7 / 6.0},
                   Case{-1, "", "", 0.0}}) {
      SCOPED_TRACE(::testing::Message() << "index " << c.index << " web " << web);
      auto caseView = std::make_shared<RecordingView>();
      auto run = UpdateRun::create(caseView, options());
      run->setIsWebQuarvel(web);
      // An empty file name still gets an answer (a 404 page), which counts
      // as a received file; there is nowhere to write it.
      EXPECT_FALSE(run->downloadKeyFile(c.index));
      EXPECT_EQ(server.targets().back(), query + c.target);
      EXPECT_EQ(caseView->statuses(), std::vector<std::string>{c.status});
      EXPECT_EQ(caseView->progress(), std::vector<double>{c.progress});
    }
  }
  EXPECT_EQ(readFile(*settings->verFilePath()), "version 42");
  int entries = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator(library)) ++entries;
  EXPECT_EQ(entries, 6);  // the five old files and ver.dat
}

TEST_F(UpdateRunTest, AnHttpErrorPageIsWrittenLikeAFile) {
  auto run = makeRun();
  run->setIsWebQuarvel(true);
  settings->setWebQuarvelIPAddress(
      PlistValue::string("127.0.0.1:" + std::to_string(server.port())));
  EXPECT_FALSE(run->downloadKeyFile(2));
  EXPECT_EQ(readFile(path("macpcklist.dat")), "Not Found");
}

TEST_F(UpdateRunTest, AFailedWriteGoesUnnoticed) {
  fs::remove_all(library);
  auto run = makeRun();
  EXPECT_EQ(runToEnd(run), UpdateStatusDone);
  EXPECT_FALSE(fs::exists(library));
  EXPECT_EQ(view->alerts(), std::vector<std::string>{"DOWNLOAD_DONE"});
}

TEST_F(UpdateRunTest, WindowsPackageFileComesFromItsOwnServerWithAShortTimeout) {
  server.serve("/file/keyfile60/package.dat", "windows packages");
  auto run = makeRun();
  EXPECT_FALSE(run->downloadWindowsKeyFiles());
  EXPECT_EQ(readFile(*settings->windowPackageFilePath()), "windows packages");
  EXPECT_EQ(view->statuses(),
            std::vector<std::string>{"윈도우즈용 패키지 파일을 다운로드중입니다."});
  EXPECT_TRUE(view->progress().empty());

  writeFile(*settings->windowPackageFilePath(), "old packages");
  server.hold("/file/keyfile60/package.dat");
  auto started = std::chrono::steady_clock::now();
  auto error = run->downloadWindowsKeyFiles();
  ASSERT_TRUE(error);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
  EXPECT_EQ(server.count("/file/keyfile60/package.dat"), 2);  // one attempt only
  EXPECT_EQ(readFile(*settings->windowPackageFilePath()), "old packages");
  server.release();
}

}  // namespace
}  // namespace quarvel
