#include "ListGenerator.h"

#include <array>
#include <random>

#include "quarvel/FileCheckList.h"

namespace quarvel::bench {

namespace {

constexpr std::array kLatinMakers = {"Brightpath Labs",   "Tidewell Software", "Solvane Systems",
                                     "Kestrel Audio",     "Greyfen Security",  "Orchard Tools",
                                     "Northmere Digital", "Copperleaf Inc."};
constexpr std::array kKoreanMakers = {"한결소프트", "다온테크",   "물결미디어",
                                      "누리정보",   "가람시스템", "새봄소프트"};
constexpr std::array kLatinWords = {"Photo",  "Code",   "Sound", "Ledger", "Schema", "Clip",
                                    "Vector", "Render", "Sync",  "Vault",  "Draft",  "Frame"};
constexpr std::array kLatinTails = {"Loom",  "Harbor", "Smith", "Forge", "Nest",
                                    "Works", "Studio", "Desk",  "Flow",  "Point"};
constexpr std::array kKoreanWords = {"문서편집기", "영상편집", "회계관리", "설계도구",
                                     "보안점검",   "사진보정", "자료관리", "일정관리"};
constexpr std::array kGroups = {"그래픽", "사무용",     "개발도구", "설계",
                                "회계",   "멀티미디어", "보안",     "유틸리티"};
constexpr std::array kLicences = {"상용", "셰어웨어", "프리웨어"};

std::string slug(std::string_view text, std::size_t n) {
  std::string out;
  for (char c : text) {
    if (c >= 'A' && c <= 'Z')
      out += static_cast<char>(c - 'A' + 'a');
    else if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'))
      out += c;
  }
  return out + "-" + std::to_string(n);
}

}  // namespace

std::string generateCheckListText(std::size_t records, std::uint32_t variant) {
  std::mt19937 random(variant);
  auto pick = [&](const auto& list) { return list[random() % list.size()]; };
  std::string text = "#HEADER_START\r\n2024.06.14\r\n#HEADER_END\r\n#CHECKLIST_START\r\n";
  text.reserve(records * 230 + 128);
  for (std::size_t i = 0; i < records; ++i) {
    const bool korean = random() % 3 == 0;
    const std::string maker = korean ? pick(kKoreanMakers) : pick(kLatinMakers);
    const std::string product =
        korean ? std::string(pick(kKoreanWords)) + " " + std::to_string(i % 97)
               : std::string(pick(kLatinWords)) + pick(kLatinTails) + " " + std::to_string(i % 89);
    const std::string version =
        std::to_string(1 + random() % 12) + "." + std::to_string(random() % 10);
    const std::string original =
        korean ? "App" + std::to_string(i) : std::string(pick(kLatinWords)) + pick(kLatinTails);
    const std::string exe = slug(original, i);
    const std::string fields[] = {"SW" + std::to_string(100000 + i),
                                  maker,
                                  product,
                                  version,
                                  original + std::to_string(i),
                                  exe,
                                  maker,
                                  product + " " + version,
                                  std::to_string(10000 * (1 + random() % 120)),
                                  std::to_string(1 + random() % 3),
                                  "G0" + std::to_string(1 + random() % 8),
                                  pick(kGroups),
                                  std::to_string(1 + random() % 8),
                                  "/opt/" + exe,
                                  random() % 2 ? "Y" : "N",
                                  "https://" + slug(maker, 0) + ".example/" + exe,
                                  pick(kLicences)};
    for (std::size_t f = 0; f < std::size(fields); ++f) {
      if (f) text += '\t';
      text += fields[f];
    }
    text += "\r\n";
  }
  text += "#CHECKLIST_END\r\n";
  return text;
}

bool writeCheckListFile(const std::string& path, std::size_t records, std::uint32_t variant) {
  FileCheckList list;
  const std::string text = generateCheckListText(records, variant);
  std::size_t at = text.find("#CHECKLIST_START\r\n") + 18;
  list.getTableByTag("#HEADER")->insertRecord("2024.06.14", "\t");
  Table* table = list.getTableByTag("#CHECKLIST");
  const std::size_t end = text.find("#CHECKLIST_END");
  while (at < end) {
    const std::size_t lineEnd = text.find("\r\n", at);
    table->insertRecord(std::string_view(text).substr(at, lineEnd - at), "\t");
    at = lineEnd + 2;
  }
  return list.saveAsFileName(path, true);
}

}  // namespace quarvel::bench
