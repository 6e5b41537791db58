// The download run: every row of the fault table in-process, the rows only
// a real transfer can show against a loopback server, and what lies outside
// the table (what an earlier run left, a read-only folder, the variants and
// single-file operations).

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

#include "common/Log.h"
#include "update/UpdateFaultTable.h"

namespace quarvel::testing {
namespace {

namespace fs = std::filesystem;

using FaultCase = std::pair<FaultRow, Transport>;
std::vector<FaultCase> everyCase() {
  std::vector<FaultCase> cases;
  for (const FaultRow& row : kFaultRows) {
    if (row.where != Where::kLoopback) cases.emplace_back(row, Transport::kInProcess);
    if (row.where != Where::kInProcess) cases.emplace_back(row, Transport::kLoopback);
  }
  return cases;
}
class UpdateFaults : public ::testing::TestWithParam<FaultCase> {};
TEST_P(UpdateFaults, EndsAsTheRowSays) {
  EXPECT_EQ(runFaultRow(GetParam().first, GetParam().second).problems, "");
}
INSTANTIATE_TEST_SUITE_P(Rows, UpdateFaults, ::testing::ValuesIn(everyCase()),
                         [](const ::testing::TestParamInfo<FaultCase>& info) {
                           const bool wire = info.param.second == Transport::kLoopback;
                           return std::string(info.param.first.name) + (wire ? "OnLoopback" : "");
                         });

// A scene answering in-process, for the tests that drive the run themselves.
class UpdateScene : public ::testing::Test {
 protected:
  std::shared_ptr<UpdateRun> makeRun() { return UpdateRun::create(view, scene.options); }
  std::int64_t runToEnd(const std::shared_ptr<UpdateRun>& run) {
    run->start();
    EXPECT_TRUE(run->waitUntilFinished(30s));
    return run->updateStatus();
  }

