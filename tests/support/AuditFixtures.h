#pragma once
// Helpers for the audit tests: a temporary folder tree removed at the end,
// and in-memory lists with the check list's field names.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "audit/AuditLists.h"
#include "common/StringUtil.h"
#include "support/ScratchDir.h"

namespace quarvel::testing {

class TempTree {
 public:
  TempTree() = default;
  ~TempTree() {
    // Give back any permission a test took away, so that removal succeeds.
    std::error_code ignored;
    for (auto it = std::filesystem::recursive_directory_iterator(
             root_, std::filesystem::directory_options::skip_permission_denied, ignored);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ignored))
      if (it->is_directory(ignored) && !it->is_symlink(ignored)) ::chmod(it->path().c_str(), 0755);
    ::chmod(root_.c_str(), 0755);
  }
  TempTree(const TempTree&) = delete;
  TempTree& operator=(const TempTree&) = delete;

  const std::string& root() const { return root_; }
  std::string path(const std::string& relative) const { return root_ + "/" + relative; }

  // Writes a file (folders made as needed) and answers its full path.
  std::string file(const std::string& relative, const std::string& text = "x",
                   mode_t mode = 0644) const {
    std::string full = path(relative);
    std::filesystem::create_directories(std::filesystem::path(full).parent_path());
    std::ofstream(full, std::ios::binary) << text;
    ::chmod(full.c_str(), mode);
    return full;
  }
  std::string executable(const std::string& relative) const {
    return file(relative, "#!/bin/sh\n", 0755);
  }
  // A symbolic link at `relative` pointing to `target` (as written).
  void link(const std::string& target, const std::string& relative) const {
    std::filesystem::create_directories(std::filesystem::path(path(relative)).parent_path());
    if (::symlink(target.c_str(), path(relative).c_str()) != 0) std::abort();
  }

 private:
  ScratchDir dir_;  // removed once the permissions are given back
  const std::string& root_ = dir_.path();
};

// A list held in memory: records given as field -> value maps, fields not
// given are "". File names are matched without regard to letter case; the
// last record with a name wins, as in the data files.
class MemoryList : public audit::ListSource {
 public:
  using Row = std::map<std::string, std::string>;
  explicit MemoryList(std::vector<Row> rows) : rows_(std::move(rows)) {
    for (std::size_t i = 0; i < rows_.size(); ++i)
      byName_[lowercase(rows_[i]["EXE_FILE"])] = static_cast<int>(i);
  }
  std::size_t recordCount() override { return rows_.size(); }
  std::string value(int row, std::string_view field) override {
    if (row < 0 || static_cast<std::size_t>(row) >= rows_.size()) return "";
    auto it = rows_[static_cast<std::size_t>(row)].find(std::string(field));
    return it == rows_[static_cast<std::size_t>(row)].end() ? "" : it->second;
  }
  int idByFileName(const std::string& name) override {
    ++lookups;
    auto it = byName_.find(lowercase(name));
    return it == byName_.end() ? -1 : it->second;
  }
  int lookups = 0;

 private:
  std::vector<Row> rows_;
  std::map<std::string, int> byName_;
};

class MemoryFilter : public audit::FilterSource {
 public:
  explicit MemoryFilter(std::vector<std::string> keys) {
    for (const std::string& key : keys) keys_.insert(lowercase(key));
  }
  bool contains(const std::string& key) override { return keys_.count(lowercase(key)) > 0; }

 private:
  std::set<std::string> keys_;
};

}  // namespace quarvel::testing
