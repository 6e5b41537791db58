// The run with a trusted key: a list replaces the old one only when the key
// verifies its signature and the list reads as its kind; anything else
// fails the attempt, keeps the old file, and after five ends the run as a
// failed download. Without a key nothing changes.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

#include "TerminalUpdate.h"
#include "common/HttpClient.h"
#include "format/DataFileFormat.h"
#include "format/Signature.h"
#include "quarvel/CVUserDefaults.h"
#include "quarvel/UpdateRun.h"
#include "server/ListServer.h"
#include "support/DataFileTargets.h"
#include "support/FileText.h"
#include "support/ReadableDataFile.h"
#include "support/RecordingUpdateView.h"
#include "support/SettingsSandbox.h"
#include "support/TestPlatform.h"

namespace quarvel {
namespace {

using namespace std::chrono_literals;
using testing::kDataFileTargets;
using testing::readFile;

constexpr const char* kOrigin = "http://lists.test";
constexpr const char* kErrorPage = "<html><body><h1>404 Not Found</h1></body></html>\n";

// Answers every exchange in libcurl's place from a table of request targets;
// a target not in it gets an error page, as a server that has no such file.
class ListNetwork : public PlatformWrapper {
 public:
  void answer(const std::string& target, std::string body) {
    std::lock_guard lock(mutex_);
    bodies_[target] = std::move(body);
  }
  void forget(const std::string& target) {
    std::lock_guard lock(mutex_);
    bodies_.erase(target);
  }
  int requests(const std::string& target) {
    std::lock_guard lock(mutex_);
    return requests_[target];
  }
  int performHttp(HttpExchange& exchange) override {
    const std::string target = exchange.url().substr(std::string(kOrigin).size());
    std::string body = kErrorPage;
    {
      std::lock_guard lock(mutex_);
      ++requests_[target];
      if (auto it = bodies_.find(target); it != bodies_.end()) body = it->second;
    }
    for (std::size_t at = 0; at < body.size(); at += 4096)
      if (!exchange.deliver(std::string_view(body).substr(at, 4096))) return CURLE_WRITE_ERROR;
    return CURLE_OK;
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::string> bodies_;
  std::map<std::string, int> requests_;
};

std::string signatureTarget(int file) {
  return datafile::signatureUrl(kDataFileTargets[file].target);
}

class UpdateRunSignatureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    settings = CVUserDefaults::standardUserDefaults();
    keys = *signing::generateKeyPair();
    for (int file = 0; file < 5; ++file) {
      lists[file] = testing::readableDataFile(testing::kListKinds[file], 3000 + 100 * file);
      network->answer(kDataFileTargets[file].target, lists[file]);
      network->answer(signatureTarget(file), signing::sign(keys.secretKey, lists[file]));
    }
  }

  std::string path(int file) const {
    return *settings->libraryPath() + "/" + kDataFileTargets[file].name;
  }
  void writeOldFiles() {
    for (int file = 0; file < 5; ++file) std::ofstream(path(file), std::ios::binary) << "old";
  }

  std::shared_ptr<UpdateRun> run(std::optional<std::string> key, bool readable = false) {
    writeOldFiles();
    view = std::make_shared<testing::RecordingView>();
    UpdateOptions options;
    options.listServer = kOrigin;
    options.pacing = 0ms;
    options.networkCheck = [] { return true; };
    options.dayOfMonth = [] { return std::string("07"); };
    options.trustedKey = std::move(key);
    options.requireReadableLists = readable;
    auto update = UpdateRun::create(view, options);
    update->start();
    EXPECT_TRUE(update->waitUntilFinished(20s));
    return update;
  }

  // Files before `failed` replaced, it and the rest kept.
  void expectFailedAt(const UpdateRun& update, int failed) {
    EXPECT_EQ(update.updateStatus(), UpdateStatusFailed);
    EXPECT_EQ(view->alerts(), std::vector<std::string>{"DOWNLOAD_FAIL"});
    for (int file = 0; file < 5; ++file) {
      SCOPED_TRACE(kDataFileTargets[file].name);
      EXPECT_EQ(readFile(path(file)), file < failed ? lists[file] : "old");
    }
  }
  void expectAllReplaced(const UpdateRun& update) {
    EXPECT_EQ(update.updateStatus(), UpdateStatusDone);
    for (int file = 0; file < 5; ++file) EXPECT_EQ(readFile(path(file)), lists[file]);
  }

