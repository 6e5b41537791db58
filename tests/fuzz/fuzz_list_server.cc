// Feeds arbitrary bytes, as the requests of one connection, through the HTTP
// server's own request parsing into the list server's answer, over a folder
// that holds plain files, a link to a file outside it and a subfolder.
// Checks that a file is served exactly when the routing names a regular
// file lying directly in the folder, and that nothing else is ever served.

#include <httplib.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "ListServer.h"

namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const char* what, const std::string& path) {
  std::fprintf(stderr, "list server: %s for path \"%s\"\n", what, path.c_str());
  std::abort();
}

void writeFile(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// The served folder, made once: the regular files directly in it and what
// they hold.
struct Folder {
  fs::path root = fs::temp_directory_path() / ("quarvel-fuzz-serve-" + std::to_string(::getpid()));
  fs::path served = root / "served";
  std::map<std::string, std::string> files{{"macchecklist.dat", "check list"},
                                           {"macpcklist.dat", "package list"},
                                           {"package.dat", "windows package"},
                                           {"a b%.dat", "odd name"}};

  Folder() {
    fs::remove_all(root);
    fs::create_directories(served / "sub");
    for (const auto& [name, text] : files) writeFile(served / name, text);
    writeFile(root / "outside.dat", "outside the folder");
    writeFile(served / "sub" / "inner.dat", "inside a subfolder");
    fs::create_symlink("../outside.dat", served / "link.dat");
    std::atexit([] { fs::remove_all(folder().root); });
  }

  static const Folder& folder() {
    static const Folder* made = new Folder();
    return *made;
  }
};

// One connection's bytes: read from the input, answers thrown away.
class InputStream final : public httplib::Stream {
 public:
  InputStream(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  bool is_readable() const override { return true; }
  bool is_writable() const override { return true; }
  ssize_t read(char* ptr, std::size_t size) override {
    const std::size_t n = std::min(size, size_ - at_);
    std::copy_n(data_ + at_, n, ptr);
    at_ += n;
    return static_cast<ssize_t>(n);
  }
  ssize_t write(const char*, std::size_t size) override { return static_cast<ssize_t>(size); }
  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    ip = "127.0.0.1";
    port = 40000;
  }
  void get_local_ip_and_port(std::string& ip, int& port) const override {
    ip = "127.0.0.1";
    port = 8080;
  }
  socket_t socket() const override { return 0; }
  bool atEnd() const { return at_ == size_; }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t at_ = 0;
};

// A server whose requests come from a stream rather than a socket.
class StreamServer final : public httplib::Server {
 public:
  StreamServer() {
    Get(".*", [](const httplib::Request& request, httplib::Response& response) {
      const Folder& folder = Folder::folder();
      quarvel::cli::answerListRequest(folder.served.string(), request, response);
      const auto name = quarvel::cli::listFileForRequest(request.path, request.params);
      const auto file = name ? folder.files.find(*name) : folder.files.end();
      const bool served = response.status != 404;
      if (served != (file != folder.files.end()))
        fail("served other than a plain file", request.path);
      if (served && response.body != file->second) fail("served the wrong bytes", request.path);
    });
  }
  bool serve(InputStream& stream) {
    bool closed = false;
    return process_request(stream, false, closed, nullptr) && !closed;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static StreamServer* server = new StreamServer();
  InputStream stream(data, size);
  // A few requests on one connection, as a client keeping it alive would.
  for (int i = 0; i < 4 && !stream.atEnd() && server->serve(stream); ++i) {
  }
  return 0;
}
