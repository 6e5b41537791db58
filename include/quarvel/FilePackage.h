#pragma once
/// @file
/// The package list ("macpcklist.dat"): sections "#HEADER" (one field
/// "Version"), "#PACKAGE" (8 fields: DB_ID, COMPANY, PRODUCT, SW_TYPE,
/// GRP_ID, GRP_NAME, GRP_SEQ, SUIT) and "#SUB" (4 fields: PACKAGE_ID, NAME,
/// PRICE, SUIT). A sub-item's PACKAGE_ID is the DB_ID of its package; this
/// class never joins the two itself.
///
/// Nothing is logged. saveAsFileName creates the missing folders of the
/// target first (the only data-file class that does).

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "quarvel/FileFramework.h"
#include "quarvel/PlistValue.h"
#include "quarvel/TableMulti.h"
#include "quarvel/TableSingle.h"

namespace quarvel {

class FilePackage : public FileFramework {
 public:
  FilePackage();
  ~FilePackage() override;

  /// "#HEADER", "#PACKAGE" or "#SUB" (exact); null otherwise.
  Table* getTableByTag(std::string_view tag) override;
  bool openWithFileName(const std::string& fileName, bool isFullPath) override;
  bool saveAsFileName(const std::string& fileName, bool isFullPath) override;
  /// As FileCheckList::getContents.
  std::unique_ptr<unsigned char[]> getContents(std::uint64_t& size);

  /// The "#PACKAGE" record index whose DB_ID equals `packageId` exactly, or
  /// -1. The index is built by the first call that finds records and is
  /// never rebuilt; on repeated identifiers the last record wins.
  int getPackageIndex(std::string_view packageId);

  /// The display name of package record `packageIndex` with sub-item record
  /// `AndSubIndex`: the package's PRODUCT, followed by "(-)" when the
  /// sub-item's NAME is the placeholder "-"; any other name (or none, for an
  /// index out of range) gives the product alone. A package index out of
  /// range gives Table::kOutOfBounds as the product.
  std::string getProductNameByPackageIndex(int packageIndex, int AndSubIndex);

  /// A dictionary the host may fill; this class never reads it.
  PlistDictionary& getPackageIds();

 private:
  TableSingle m_pHeader;
  TableMulti m_pPackage;
  TableMulti m_pSub;
  /// The look-up indexes, built by openWithFileName and the first look-up.
  struct Indexes;
  std::unique_ptr<Indexes> indexes_;
  std::unique_ptr<PlistDictionary> m_pDicPackageId;
};

}  // namespace quarvel
