#pragma once
// Building a data file from plain TSV, for the people who maintain the lists
// (`quarvel encrypt --kind`).

#include <iosfwd>
#include <string>
#include <vector>

#include "datafiles/DataFileKind.h"

namespace quarvel::datafile {

// Builds a data file of `kind` from plain TSV files, one per section, named
// after the section ("HEADER.tsv", "CHECKLIST.tsv", "SUB.tsv"...); an input
// that is a folder stands for the .tsv files in it. Each file starts with
// the row of field names. Sections without a file are written empty.
// 0 when written, 1 otherwise (the reason in `err`).
int buildDataFileFromTsv(DataFileKind kind, const std::vector<std::string>& inputs,
                         const std::string& output, std::ostream& err);

}  // namespace quarvel::datafile
