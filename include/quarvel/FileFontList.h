#pragma once
/// @file
/// The font check list ("fontchecklist.dat"): sections "#HEADER" (one field
/// "Version") and "#CHECKLIST" with the first 14 fields of the software check
/// list (up to REG_PATH); a 17-field software check list line is refused here
/// and a 14-field font line there.
///
/// getIdByFileName: the "EXE_FILE" value (the font's file name), case-blind,
/// indexed while the file is read. getIndex: the "DB_ID" value, exact,
/// indexed by the first call that finds records and never rebuilt. Repeated
/// keys: the last record wins. Nothing is logged.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "quarvel/FileFramework.h"
#include "quarvel/TableMulti.h"
#include "quarvel/TableSingle.h"

namespace quarvel {

class FileFontList : public FileFramework {
 public:
  FileFontList();
  ~FileFontList() override;

  /// "#HEADER" or "#CHECKLIST" (exact); null otherwise.
  Table* getTableByTag(std::string_view tag) override;
  bool openWithFileName(const std::string& fileName, bool isFullPath) override;
  bool saveAsFileName(const std::string& fileName, bool isFullPath) override;
  /// As FileCheckList::getContents.
  std::unique_ptr<unsigned char[]> getContents(std::uint64_t& size);

  /// The record whose "EXE_FILE" (the font's file name) is `fileName`,
  /// case-blind; -1 when none.
  int getIdByFileName(std::string_view fileName) const;
  /// The record whose "DB_ID" is `dbId` exactly; -1 when none.
  int getIndex(std::string_view dbId);

 private:
  /// The look-up indexes, built by openWithFileName and the first look-up.
  struct Indexes;
  std::unique_ptr<Indexes> indexes_;
  TableSingle m_pHeader;
  TableMulti m_pFontList;
};

}  // namespace quarvel
