#pragma once
// A throw-away PostgreSQL server for a test or a benchmark: Debian's
// initdb and pg_ctl make a cluster in a scratch folder, listening on a
// free loopback port and a socket in that folder, and stop and remove it
// when the object goes, whatever happened in between.
//
// The port is free when probed but not reserved: until the server binds
// it, another test's outgoing connection may take it as its own local
// port. A start refused that way is tried again on a new port.

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "support/FreePort.h"
#include "support/ScratchDir.h"

namespace quarvel::server::testing {

inline constexpr const char* kPostgresBin = "/usr/lib/postgresql/15/bin";

class PostgresServer {
 public:
  // Starts a fresh cluster; running() tells whether it came up.
  PostgresServer() {
    // The server refuses to run as root: it then runs as postgres, owning
    // the folder.
    if (::geteuid() == 0) {
      const passwd* user = ::getpwnam("postgres");
      if (!user || ::chown(folder_.c_str(), user->pw_uid, user->pw_gid) != 0) return;
      as_ = "runuser -u postgres -- ";
    }
    const std::string data = folder_ + "/data";
    if (!run("initdb -D " + data + " -A trust -U quarvel -E UTF8 --locale=C --no-sync")) return;
    for (int attempt = 0; attempt < kStarts; ++attempt) {
      port_ = quarvel::testing::freeLoopbackPort();
      started_ = run("pg_ctl -D " + data + " -l " + serverLog(attempt) + " -w -t 60 -o \"-p " +
                     std::to_string(port_) + " -k " + folder_ +
                     " -c listen_addresses=127.0.0.1 -c fsync=off -c full_page_writes=off\" start");
      if (started_ || read(serverLog(attempt)).find("Address already in use") == std::string::npos)
        break;
    }
  }
  ~PostgresServer() {
    if (started_) run("pg_ctl -D " + folder_ + "/data -m immediate -w stop");
  }

  bool running() const { return started_; }
  // What the server's programs and the server itself wrote, for a failure
  // message.
  std::string logs() const {
    std::string text = read(folder_ + "/commands.log");
    for (int attempt = 0; attempt < kStarts; ++attempt) text += read(serverLog(attempt));
    return text;
  }
  // A database of its own for one test, as a URL to open it by.
  std::string freshDatabase(const std::string& name) const {
    run("createdb -h 127.0.0.1 -p " + std::to_string(port_) + " -U quarvel " + name);
    return "postgresql://quarvel@127.0.0.1:" + std::to_string(port_) + "/" + name;
  }

 private:
  static constexpr int kStarts = 5;
  // Each start's own log, so that a start is judged by what it wrote.
  std::string serverLog(int attempt) const {
    return folder_ + "/server-" + std::to_string(attempt) + ".log";
  }
  static std::string read(const std::string& path) {
    std::ostringstream text;
    if (std::ifstream file(path); file) text << file.rdbuf();
    return text.str();
  }
  // Runs one of the server's programs, its output kept in the folder.
  bool run(const std::string& command) const {
    const std::string line = "timeout 120 " + as_ + kPostgresBin + "/" + command + " >>" + folder_ +
                             "/commands.log 2>&1";
    return std::system(line.c_str()) == 0;
  }

  quarvel::testing::ScratchDir scratch_;  // removed once the server has stopped
  const std::string& folder_ = scratch_.path();
  std::string as_;
  int port_ = -1;
  bool started_ = false;
};

}  // namespace quarvel::server::testing
