#pragma once
// The five data files of an update run in the order it fetches them: the
// path the public list server answers each at, and the local file name it
// replaces in the library folder.

namespace quarvel::testing {

struct DataFileTarget {
  const char* target;
  const char* name;
};

inline constexpr DataFileTarget kDataFileTargets[] = {
    {"/quarvel/download/list/check/mac/", "macchecklist.dat"},
    {"/quarvel/download/list/package/mac/", "macpcklist.dat"},
    {"/quarvel/download/list/filter/mac/", "macfilterlist.dat"},
    {"/quarvel/download/list/user/mac/", "userchecklist.dat"},
    {"/quarvel/download/list/font/mac/", "fontchecklist.dat"},
};

}  // namespace quarvel::testing
