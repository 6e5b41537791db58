#pragma once
// Generates large, realistic check lists for benchmarks and load tests:
// Latin and Korean makers and products, versions, Linux program names,
// install paths and prices, about 200 bytes a record once stored.

#include <cstddef>
#include <cstdint>
#include <string>

namespace quarvel::bench {

// The plain text of a check list file (UTF-8, CR LF) with `records`
// records. The same variant gives the same text. Every record has its own
// DB_ID, property key and EXE_FILE.
std::string generateCheckListText(std::size_t records, std::uint32_t variant = 1);

// The same list written as an enciphered data file at `path`; false when
// it cannot be written.
bool writeCheckListFile(const std::string& path, std::size_t records, std::uint32_t variant = 1);

}  // namespace quarvel::bench
