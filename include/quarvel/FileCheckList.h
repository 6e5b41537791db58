#pragma once
/// @file
/// The software check list ("macchecklist.dat", and "userchecklist.dat" in
/// the same format): sections "#HEADER" (one field "Version") and
/// "#CHECKLIST" (17 fields, DataFileFormat.h).
///
/// Look-ups answer a record index of the "#CHECKLIST" table, or -1:
///  - getIdByProperty: "COMPANY\tPRODUCT\tVERSION\tORIGINAL_FILE", case-blind;
///  - getIdByFileName: the "EXE_FILE" value, case-blind;
///  - getIndex: the "DB_ID" value, exact.
/// The first two indexes are filled while a file is read; the identifier
/// index is built by the first getIndex that finds records and is never
/// rebuilt. Repeated keys: the last record wins. Case-blind means full
/// Unicode lower-casing of both sides.
///
/// Log lines (opening): the name and every line read at debug priority;
/// "%s(%d) // CHECKLIST FILE OPEN FAIL. error code? %d",
/// "%s(%d) // CHECKLIST DECRYPT FAIL.", "%s (%d) // ERROR: CHECKLIST DAMAGED",
/// "%s (%d) // CHECKLIST INSERT FAIL : %s" for a refused record line; save
/// without a file: "%s(%d) // CheckList file does not open.".
///
/// Not thread-safe: use an object from one thread at a time. The tables it
/// hands out (getTableByTag) are its own and live as long as it does; the
/// records in them are shared and may outlive it.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quarvel/FileFramework.h"
#include "quarvel/TableMulti.h"
#include "quarvel/TableSingle.h"

namespace quarvel {

class FileCheckList : public FileFramework {
 public:
  FileCheckList();
  ~FileCheckList() override;

  /// "#HEADER" or "#CHECKLIST" (exact); null otherwise.
  Table* getTableByTag(std::string_view tag) override;
  bool openWithFileName(const std::string& fileName, bool isFullPath) override;
  bool save() override;
  bool saveAsFileName(const std::string& fileName, bool isFullPath) override;
  /// The file's bytes before enciphering (folded Mac Korean text), size + 1
  /// bytes with a terminating zero, owned by the caller; null and size 0 when
  /// the text cannot be encoded or a record cannot be stored as one line, so
  /// that what it answers is always what a save would write.
  std::unique_ptr<unsigned char[]> getContents(std::uint64_t& size);

  /// The record whose "EXE_FILE" is `fileName`, case-blind; -1 when none.
  int getIdByFileName(std::string_view fileName) const;
  /// The record whose four property values, joined by tabs, are `property`,
  /// case-blind; -1 when none.
  int getIdByProperty(std::string_view property) const;
  /// The record whose "DB_ID" is `dbId` exactly; -1 when none. The first
  /// call that finds records builds the index.
  int getIndex(std::string_view dbId);

  /// Rebuilds the display lists: "DISP_COMPANY" and "DISP_PRODUCT" of every
  /// record, in record order.
  void initCompanyAndProduct();
  const std::vector<std::string>& m_pArrCompany() const { return m_pArrCompany_; }
  const std::vector<std::string>& m_pArrProduct() const { return m_pArrProduct_; }

  /// The lower-cased property key of a record's four values.
  static std::string propertyKey(std::string_view company, std::string_view product,
                                 std::string_view version, std::string_view originalFile);

  /// Operation names as the log lines give them.
  static constexpr const char* kOpenMethod = "-[FileCheckList openWithFileName:isFullPath:]";
  static constexpr const char* kSaveMethod = "-[FileCheckList save]";
  static constexpr const char* kContentsMethod = "-[FileCheckList getContents:]";

 private:
  /// The look-up indexes, built by openWithFileName and the first look-up.
  struct Indexes;
  std::unique_ptr<Indexes> indexes_;
  std::vector<std::string> m_pArrCompany_;
  std::vector<std::string> m_pArrProduct_;
  TableSingle m_pHeader;
  TableMulti m_pCheckList;
};

}  // namespace quarvel
