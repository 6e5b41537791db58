// A second process for the read-only-folder test of the update run, the one
// fault the platform seam cannot stand in for: the kernel's own permission
// checks. It drops root's permission override while it still has one
// thread, runs one update against the list server HOST:PORT in the settings
// environment it inherits, and prints the outcome as lines of NAME=VALUE.
//
//   update_fault_child readonly HOST:PORT      file permissions bind, even as root
//
// Exit status 0 after a run, 77 when permissions do not bind this process,
// 2 on bad arguments or a run that does not end.
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "quarvel/CVUserDefaults.h"
#include "quarvel/UpdateRun.h"
#include "support/RecordingUpdateView.h"

namespace {

// Drops the capabilities that let root write past file permissions. Raw
// system calls: the process has one thread here, and later threads inherit.
bool dropPermissionOverrides() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  if (::syscall(SYS_capget, &header, data) != 0) return false;
  const unsigned mask = (1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH) | (1u << CAP_FOWNER);
  data[0].effective &= ~mask;
  data[0].permitted &= ~mask;
  data[0].inheritable &= ~mask;
  return ::syscall(SYS_capset, &header, data) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace std::chrono_literals;
  std::string server;
  if (argc != 3 || std::strcmp(argv[1], "readonly") != 0) return 2;
  if (!dropPermissionOverrides()) return 77;
  server = argv[2];

  auto* settings = quarvel::CVUserDefaults::standardUserDefaults();
  const std::string library = settings->libraryPath().value_or("");
  if (::access(library.c_str(), W_OK) == 0) return 77;

  quarvel::UpdateOptions options;
  options.listServer = "http://" + server;
  options.fileServer = options.listServer;
  options.dataFileTimeout = 5s;
  options.pacing = 5ms;
  options.networkCheck = [] { return true; };
  options.dayOfMonth = [] { return std::string("07"); };
  auto view = std::make_shared<quarvel::testing::RecordingView>();
  auto run = quarvel::UpdateRun::create(view, options);
  run->start();
  if (!run->waitUntilFinished(60s)) return 2;
  std::string alerts;
  for (const std::string& code : view->alerts()) alerts += (alerts.empty() ? "" : ",") + code;
  std::printf("outcome=%lld\nalerts=%s\nstatus=%s\n", static_cast<long long>(run->updateStatus()),
              alerts.c_str(), view->status().c_str());
  return 0;
}
