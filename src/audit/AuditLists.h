#pragma once
// The lists an audit compares the machine with, seen through two small
// interfaces so that the matching does not care where the records come from.
// The data-file adapters at the end open the enciphered list files through
// the library's data-file classes.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace quarvel::audit {

// Records with the check list's field names ("EXE_FILE", "DISP_COMPANY",
// "PRICE", ...): the software check list, the user check list and the font
// check list all qualify.
class ListSource {
 public:
  virtual ~ListSource() = default;
  virtual std::size_t recordCount() = 0;
  // The value of `field` in record `row`; "" when there is none.
  virtual std::string value(int row, std::string_view field) = 0;
  // Index of the record whose "EXE_FILE" is `name`, letter case ignored;
  // -1 when there is none.
  virtual int idByFileName(const std::string& name) = 0;
  // The list's "#HEADER" Version, which a report names; nothing when the
  // list has none (the default, for lists that are not files).
  virtual std::optional<std::string> headerVersion() { return std::nullopt; }
};

// The filter list: keys "company\tproduct\tversion\toriginal file".
class FilterSource {
 public:
  virtual ~FilterSource() = default;
  // Whether the key is on the list, letter case ignored.
  virtual bool contains(const std::string& key) = 0;
  // As ListSource::headerVersion.
  virtual std::optional<std::string> headerVersion() { return std::nullopt; }
};

// The list files, opened with the library's FileCheckList, FileFontList and
// FileFilter. `path` is a full path. Null when the file cannot be opened
// (missing, not enciphered as a list, damaged).
std::unique_ptr<ListSource> openCheckListFile(const std::string& path);
std::unique_ptr<ListSource> openFontListFile(const std::string& path);
std::unique_ptr<FilterSource> openFilterFile(const std::string& path);

}  // namespace quarvel::audit
