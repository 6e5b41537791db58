// One object of each data-file class opens two files in turn, the input's
// text before and after its first 0x1E (or the same twice). Tables keep their
// section positions across opens, so the second open must never read beyond
// its own lines. A refused open changes no records; an accepted one only adds
// those its lines give one by one, each section's start before its end. The
// look-ups answer -1 or a record, every record is found under its keys (at
// itself or a later record of the same key), and the writer's buffer ends in
// its zero. A look-up of the input's first bytes as a key finds what the
// full lower-casing rule finds.

#include <functional>

#include "FuzzSupport.h"
#include "common/StringUtil.h"
#include "datafiles/LookupIndex.h"
#include "format/DataFileFormat.h"
#include "quarvel/FileCheckList.h"
#include "quarvel/FileFilter.h"
#include "quarvel/FileFontList.h"
#include "quarvel/FilePackage.h"

namespace {

using namespace quarvel;
using fuzz::fail;

// `key` as given, lowered, and with one byte changed, against an index of
// its lowered form: found just where lower-casing makes it that form.
void lookUpKey(std::string_view key) {
  LookupIndex index;
  const std::string lowered = lowerKey(key);
  index.set(lowered, 7);
  if (index.findLowered(key) != 7 || index.findLowered(lowered) != 7)
    fail("a key is not found under its lower case");
  for (std::size_t at : {std::size_t{0}, key.size() / 2, key.size() - 1}) {
    if (key.empty()) break;
    std::string other(key);
    other[at] = static_cast<char>(other[at] ^ 0x20);
    if (index.findLowered(other) != (lowerKey(other) == lowered ? 7 : -1))
      fail("a changed key is found where lower-casing does not lead");
  }
}

// A look-up's answer: -1 or a record of `table`.
void noneOrRecord(std::int64_t found, Table* table) {
  if (found < -1 || (found >= 0 && static_cast<std::uint64_t>(found) >= table->getDataCount()))
    fail("a look-up answered past the records");
}

// Opens the scratch file with `file`, whose sections are `tags`, and writes
// it; answers whether the open was accepted.
template <typename File>
bool openOnce(File& file, std::initializer_list<const char*> tags) {
  const auto counts = [&] {
    std::vector<std::uint64_t> out;
    for (const char* tag : tags) out.push_back(file.getTableByTag(tag)->getDataCount());
    return out;
  };
  const std::vector<std::uint64_t> before = counts();
  const bool opened = file.openWithFileName(fuzz::scratchPath(), true);
  const std::vector<std::uint64_t> after = counts();
  if (!opened && after != before) fail("a refused open changed the records");
  std::vector<std::string> lines;
  if (opened) CommonLib::Decrypt(lines, fuzz::scratchPath());
  for (std::size_t i = 0; opened && i < after.size(); ++i) {
    if (after[i] < before[i]) fail("an open lost records");
    Table* table = file.getTableByTag(tags.begin()[i]);
    if (table->getStartPosition() < 0 || table->getStartPosition() >= table->getEndPosition())
      fail("an accepted open left a section's start not before its end");
    auto* multi = dynamic_cast<TableMulti*>(table);
    if (multi == nullptr) continue;
    TableMulti reference;
    reference.setM_arrField(multi->m_arrField());
    for (int line = multi->getStartPosition() + 1; line < multi->getEndPosition(); ++line)
      reference.insertRecord(lines.at(static_cast<std::size_t>(line)), "\t");
    if (reference.getCount() != after[i] - before[i]) fail("records differ in number");
    for (std::uint64_t row = 0; row < reference.getCount(); ++row)
      if (*reference.getAt(static_cast<std::int64_t>(row)) !=
          *multi->getAt(static_cast<std::int64_t>(before[i] + row)))
        fail("a record differs from its line");
  }
  std::uint64_t length = 0;
  const auto contents = file.getContents(length);
  if (contents && contents[length] != 0) fail("the writer's buffer does not end in a zero");
  return opened;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::quietLog();
  const std::string_view input = fuzz::asText(data, size);
  const std::size_t cut = input.find('\x1E');
  const std::string_view first = input.substr(0, cut);
  const std::string_view second = cut == std::string_view::npos ? input : input.substr(cut + 1);

  lookUpKey(first.substr(0, 80));

  FileCheckList checkList;
  FilePackage package;
  FileFilter filter;
  FileFontList fonts;
  bool opened[4] = {};
  for (std::string_view text : {first, second}) {
    if (!fuzz::writeEnciphered(text)) return 0;
    opened[0] |= openOnce(checkList, {"#HEADER", "#CHECKLIST"});
    opened[1] |= openOnce(package, {"#HEADER", "#PACKAGE", "#SUB"});
    opened[2] |= openOnce(filter, {"#HEADER", "#SWLIST"});
    opened[3] |= openOnce(fonts, {"#HEADER", "#CHECKLIST"});
  }
  // The look-ups only after both opens: an index that a look-up builds on
  // first use is not rebuilt by a later open.
  const std::string key(first.substr(0, 24));
  Table* checks = checkList.getTableByTag("#CHECKLIST");
  if (opened[0]) {
    for (int found :
         {checkList.getIdByFileName(key), checkList.getIdByProperty(key), checkList.getIndex(key)})
      noneOrRecord(found, checks);
    checkList.initCompanyAndProduct();
    if (checkList.m_pArrCompany().size() != checks->getDataCount())
      fail("not one company per record");
  }
  if (opened[1]) {
    const int found = package.getPackageIndex(key);
    const auto subs = static_cast<int>(package.getTableByTag("#SUB")->getDataCount());
    for (int sub : {-1, 0, subs - 1, subs}) (void)package.getProductNameByPackageIndex(found, sub);
    (void)package.getProductNameByPackageIndex(0, 0);
  }
  if (opened[2]) noneOrRecord(filter.getIdByFilter(key), filter.getTableByTag("#SWLIST"));
  if (opened[3]) {
    (void)fonts.getIdByFileName(key);
    (void)fonts.getIndex(key);
  }
  // Each record is found under its key: at itself, or at a later record of
  // the same key (the last one wins).
  using Key = std::function<std::string(const Record&)>;
  constexpr std::size_t kExe = datafile::kExeFileIndex;
  const Key fileName = [](const Record& r) { return lowercase(r[kExe]); };
  const Key identifier = [](const Record& r) { return std::string(r[0]); };
  const Key property = [](const Record& r) { return lowercase(r.joined(1, 4)); };
  const Key text = [](const Record& r) { return lowercase(r.tabbedText()); };
  const std::tuple<Table*, std::function<std::int64_t(const Record&)>, Key> lookups[] = {
      {checks, [&](const Record& r) { return checkList.getIdByFileName(r[kExe]); }, fileName},
      {checks, [&](const Record& r) { return checkList.getIdByProperty(r.joined(1, 4)); },
       property},
      {checks, [&](const Record& r) { return checkList.getIndex(r[0]); }, identifier},
      {fonts.getTableByTag("#CHECKLIST"),
       [&](const Record& r) { return fonts.getIdByFileName(r[kExe]); }, fileName},
      {package.getTableByTag("#PACKAGE"),
       [&](const Record& r) { return package.getPackageIndex(r[0]); }, identifier},
      {filter.getTableByTag("#SWLIST"),
       [&](const Record& r) { return filter.getIdByFilter(r.tabbedText()); }, text},
  };
  for (const auto& [table, find, keyOf] : lookups) {
    const auto count = static_cast<std::int64_t>(table->getDataCount());
    for (std::int64_t row = 0; row < count; ++row) {
      const RecordPtr record = table->getAt(row);
      const std::int64_t found = find(*record);
      if (found < row || found >= count || keyOf(*table->getAt(found)) != keyOf(*record))
        fail("a record is not found under its key");
    }
  }
  return 0;
}
