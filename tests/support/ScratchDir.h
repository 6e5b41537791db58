#pragma once
// A fresh temporary folder for one test, removed with all it holds when the
// object goes. Mode 0755, so that a child process run as another user can
// reach what the test puts in it.

#include <stdlib.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <system_error>

namespace quarvel::testing {

class ScratchDir {
 public:
  ScratchDir() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "quarvel-scratch-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) std::abort();
    path_ = pattern;
    ::chmod(path_.c_str(), 0755);
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  // The names of the entries directly inside.
  std::set<std::string> names() const {
    std::set<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(path_))
      found.insert(entry.path().filename().string());
    return found;
  }

 private:
  std::string path_;
};

}  // namespace quarvel::testing
