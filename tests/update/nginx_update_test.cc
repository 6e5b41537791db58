// The update run against nginx with the documented configuration, on
// loopback. Skipped when nginx is not installed.

#include <gtest/gtest.h>
#include <httplib.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "quarvel/CVUserDefaults.h"
#include "quarvel/UpdateRun.h"
#include "support/DataFileTargets.h"
#include "support/FileText.h"
#include "support/FreePort.h"
#include "support/RecordingUpdateView.h"
#include "support/SettingsSandbox.h"

namespace quarvel {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

using testing::readFile;
using testing::writeBytes;

// nginx as a daemon, with a configuration made of the documented server
// block. It detaches only once it listens, so its start either serves or
// fails (a port taken since it was picked: three tries); it stops through
// its pid file.
struct NginxServer {
  NginxServer(const std::string& nginx, const std::string& work, const std::string& root)
      : pidFile(work + "/nginx.pid"),
        command("'" + nginx + "' -p '" + work + "' -c '" + work + "/nginx.conf' -e '" + work +
                "/logs/error.log'") {
    fs::create_directories(work + "/logs");
    const std::string block =
        readFile(std::string(QUARVEL_SOURCE_DIR) + "/docs/nginx-quarvel.conf");
    for (int attempt = 0; attempt < 3 && !running; ++attempt) {
      port = testing::freeLoopbackPort();
      std::string server = block;
      // Throws out_of_range when the documented block no longer has these lines.
      server.replace(server.find("listen 8080;"), 12,
                     "listen 127.0.0.1:" + std::to_string(port) + ";");
      server.replace(server.find("root /srv/quarvel/lists;"), 24, "root " + root + ";");
      std::string text = "master_process off;\nworker_processes 1;\nevents {}\n";
      text += "pid " + pidFile + ";\nerror_log " + work + "/logs/error.log;\n";
      text += "http {\n  access_log " + work + "/logs/access.log;\n";
      for (const char* temp : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
        text += std::string("  ") + temp + "_temp_path " + work + "/" + temp + ";\n";
      writeBytes(work + "/nginx.conf", text + server + "}\n");
      running = std::system(command.c_str()) == 0;
    }
  }
  ~NginxServer() {
    if (!running || std::system((command + " -s stop").c_str()) != 0) return;
    // Gone when it has removed its pid file; the sandbox goes next.
    for (int i = 0; i < 500 && fs::exists(pidFile); ++i) std::this_thread::sleep_for(10ms);
  }

  std::string pidFile, command;
  bool running = false;
  int port = -1;
};

using testing::kDataFileTargets;
using testing::RecordingView;

TEST(NginxUpdate, RunsBothVariantsAgainstTheDocumentedConfiguration) {
  std::string nginx;
  for (const char* candidate : {"/usr/bin/nginx", "/usr/local/sbin/nginx", "/usr/sbin/nginx"})
    if (::access(candidate, X_OK) == 0) nginx = candidate;
  if (nginx.empty()) GTEST_SKIP() << "nginx is not installed";

  testing::SettingsSandbox sandbox;
  const std::string root = sandbox.root() + "/lists";
  fs::create_directories(root + "/sub");
  for (const auto& file : kDataFileTargets)
    writeBytes(root + "/" + file.name, std::string("nginx ") + file.name);
  writeBytes(root + "/package.dat", "windows packages");
  writeBytes(root + "/ver.dat", "7");
  writeBytes(sandbox.root() + "/secret", "secret");
  fs::create_symlink(sandbox.root() + "/secret", root + "/link.dat");

  NginxServer server(nginx, sandbox.root() + "/nginx", root);
  ASSERT_TRUE(server.running) << readFile(sandbox.root() + "/nginx/logs/error.log");
  const std::string hostPort = "127.0.0.1:" + std::to_string(server.port);

  CVUserDefaults* settings = CVUserDefaults::standardUserDefaults();
  settings->setWebQuarvelIPAddress(PlistValue::string(hostPort));
  UpdateOptions options;
  options.listServer = options.fileServer = "http://" + hostPort;
  options.windowsPackageServer = options.listServer + "/file/keyfile60";
  options.pacing = 1ms;
  options.networkCheck = [] { return true; };

  for (bool web : {false, true}) {
    for (const auto& file : kDataFileTargets)
      fs::remove(*settings->libraryPath() + "/" + file.name);
    auto view = std::make_shared<RecordingView>();
    auto run = UpdateRun::create(view, options);
    run->setIsWebQuarvel(web);
    run->start();
    ASSERT_TRUE(run->waitUntilFinished(30s));
    EXPECT_EQ(run->updateStatus(), UpdateStatusDone) << web;
    EXPECT_EQ(view->alerts(), std::vector<std::string>{"DOWNLOAD_DONE"});
    for (const auto& file : kDataFileTargets)
      EXPECT_EQ(readFile(*settings->libraryPath() + "/" + file.name),
                std::string("nginx ") + file.name);
  }

  auto run = UpdateRun::create(std::make_shared<RecordingView>(), options);
  EXPECT_FALSE(run->downloadKeyFile(0));
  EXPECT_EQ(readFile(*settings->verFilePath()), "7");
  EXPECT_FALSE(run->downloadWindowsKeyFiles());
  EXPECT_EQ(readFile(*settings->windowPackageFilePath()), "windows packages");

  httplib::Client client("127.0.0.1", server.port);
  for (const char* target : {"/", "/macchecklist.dat", "/quarvel/download/list/check/mac",
                             "/cmmn/download.nis?type=file&filename=..%2Fsecret",
                             "/cmmn/download.nis?type=file&filename=link.dat",
                             "/cmmn/download.nis?type=other&filename=ver.dat",
                             "/cmmn/download.nis?type=file&filename=sub",
                             "/file/keyfile60/../secret", "/file/keyfile60/link.dat", "/sub/"}) {
    auto result = client.Get(target);
    EXPECT_EQ(result ? result->status : 0, 404) << target;
  }
}

}  // namespace
}  // namespace quarvel
