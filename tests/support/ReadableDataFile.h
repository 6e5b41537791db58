#pragma once
// The smallest data file of a kind that the library's reader opens, padded
// to a given size: each section in order ("#HEADER" with one record, the
// others empty), then filler lines outside every section, which the reader
// passes over; enciphered as the data files are.

#include <algorithm>
#include <string>

#include "datafiles/DataFileKind.h"
#include "quarvel/CommonLib.h"

namespace quarvel::testing {

// `size` is a floor: a file is never smaller than its sections.
inline std::string readableDataFile(datafile::DataFileKind kind, std::size_t size = 0) {
  std::string text;
  for (const std::string& tag : datafile::sectionTags(kind)) {
    text += tag + "_START\r\n";
    if (tag == "#HEADER") text += "1\r\n";
    text += tag + "_END\r\n";
  }
  while (text.size() < size) {
    const std::size_t line = std::min<std::size_t>(size - text.size(), 1000);
    text += line < 2 ? std::string(line, '\n') : std::string(line - 2, 'x') + "\r\n";
  }
  CommonLib::Encrypt(reinterpret_cast<unsigned char*>(text.data()),
                     static_cast<std::uint32_t>(text.size()));
  return text;
}

// The kind of each of the run's five lists, in its order.
inline constexpr datafile::DataFileKind kListKinds[] = {
    datafile::DataFileKind::CheckList, datafile::DataFileKind::Package,
    datafile::DataFileKind::Filter, datafile::DataFileKind::CheckList,
    datafile::DataFileKind::Font};

}  // namespace quarvel::testing