  testing::SettingsSandbox sandbox;
  std::shared_ptr<ListNetwork> network = std::make_shared<ListNetwork>();
  testing::ScopedPlatform platform{network};
  CVUserDefaults* settings = nullptr;
  signing::KeyPair keys;
  std::string lists[5];
  std::shared_ptr<testing::RecordingView> view;
};

TEST_F(UpdateRunSignatureTest, RefusesWhatTheKeyDoesNotVouchFor) {
  const std::string& list = lists[2];
  std::string tampered = list;
  tampered[list.size() / 2] ^= 0x20;
  const std::string page = kErrorPage;
  const auto stranger = *signing::generateKeyPair();
  const struct {
    const char* name;
    std::string body;
    std::optional<std::string> signature;  // none: no signature file
  } cases[] = {
      {"a tampered byte", tampered, signing::sign(keys.secretKey, list)},
      {"signed with another key", list, signing::sign(stranger.secretKey, list)},
      {"no signature file", list, std::nullopt},
      {"an error page in the list's place", page, signing::sign(keys.secretKey, list)},
      {"a body cut short", list.substr(0, list.size() - 1), signing::sign(keys.secretKey, list)},
      {"a signed body that is no list", page, signing::sign(keys.secretKey, page)},
      {"the signature of the whole file, of another list", list,
       signing::sign(keys.secretKey, lists[1])},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    network->answer(kDataFileTargets[2].target, c.body);
    if (c.signature)
      network->answer(signatureTarget(2), *c.signature);
    else
      network->forget(signatureTarget(2));
    const int before = network->requests(kDataFileTargets[2].target);
    auto update = run(signing::formatPublicKey(keys.publicKey));
    expectFailedAt(*update, 2);
    EXPECT_EQ(network->requests(kDataFileTargets[2].target) - before, 5);
  }
}

// Each list, the first one too, opens before it replaces its file.
TEST_F(UpdateRunSignatureTest, ASignedBodyThatIsNoListIsRefusedForEveryList) {
  const std::string page = kErrorPage;
  for (int file : {0, 1, 3, 4}) {  // the filter list: above
    SCOPED_TRACE(kDataFileTargets[file].name);
    network->answer(kDataFileTargets[file].target, page);
    network->answer(signatureTarget(file), signing::sign(keys.secretKey, page));
    expectFailedAt(*run(signing::formatPublicKey(keys.publicKey)), file);
    network->answer(kDataFileTargets[file].target, lists[file]);
    network->answer(signatureTarget(file), signing::sign(keys.secretKey, lists[file]));
  }
}

// Where the key comes from, and what each choice of checks takes.
TEST_F(UpdateRunSignatureTest, KeyFromTheOptionsOrTheSettings) {
  const std::string key = signing::formatPublicKey(keys.publicKey);
  const auto stranger = signing::formatPublicKey(signing::generateKeyPair()->publicKey);
  const struct {
    const char* name;
    std::optional<std::string> option;
    std::optional<std::string> setting;
    bool readable;
    std::string filterBody;  // served for the third list, signed
    int failedAt;            // 5: all replaced
    bool asksSignatures;
  } cases[] = {
      {"the run's key", key, std::nullopt, false, lists[2], 5, true},
      {"the settings' key", std::nullopt, key, false, lists[2], 5, true},
      {"the settings' key refuses", std::nullopt, stranger, false, lists[2], 0, true},
      {"the run's key before the settings'", key, stranger, false, lists[2], 5, true},
      {"a setting that is no key", std::nullopt, "not a key", false, lists[2], 0, false},
      {"no key: an error page is written", std::nullopt, std::nullopt, false, kErrorPage, 5, false},
      {"no key, readable lists only", std::nullopt, std::nullopt, true, kErrorPage, 2, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.setting)
      settings->setTrustedListKey(PlistValue::string(*c.setting));
    else
      settings->removeObjectForKey("TrustedListKey");
    network->answer(kDataFileTargets[2].target, c.filterBody);
    network->answer(signatureTarget(2), signing::sign(keys.secretKey, c.filterBody));
    const int signaturesBefore = network->requests(signatureTarget(0));
    auto update = run(c.option, c.readable);
    if (c.failedAt == 5) {
      EXPECT_EQ(update->updateStatus(), UpdateStatusDone);
      for (int file = 0; file < 5; ++file)
        EXPECT_EQ(readFile(path(file)), file == 2 ? c.filterBody : lists[file]);
    } else {
      expectFailedAt(*update, c.failedAt);
    }
    EXPECT_EQ(network->requests(signatureTarget(0)) > signaturesBefore, c.asksSignatures);
  }
}

// The whole way: keys and signatures from the tool's functions' formats, the
// lists and their signatures served by the list server on loopback, the
// terminal update with the key.
TEST(UpdateSignatureEndToEnd, SignedListsFromTheListServer) {
  testing::SettingsSandbox sandbox;
  auto* settings = CVUserDefaults::standardUserDefaults();
  const std::string folder = sandbox.root() + "/served";
  std::filesystem::create_directories(folder);
  const auto keys = *signing::generateKeyPair();
  for (const auto& target : kDataFileTargets) {
    const std::string list = readFile(std::string(QUARVEL_SAMPLES) + "/" + target.name);
    std::ofstream(folder + "/" + target.name, std::ios::binary) << list;
    std::ofstream(folder + "/" + target.name + ".sig") << signing::sign(keys.secretKey, list);
  }
  server::ListServer server(folder);
  const int port = server.start("127.0.0.1", 0);
  ASSERT_GT(port, 0);

  cli::TerminalUpdateRequest request;
  request.server = "127.0.0.1:" + std::to_string(port);
  request.options.pacing = 0ms;
  request.options.networkCheck = [] { return true; };
  request.verifyKey = signing::formatPublicKey(keys.publicKey);
  std::ostringstream out;
  EXPECT_EQ(cli::runTerminalUpdate(request, out), cli::kUpdateExitDone) << out.str();
  for (const auto& target : kDataFileTargets)
    EXPECT_EQ(readFile(*settings->libraryPath() + "/" + target.name),
              readFile(folder + "/" + target.name));

  // A list changed on the server after it was signed is not taken.
  std::ofstream(folder + "/macfilterlist.dat", std::ios::app) << "x";
  std::ofstream(*settings->libraryPath() + "/macfilterlist.dat") << "old";
  EXPECT_EQ(cli::runTerminalUpdate(request, out), cli::kUpdateExitFailed);
  EXPECT_EQ(readFile(*settings->libraryPath() + "/macfilterlist.dat"), "old");
  server.stop();
}

}  // namespace
}  // namespace quarvel
