// One object of each data-file class opens two files in turn. The input,
// split at its first byte 0x1E, gives the plain text of the first and of the
// second file (without 0x1E, the same text twice). A table keeps its section
// positions from one open to the next, so the second open works with what
// the first left wherever its own tag lines are missing: it must never read
// beyond its own lines. A refused open leaves every table's records as they
// were; an accepted one only adds records and leaves each section's start
// before its end, with the records that the file's lines give one by one.
// After an accepted open the class's look-ups, asked for a key made of the
// input's first bytes, answer -1 or a record, and every record is found
// under its keys, at itself or at a later record of the same key. The
// writer's buffer always ends in its zero.

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "common/StringUtil.h"
#include "format/DataFileFormat.h"
#include "quarvel/FileCheckList.h"
#include "quarvel/FileFilter.h"
#include "quarvel/FileFontList.h"
#include "quarvel/FilePackage.h"

namespace {

using quarvel::fuzz::fail;

struct Subject {
  quarvel::FileFramework* file;
  std::vector<const char*> tags;
  std::function<std::unique_ptr<unsigned char[]>(std::uint64_t&)> contents;
  bool opened = false;  // by either open

  std::vector<std::uint64_t> counts() {
    std::vector<std::uint64_t> out;
    for (const char* tag : tags) out.push_back(file->getTableByTag(tag)->getDataCount());
    return out;
  }
};

template <typename File>
Subject subject(File& file, std::vector<const char*> tags) {
  return {&file, std::move(tags), [&file](std::uint64_t& n) { return file.getContents(n); }};
}

// A look-up's answer: -1 or a record of `table`.
void noneOrRecord(std::int64_t found, quarvel::Table* table) {
  if (found < -1 || (found >= 0 && static_cast<std::uint64_t>(found) >= table->getDataCount()))
    fail("a look-up answered past the records");
}

bool openOnce(Subject& subject) {
  const std::vector<std::uint64_t> before = subject.counts();
  const bool opened = subject.file->openWithFileName(quarvel::fuzz::scratchPath(), true);
  const std::vector<std::uint64_t> after = subject.counts();
  if (!opened) {
    if (after != before) fail("a refused open changed the records");
    return false;
  }
  for (std::size_t i = 0; i < after.size(); ++i) {
    if (after[i] < before[i]) fail("an open lost records");
    quarvel::Table* table = subject.file->getTableByTag(subject.tags[i]);
    if (table->getStartPosition() < 0 || table->getStartPosition() >= table->getEndPosition())
      fail("an accepted open left a section's start not before its end");
  }
  // The records appended are those that the lines read one by one give.
  std::vector<std::string> lines;
  quarvel::CommonLib::Decrypt(lines, quarvel::fuzz::scratchPath());
  for (std::size_t i = 0; i < after.size(); ++i) {
    auto* table = dynamic_cast<quarvel::TableMulti*>(subject.file->getTableByTag(subject.tags[i]));
    if (table == nullptr) continue;
    quarvel::TableMulti reference;
    reference.setM_arrField(table->m_arrField());
    for (int line = table->getStartPosition() + 1; line < table->getEndPosition(); ++line)
      reference.insertRecord(lines.at(static_cast<std::size_t>(line)), "\t");
    if (reference.getCount() != after[i] - before[i]) fail("records differ in number");
    for (std::uint64_t row = 0; row < reference.getCount(); ++row)
      if (*reference.getAt(static_cast<std::int64_t>(row)) !=
          *table->getAt(static_cast<std::int64_t>(before[i] + row)))
        fail("a record differs from its line");
  }
  return true;
}

// Each record of `table` is found by find(record): at itself, or at a later
// record whose keyOf is the same (the last one wins).
template <typename Find, typename KeyOf>
void findsEveryRecord(quarvel::Table* table, Find&& find, KeyOf&& keyOf) {
  const auto count = static_cast<std::int64_t>(table->getDataCount());
  for (std::int64_t row = 0; row < count; ++row) {
    const quarvel::RecordPtr record = table->getAt(row);
    const std::int64_t found = find(*record);
    if (found < row || found >= count || keyOf(*table->getAt(found)) != keyOf(*record))
      fail("a record is not found under its key");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  quarvel::fuzz::quietLog();
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t cut = input.find('\x1E');
  const std::string_view first = input.substr(0, cut);
  const std::string_view second = cut == std::string_view::npos ? input : input.substr(cut + 1);

  quarvel::FileCheckList checkList;
  quarvel::FilePackage package;
  quarvel::FileFilter filter;
  quarvel::FileFontList fonts;
  Subject subjects[] = {
      subject(checkList, {"#HEADER", "#CHECKLIST"}),
      subject(package, {"#HEADER", "#PACKAGE", "#SUB"}),
      subject(filter, {"#HEADER", "#SWLIST"}),
      subject(fonts, {"#HEADER", "#CHECKLIST"}),
  };
  for (std::string_view text : {first, second}) {
    if (!quarvel::fuzz::writeEnciphered(reinterpret_cast<const std::uint8_t*>(text.data()),
                                        text.size()))
      return 0;
    for (Subject& subject : subjects) {
      subject.opened |= openOnce(subject);
      std::uint64_t length = 0;
      std::unique_ptr<unsigned char[]> contents = subject.contents(length);
      if (contents && contents[length] != 0) fail("the writer's buffer does not end in a zero");
    }
  }
  // The look-ups for a key made of the input's first bytes, only after both
  // opens: an index that a look-up builds on first use is not rebuilt by a
  // later open.
  const std::string key(first.substr(0, 24));
  quarvel::Table* checks = checkList.getTableByTag("#CHECKLIST");
  if (subjects[0].opened) {
    for (int found :
         {checkList.getIdByFileName(key), checkList.getIdByProperty(key), checkList.getIndex(key)})
      noneOrRecord(found, checks);
    checkList.initCompanyAndProduct();
    if (checkList.m_pArrCompany().size() != checks->getDataCount())
      fail("not one company per record");
  }
  if (subjects[1].opened) {
    const int found = package.getPackageIndex(key);
    const auto subs = static_cast<int>(package.getTableByTag("#SUB")->getDataCount());
    for (int sub : {-1, 0, subs - 1, subs}) (void)package.getProductNameByPackageIndex(found, sub);
    (void)package.getProductNameByPackageIndex(0, 0);
  }
  if (subjects[2].opened) noneOrRecord(filter.getIdByFilter(key), filter.getTableByTag("#SWLIST"));
  if (subjects[3].opened) {
    (void)fonts.getIdByFileName(key);
    (void)fonts.getIndex(key);
  }
  using quarvel::Record;
  constexpr std::size_t kExe = quarvel::datafile::kExeFileIndex;
  const auto fileName = [](const Record& r) { return quarvel::lowercase(r[kExe]); };
  const auto property = [](const Record& r) { return quarvel::lowercase(r.joined(1, 4)); };
  const auto identifier = [](const Record& r) { return std::string(r[0]); };
  findsEveryRecord(
      checks, [&](const Record& r) { return checkList.getIdByFileName(r[kExe]); }, fileName);
  findsEveryRecord(
      checks, [&](const Record& r) { return checkList.getIdByProperty(r.joined(1, 4)); }, property);
  findsEveryRecord(
      checks, [&](const Record& r) { return checkList.getIndex(r[0]); }, identifier);
  findsEveryRecord(
      fonts.getTableByTag("#CHECKLIST"),
      [&](const Record& r) { return fonts.getIdByFileName(r[kExe]); }, fileName);
  findsEveryRecord(
      package.getTableByTag("#PACKAGE"),
      [&](const Record& r) { return package.getPackageIndex(r[0]); }, identifier);
  findsEveryRecord(
      filter.getTableByTag("#SWLIST"),
      [&](const Record& r) { return filter.getIdByFilter(r.tabbedText()); },
      [](const Record& r) { return quarvel::lowercase(r.tabbedText()); });
  return 0;
}