  SettingsSandbox sandbox;
  FaultScene scene;
  std::shared_ptr<FaultNetwork> network = std::make_shared<FaultNetwork>(scene, Platform::system());
  ScopedPlatform platform{network};
  std::shared_ptr<RecordingView> view = std::make_shared<RecordingView>();
};

// Temporaries that a killed run of an earlier version left (".NAME.XXXXXX",
// mode 0644, quiet for a while) go with the next run; look-alikes stay.
TEST_F(UpdateScene, TheNextRunRemovesWhatAKilledEarlierRunLeft) {
  const std::string check = ".macchecklist.dat.";
  // (name, mode or 0 for a folder, untouched for an hour, removed)
  const std::tuple<std::string, mode_t, bool, bool> cases[] = {
      {check + "A1b2C3", 0644, true, true},
      {".fontchecklist.dat.Zq9xW0", 0644, true, true},  // the user list's prefix is as long
      {check + "backup", 0644, true, false},            // a word, not mkstemp's
      {check + "A1b2C", 0644, true, false},             // five characters
      {check + "A1-2C3", 0644, true, false},            // not a letter or digit
      {check + "A1b2C4", 0600, true, false},            // a mode the run never set
      {check + "A1b2C5", 0644, false, false},           // an old run may still be on it
      {check + "A1b2C7", 0, true, false},
  };
  for (const auto& [name, mode, old, removed] : cases) {
    const std::string where = scene.library + "/" + name;
    mode ? void(writeBytes(where, "left")) : void(fs::create_directory(where));
    ASSERT_EQ(::chmod(where.c_str(), mode ? mode : 0755), 0) << name;
    if (old) fs::last_write_time(where, fs::file_time_type::clock::now() - std::chrono::hours(1));
  }
  EXPECT_EQ(runToEnd(makeRun()), UpdateStatusDone);
  for (const auto& [name, mode, old, removed] : cases)
    EXPECT_EQ(fs::exists(scene.library + "/" + name), !removed) << name;
}

// The public variant logs each list with its address, and the version file
// and any index outside the lists go to the file server, the empty name of
// the latter written nowhere. (The in-house variant and the Windows package
// file arrive whole in the nginx test.)
TEST_F(UpdateScene, EachFileGoesToItsServerWithItsStatus) {
  LogCapture log;
  EXPECT_EQ(runToEnd(makeRun()), UpdateStatusDone);
  for (const std::string line :
       {"체크리스트 : ", "패키지 : ", "필터 : ", "유저 체크리스트 : ", "폰트리스트 : "})
    EXPECT_TRUE(log.contains(line + "http://lists.test/quarvel/download/list/")) << line;

  const std::string query = "/cmmn/download.nis?type=file&filename=";
  scene.script(query + "ver.dat", HttpReply::text("version 42"), 1);
  const std::tuple<std::int64_t, const char*, const char*, double> cases[] = {
      {0, "버전 체크 중입니다.", "ver.dat", 1 / 6.0}, {6, "", "", 7 / 6.0}, {-1, "", "", 0.0}};
  for (const auto& [index, status, target, progress] : cases) {
    view = std::make_shared<RecordingView>();
    EXPECT_FALSE(makeRun()->downloadKeyFile(index));  // a 404 page is a received file
    EXPECT_EQ(scene.targets().back(), query + target) << index;
    EXPECT_EQ(view->statuses(), std::vector<std::string>{status});
    EXPECT_EQ(view->progress(), std::vector<double>{progress});
  }
  EXPECT_EQ(readFile(*scene.settings->verFilePath()), "version 42");
  EXPECT_EQ(std::distance(fs::directory_iterator(scene.library), {}), 6);  // the lists, ver.dat

  // The Windows package file has its own short time-out; a stalled transfer fails it.
  scene.script("/file/keyfile60/package.dat", HttpReply::stallAfter("new packages", 4), 1);
  EXPECT_TRUE(makeRun()->downloadWindowsKeyFiles());
  EXPECT_EQ(network->idleTimeout.load(), 300ms);
}

TEST_F(UpdateScene, AFolderThatCannotBeWrittenGoesUnnoticed) {
  fs::remove_all(scene.library);
  EXPECT_EQ(runToEnd(makeRun()), UpdateStatusDone);
  EXPECT_FALSE(fs::exists(scene.library));
  EXPECT_EQ(view->alerts(), std::vector<std::string>{"DOWNLOAD_DONE"});
}

// Drops every capability, those that let root write past file permissions
// among them, for the calling thread and the threads it starts later. A raw
// system call: glibc's wrapper would change every thread of the process.
bool dropPermissionOverrides() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct none[2] = {};
  return ::syscall(SYS_capset, &header, none) == 0;
}

// A read-only folder, the kernel's own permission check, on a thread
// without root's override that the run's worker inherits. The writable
// files are written in place, the read-only ones keep their old content,
// and the run, which does not notice failed writes, ends as a success.
TEST_F(UpdateScene, AReadOnlyLibraryFolderWritesOnlyTheWritableFiles) {
  for (int file : {1, 3}) ASSERT_EQ(::chmod(scene.path(file).c_str(), 0444), 0);
  ASSERT_EQ(::chmod(scene.library.c_str(), 0555), 0);
  bool bound = false;
  std::int64_t outcome = -1;
  std::thread([&] {
    bound = dropPermissionOverrides() && ::access(scene.library.c_str(), W_OK) != 0;
    if (bound) outcome = runToEnd(makeRun());
  }).join();
  ::chmod(scene.library.c_str(), 0755);
  if (!bound) GTEST_SKIP() << "permissions do not bind this thread";
  EXPECT_EQ(outcome, UpdateStatusDone);
  EXPECT_EQ(view->alerts(), std::vector<std::string>{"DOWNLOAD_DONE"});
  EXPECT_EQ(view->status(), UpdateRun::kDoneText);
  EXPECT_EQ(scene.asked(4), 1);
  for (int file = 0; file < 5; ++file)
    EXPECT_EQ(readFile(scene.path(file)), file % 2 ? oldContent(file) : scene.body[file]) << file;
  EXPECT_EQ(std::distance(fs::directory_iterator(scene.library), {}), 5);
}

}  // namespace
}  // namespace quarvel::testing
