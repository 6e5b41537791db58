// gen_checklist RECORDS OUTFILE [VARIANT]: writes a generated check list of
// RECORDS records as an enciphered data file (200,000 records make about
// 40 MB).

#include <cstdio>
#include <cstdlib>
#include <string>

#include "ListGenerator.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s RECORDS OUTFILE [VARIANT]\n", argv[0]);
    return 2;
  }
  const std::size_t records = std::strtoull(argv[1], nullptr, 10);
  const auto variant =
      static_cast<std::uint32_t>(argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 1);
  if (!quarvel::bench::writeCheckListFile(argv[2], records, variant)) {
    std::fprintf(stderr, "%s: not written\n", argv[2]);
    return 1;
  }
  return 0;
}
