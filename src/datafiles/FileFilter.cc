#include "quarvel/FileFilter.h"

#include "datafiles/LookupIndex.h"
#include "format/DataFileFormat.h"

namespace quarvel {

struct FileFilter::Indexes {
  LookupIndex m_pDicFilter;
};

FileFilter::FileFilter() : indexes_(std::make_unique<Indexes>()) {
  m_pHeader.setTag(std::string(datafile::kHeaderTag));
  m_pHeader.setFieldWithRecord(datafile::kHeaderFields, datafile::kSeparator);
  m_pSWList.setTag(std::string(datafile::kSwListTag));
  m_pSWList.setFieldWithRecord(datafile::kSwListFields, datafile::kSeparator);
}

FileFilter::~FileFilter() = default;

Table* FileFilter::getTableByTag(std::string_view tag) {
  if (tag == m_pHeader.getTag()) return &m_pHeader;
  if (tag == m_pSWList.getTag()) return &m_pSWList;
  return nullptr;
}

std::string FileFilter::filterKey(std::string_view company, std::string_view product,
                                  std::string_view version, std::string_view originalFile) {
  return lowerRecordKey(company, product, version, originalFile);
}

bool FileFilter::openWithFileName(const std::string& fileName, bool isFullPath) {
  const std::string path = resolvePath(fileName, isFullPath);
  Table* const tables[] = {&m_pHeader, &m_pSWList};
  ReadResult read = readSections(path, tables, false);
  if (read.status != ReadStatus::kOk) return false;
  const std::vector<std::string_view>& lines = read.lines;
  for (int i = m_pHeader.getStartPosition() + 1; i < m_pHeader.getEndPosition(); ++i) {
    m_pHeader.insertRecord(lines[i], datafile::kSeparator);
  }
  const std::int64_t first = loadRecords(m_pSWList, read, [](std::string_view) {});
  read = ReadResult();  // the records keep the text; the lines go
  // A loaded record holds exactly the four key values, in key order.
  indexLowered(indexes_->m_pDicFilter, m_pSWList, first,
               [](const Record& record) { return record.tabbedText(); });
  setM_strFileName(path);
  return true;
}

std::unique_ptr<unsigned char[]> FileFilter::getContents(std::uint64_t& size) {
  Table* const tables[] = {&m_pHeader, &m_pSWList};
  return buildContents(tables, "-[FileFilter getContents:]", size);
}

bool FileFilter::saveAsFileName(const std::string& fileName, bool isFullPath) {
  const std::string path = resolvePath(fileName, isFullPath);
  std::uint64_t size = 0;
  std::unique_ptr<unsigned char[]> contents = getContents(size);
  return writeContents(path, contents.get(), size);
}

int FileFilter::getIdByFilter(std::string_view filter) const {
  return static_cast<int>(indexes_->m_pDicFilter.findLowered(filter));
}

}  // namespace quarvel
