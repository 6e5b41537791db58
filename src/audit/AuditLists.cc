#include "audit/AuditLists.h"

#include "format/DataFileFormat.h"
#include "quarvel/FileCheckList.h"
#include "quarvel/FileFilter.h"
#include "quarvel/FileFontList.h"
#include "quarvel/Table.h"

namespace quarvel::audit {

namespace {

// The "#HEADER" table's Version of an opened list file.
std::optional<std::string> versionOf(FileFramework& file) {
  Table* header = file.getTableByTag(datafile::kHeaderTag);
  if (!header || header->getDataCount() < 1) return std::nullopt;
  std::string version = header->select(0, datafile::kFieldVersion);
  if (version == Table::kOutOfBounds) return std::nullopt;
  return version;
}

// A list read through one of the library's data-file classes; the records
// are those of its "#CHECKLIST" table.
template <class File>
class DataFileList : public ListSource {
 public:
  explicit DataFileList(std::unique_ptr<File> file)
      : file_(std::move(file)), table_(file_->getTableByTag(datafile::kCheckListTag)) {}

  std::size_t recordCount() override {
    return table_ ? static_cast<std::size_t>(table_->getDataCount()) : 0;
  }
  std::string value(int row, std::string_view field) override {
    if (!table_) return "";
    std::string text = table_->select(row, field);
    return text == Table::kOutOfBounds ? std::string() : text;
  }
  int idByFileName(const std::string& name) override { return file_->getIdByFileName(name); }
  std::optional<std::string> headerVersion() override { return versionOf(*file_); }

 private:
  std::unique_ptr<File> file_;
  Table* table_;
};

class DataFileFilter : public FilterSource {
 public:
  explicit DataFileFilter(std::unique_ptr<FileFilter> file) : file_(std::move(file)) {}
  bool contains(const std::string& key) override { return file_->getIdByFilter(key) >= 0; }
  std::optional<std::string> headerVersion() override { return versionOf(*file_); }

 private:
  std::unique_ptr<FileFilter> file_;
};

template <class File>
std::unique_ptr<File> openFile(const std::string& path) {
  auto file = std::make_unique<File>();
  if (!file->openWithFileName(path, true)) return nullptr;
  return file;
}

}  // namespace

std::unique_ptr<ListSource> openCheckListFile(const std::string& path) {
  auto file = openFile<FileCheckList>(path);
  if (!file) return nullptr;
  return std::make_unique<DataFileList<FileCheckList>>(std::move(file));
}

std::unique_ptr<ListSource> openFontListFile(const std::string& path) {
  auto file = openFile<FileFontList>(path);
  if (!file) return nullptr;
  return std::make_unique<DataFileList<FileFontList>>(std::move(file));
}

std::unique_ptr<FilterSource> openFilterFile(const std::string& path) {
  auto file = openFile<FileFilter>(path);
  if (!file) return nullptr;
  return std::make_unique<DataFileFilter>(std::move(file));
}

}  // namespace quarvel::audit
