#include "quarvel/FilePackage.h"

#include "common/StringUtil.h"
#include "datafiles/LookupIndex.h"
#include "format/DataFileFormat.h"
#include "quarvel/CommonLib.h"

namespace quarvel {

struct FilePackage::Indexes {
  LookupIndex m_pDicPackageId2Idx;
};

FilePackage::FilePackage()
    : indexes_(std::make_unique<Indexes>()), m_pDicPackageId(std::make_unique<PlistDictionary>()) {
  m_pHeader.setTag(std::string(datafile::kHeaderTag));
  m_pHeader.setFieldWithRecord(datafile::kHeaderFields, datafile::kSeparator);
  m_pPackage.setTag(std::string(datafile::kPackageTag));
  m_pPackage.setFieldWithRecord(datafile::kPackageFields, datafile::kSeparator);
  m_pSub.setTag(std::string(datafile::kSubTag));
  m_pSub.setFieldWithRecord(datafile::kSubFields, datafile::kSeparator);
}

FilePackage::~FilePackage() = default;

Table* FilePackage::getTableByTag(std::string_view tag) {
  if (tag == m_pHeader.getTag()) return &m_pHeader;
  if (tag == m_pPackage.getTag()) return &m_pPackage;
  if (tag == m_pSub.getTag()) return &m_pSub;
  return nullptr;
}

bool FilePackage::openWithFileName(const std::string& fileName, bool isFullPath) {
  const std::string path = resolvePath(fileName, isFullPath);
  Table* const tables[] = {&m_pHeader, &m_pPackage, &m_pSub};
  ReadResult read = readSections(path, tables, false);
  if (read.status != ReadStatus::kOk) return false;
  for (int i = m_pHeader.getStartPosition() + 1; i < m_pHeader.getEndPosition(); ++i) {
    m_pHeader.insertRecord(read.lines[i], datafile::kSeparator);
  }
  // No index is built here: getPackageIndex builds its own on first use.
  const auto ignore = [](std::string_view) {};
  loadRecords(m_pPackage, read, ignore);
  loadRecords(m_pSub, read, ignore);
  setM_strFileName(path);
  return true;
}

std::unique_ptr<unsigned char[]> FilePackage::getContents(std::uint64_t& size) {
  Table* const tables[] = {&m_pHeader, &m_pPackage, &m_pSub};
  return buildContents(tables, "-[FilePackage getContents:]", size);
}

bool FilePackage::saveAsFileName(const std::string& fileName, bool isFullPath) {
  const std::string path = resolvePath(fileName, isFullPath);
  const std::string folder = deletingLastPathComponent(path);
  if (!folder.empty() && !CommonLib::isExists(folder.c_str())) {
    CommonLib::mkdirs(folder.c_str(), true);
  }
  std::uint64_t size = 0;
  std::unique_ptr<unsigned char[]> contents = getContents(size);
  return writeContents(path, contents.get(), size);
}

int FilePackage::getPackageIndex(std::string_view packageId) {
  if (indexes_->m_pDicPackageId2Idx.empty())
    indexField(indexes_->m_pDicPackageId2Idx, m_pPackage, datafile::kFieldDbId);
  return static_cast<int>(indexes_->m_pDicPackageId2Idx.find(packageId));
}

std::string FilePackage::getProductNameByPackageIndex(int packageIndex, int AndSubIndex) {
  // The tables throw on some out-of-range rows (an empty table); answer as
  // for a missing record instead.
  const auto inRange = [](Table& table, int index) {
    return index >= 0 && static_cast<std::uint64_t>(index) < table.getDataCount();
  };
  std::string product = inRange(m_pPackage, packageIndex)
                            ? m_pPackage.select(packageIndex, datafile::kFieldProduct)
                            : std::string(Table::kOutOfBounds);
  if (!inRange(m_pSub, AndSubIndex)) return product;
  const std::string name = m_pSub.select(AndSubIndex, datafile::kFieldName);
  if (name == "-") return product + "(" + name + ")";
  return product;
}

PlistDictionary& FilePackage::getPackageIds() {
  if (!m_pDicPackageId) m_pDicPackageId = std::make_unique<PlistDictionary>();
  return *m_pDicPackageId;
}

}  // namespace quarvel
