#include "quarvel/FileCheckList.h"

#include <algorithm>

#include "common/Log.h"
#include "datafiles/LookupIndex.h"
#include "format/DataFileFormat.h"

namespace quarvel {

namespace {

// Line numbers quoted by the log lines.
constexpr int kLineOpenFail = 85;
constexpr int kLineDecryptFail = 93;
constexpr int kLineDamaged = 130;
constexpr int kLineHeaderInsertFail = 142;
constexpr int kLineInsertFail = 151;
constexpr int kLineSaveNotOpen = 174;

}  // namespace

struct FileCheckList::Indexes {
  LookupIndex m_pDicProperty;
  LookupIndex m_pDicFileName;
  LookupIndex m_pDicDbToIdx;
};

FileCheckList::FileCheckList() : indexes_(std::make_unique<Indexes>()) {
  m_pHeader.setTag(std::string(datafile::kHeaderTag));
  m_pHeader.setFieldWithRecord(datafile::kHeaderFields, datafile::kSeparator);
  m_pCheckList.setTag(std::string(datafile::kCheckListTag));
  m_pCheckList.setFieldWithRecord(datafile::kCheckListFields, datafile::kSeparator);
}

FileCheckList::~FileCheckList() = default;

Table* FileCheckList::getTableByTag(std::string_view tag) {
  if (tag == m_pHeader.getTag()) return &m_pHeader;
  if (tag == m_pCheckList.getTag()) return &m_pCheckList;
  return nullptr;
}

std::string FileCheckList::propertyKey(std::string_view company, std::string_view product,
                                       std::string_view version, std::string_view originalFile) {
  return lowerRecordKey(company, product, version, originalFile);
}

bool FileCheckList::openWithFileName(const std::string& fileName, bool isFullPath) {
  logDebugf("%s\n", fileName.c_str());
  const std::string path = resolvePath(fileName, isFullPath);
  Table* const tables[] = {&m_pHeader, &m_pCheckList};
  ReadResult read = readSections(path, tables, true);
  switch (read.status) {
    case ReadStatus::kOpenFailed:
      logf("%s(%d) // CHECKLIST FILE OPEN FAIL. error code? %d", kOpenMethod, kLineOpenFail,
           read.errorCode);
      return false;
    case ReadStatus::kDecryptFailed:
      logf("%s(%d) // CHECKLIST DECRYPT FAIL.", kOpenMethod, kLineDecryptFail);
      return false;
    case ReadStatus::kDamaged:
      logf("%s (%d) // ERROR: CHECKLIST DAMAGED", kOpenMethod, kLineDamaged);
      return false;
    case ReadStatus::kOk:
      break;
  }
  const std::vector<std::string_view>& lines = read.lines;
  for (int i = m_pHeader.getStartPosition() + 1; i < m_pHeader.getEndPosition(); ++i) {
    if (m_pHeader.insertRecord(lines[i], datafile::kSeparator) == -1) {
      logf("%s (%d) // CHECKLIST HEADER INSERT FAIL : %s", kOpenMethod, kLineHeaderInsertFail,
           std::string(lines[i]).c_str());
    }
  }
  // Both look-up indexes take each record's keys as soon as the record is
  // split, while its line is still in the caches: a pass of its own over
  // the records and their text cost each index about as much as the split.
  // The property index, the dearer, is filled on a second core beside the
  // records and the file-name index.
  const auto lineCount = static_cast<std::size_t>(
      std::max(0, m_pCheckList.getEndPosition() - m_pCheckList.getStartPosition() - 1));
  LookupIndex::Filler properties(indexes_->m_pDicProperty, lineCount);
  LookupIndex::Filler fileNames(indexes_->m_pDicFileName, lineCount);
  // The property key's four values are consecutive in a record, so the key
  // is a view of the record's own text.
  static_assert(datafile::kProductIndex == datafile::kCompanyIndex + 1 &&
                datafile::kVersionIndex == datafile::kCompanyIndex + 2 &&
                datafile::kOriginalFileIndex == datafile::kCompanyIndex + 3);
  loadRecords(
      m_pCheckList, read,
      [](std::string_view line) {
        logf("%s (%d) // CHECKLIST INSERT FAIL : %s", kOpenMethod, kLineInsertFail,
             std::string(line).c_str());
      },
      [&](std::int64_t row, const Record& record) {
        fileNames.add(record[datafile::kExeFileIndex], row);
      },
      [&](std::int64_t row, const Record& record) {
        properties.add(record.joined(datafile::kCompanyIndex, datafile::kOriginalFileIndex), row);
      });
  properties.finish();
  fileNames.finish();
  read = ReadResult();  // the records keep the text; the lines go
  setM_strFileName(path);
  return true;
}

std::unique_ptr<unsigned char[]> FileCheckList::getContents(std::uint64_t& size) {
  Table* const tables[] = {&m_pHeader, &m_pCheckList};
  return buildContents(tables, kContentsMethod, size);
}

bool FileCheckList::saveAsFileName(const std::string& fileName, bool isFullPath) {
  const std::string path = resolvePath(fileName, isFullPath);
  std::uint64_t size = 0;
  std::unique_ptr<unsigned char[]> contents = getContents(size);
  return writeContents(path, contents.get(), size);
}

bool FileCheckList::save() {
  const std::optional<std::string> fileName = m_strFileName();
  if (!fileName || fileName->empty()) {
    logf("%s(%d) // CheckList file does not open.", kSaveMethod, kLineSaveNotOpen);
    return false;
  }
  return saveAsFileName(*fileName, true);
}

int FileCheckList::getIdByFileName(std::string_view fileName) const {
  return static_cast<int>(indexes_->m_pDicFileName.findLowered(fileName));
}

int FileCheckList::getIdByProperty(std::string_view property) const {
  return static_cast<int>(indexes_->m_pDicProperty.findLowered(property));
}

int FileCheckList::getIndex(std::string_view dbId) {
  if (indexes_->m_pDicDbToIdx.empty())
    indexField(indexes_->m_pDicDbToIdx, m_pCheckList, datafile::kFieldDbId);
  return static_cast<int>(indexes_->m_pDicDbToIdx.find(dbId));
}

void FileCheckList::initCompanyAndProduct() {
  m_pArrCompany_.clear();
  m_pArrProduct_.clear();
  const std::uint64_t count = m_pCheckList.getDataCount();
  m_pArrCompany_.reserve(count);
  m_pArrProduct_.reserve(count);
  for (std::uint64_t row = 0; row < count; ++row) {
    const auto r = static_cast<std::int64_t>(row);
    m_pArrCompany_.push_back(m_pCheckList.select(r, datafile::kFieldDispCompany));
    m_pArrProduct_.push_back(m_pCheckList.select(r, datafile::kFieldDispProduct));
  }
}

}  // namespace quarvel
