#pragma once
/// @file
/// The filter list ("macfilterlist.dat"): sections "#HEADER" (one field
/// "Version") and "#SWLIST" (COMPANY, PRODUCT, VERSION, ORIGINAL_FILE).
///
/// getIdByFilter answers the record whose four values, joined by tabs, equal
/// the key regardless of letter case (full Unicode lower-casing), or -1. The
/// index is filled while the file is read; the last of repeated keys wins.
/// Nothing is logged.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "quarvel/FileFramework.h"
#include "quarvel/TableMulti.h"
#include "quarvel/TableSingle.h"

namespace quarvel {

class FileFilter : public FileFramework {
 public:
  FileFilter();
  ~FileFilter() override;

  /// "#HEADER" or "#SWLIST" (exact); null otherwise.
  Table* getTableByTag(std::string_view tag) override;
  bool openWithFileName(const std::string& fileName, bool isFullPath) override;
  bool saveAsFileName(const std::string& fileName, bool isFullPath) override;
  /// As FileCheckList::getContents.
  std::unique_ptr<unsigned char[]> getContents(std::uint64_t& size);

  /// `filter` is "COMPANY\tPRODUCT\tVERSION\tORIGINAL_FILE".
  int getIdByFilter(std::string_view filter) const;

  /// The lower-cased filter key of a record's four values.
  static std::string filterKey(std::string_view company, std::string_view product,
                               std::string_view version, std::string_view originalFile);

 private:
  /// The look-up indexes, built by openWithFileName and the first look-up.
  struct Indexes;
  std::unique_ptr<Indexes> indexes_;
  TableSingle m_pHeader;
  TableMulti m_pSWList;
};

}  // namespace quarvel
