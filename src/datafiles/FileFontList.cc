#include "quarvel/FileFontList.h"

#include "datafiles/LookupIndex.h"
#include "format/DataFileFormat.h"

namespace quarvel {

struct FileFontList::Indexes {
  LookupIndex m_pDicFileName;
  LookupIndex m_pDicDbToIdx;
};

FileFontList::FileFontList() : indexes_(std::make_unique<Indexes>()) {
  m_pHeader.setTag(std::string(datafile::kHeaderTag));
  m_pHeader.setFieldWithRecord(datafile::kHeaderFields, datafile::kSeparator);
  m_pFontList.setTag(std::string(datafile::kCheckListTag));
  m_pFontList.setFieldWithRecord(datafile::kFontListFields, datafile::kSeparator);
}

FileFontList::~FileFontList() = default;

Table* FileFontList::getTableByTag(std::string_view tag) {
  if (tag == m_pHeader.getTag()) return &m_pHeader;
  if (tag == m_pFontList.getTag()) return &m_pFontList;
  return nullptr;
}

bool FileFontList::openWithFileName(const std::string& fileName, bool isFullPath) {
  const std::string path = resolvePath(fileName, isFullPath);
  Table* const tables[] = {&m_pHeader, &m_pFontList};
  ReadResult read = readSections(path, tables, false);
  if (read.status != ReadStatus::kOk) return false;
  const std::vector<std::string_view>& lines = read.lines;
  for (int i = m_pHeader.getStartPosition() + 1; i < m_pHeader.getEndPosition(); ++i) {
    m_pHeader.insertRecord(lines[i], datafile::kSeparator);
  }
  const std::int64_t first = loadRecords(m_pFontList, read, [](std::string_view) {});
  read = ReadResult();  // the records keep the text; the lines go
  indexLowered(indexes_->m_pDicFileName, m_pFontList, first,
               [](const Record& record) { return record[datafile::kExeFileIndex]; });
  setM_strFileName(path);
  return true;
}

std::unique_ptr<unsigned char[]> FileFontList::getContents(std::uint64_t& size) {
  Table* const tables[] = {&m_pHeader, &m_pFontList};
  return buildContents(tables, "-[FileFontList getContents:]", size);
}

bool FileFontList::saveAsFileName(const std::string& fileName, bool isFullPath) {
  const std::string path = resolvePath(fileName, isFullPath);
  std::uint64_t size = 0;
  std::unique_ptr<unsigned char[]> contents = getContents(size);
  return writeContents(path, contents.get(), size);
}

int FileFontList::getIdByFileName(std::string_view fileName) const {
  return static_cast<int>(indexes_->m_pDicFileName.findLowered(fileName));
}

int FileFontList::getIndex(std::string_view dbId) {
  if (indexes_->m_pDicDbToIdx.empty())
    indexField(indexes_->m_pDicDbToIdx, m_pFontList, datafile::kFieldDbId);
  return static_cast<int>(indexes_->m_pDicDbToIdx.find(dbId));
}

}  // namespace quarvel
