#pragma once
// The sectioned text format shared by every data file, in one place so that
// the reader and the writer cannot drift apart.
//
// Plain text of a file (before enciphering): for each of the class's tables,
// in the class's fixed order, the line "<tag>_START", one line per record
// (values joined by a single tab), and the line "<tag>_END". Every line, the
// last included, ends in CR LF. No blank lines, field names or comments: the
// field lists are fixed by each class. The text is folded, stored as Mac
// Korean bytes and enciphered as a whole (CommonLib::Encrypt).

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace quarvel::datafile {

// Line syntax.
inline constexpr std::string_view kStartSuffix = "_START";
inline constexpr std::string_view kEndSuffix = "_END";
inline constexpr std::string_view kLineEnd = "\r\n";
inline constexpr std::string_view kSeparator = "\t";
// Longest line, without its CR LF, that the format allows (the line reader
// keeps a 2,048-byte buffer with a terminating zero).
inline constexpr std::size_t kMaxLineBytes = 2047;
// Largest file the cipher can take: it counts bytes in 32 bits.
inline constexpr std::uint64_t kMaxFileBytes = UINT32_MAX;

// Whether a record can be stored as one line, the rule every writer of data
// files applies (the library's save, `quarvel encrypt --kind`). A record's
// line is its values joined by tabs; the reader would split or damage it at
// a CR or LF inside a value, and drops it whole when it is longer than
// kMaxLineBytes as stored (folded, then Mac Korean). A zero byte is no fault
// here: the stored text simply ends there.
enum class LineFault {
  kNone,
  kLineBreak,  // a CR or LF inside a value
  kTooLong,    // more than kMaxLineBytes stored bytes
};

// The rule's first half, on the record's own text (values joined by tabs).
inline bool holdsLineBreak(std::string_view text) {
  return text.find('\r') != std::string_view::npos || text.find('\n') != std::string_view::npos;
}

// The rule's second half, on the length of the stored line without CR LF.
inline constexpr bool fitsOneLine(std::size_t storedBytes) { return storedBytes <= kMaxLineBytes; }

// Both halves for one record's text: folds and encodes it to measure it.
// `storedBytes`, when given, receives the stored line's length. A character
// without a Mac Korean form is another refusal, which the writer reports
// with the character: such a text answers kNone here, with 0 bytes.
LineFault recordLineFault(std::string_view text, std::size_t* storedBytes = nullptr);

// Section tags, with their leading '#'.
inline constexpr std::string_view kHeaderTag = "#HEADER";
inline constexpr std::string_view kCheckListTag = "#CHECKLIST";
inline constexpr std::string_view kPackageTag = "#PACKAGE";
inline constexpr std::string_view kSubTag = "#SUB";
inline constexpr std::string_view kSwListTag = "#SWLIST";

// Field lists, tab-separated as a field-list line.
inline constexpr std::string_view kHeaderFields = "Version";
inline constexpr std::string_view kCheckListFields =
    "DB_ID\tCOMPANY\tPRODUCT\tVERSION\tORIGINAL_FILE\tEXE_FILE\tDISP_COMPANY\tDISP_PRODUCT\t"
    "PRICE\tSW_TYPE\tGRP_ID\tGRP_NAME\tGRP_SEQ\tREG_PATH\tREG\tWEB\tLIC";
inline constexpr std::string_view kFontListFields =
    "DB_ID\tCOMPANY\tPRODUCT\tVERSION\tORIGINAL_FILE\tEXE_FILE\tDISP_COMPANY\tDISP_PRODUCT\t"
    "PRICE\tSW_TYPE\tGRP_ID\tGRP_NAME\tGRP_SEQ\tREG_PATH";
inline constexpr std::string_view kPackageFields =
    "DB_ID\tCOMPANY\tPRODUCT\tSW_TYPE\tGRP_ID\tGRP_NAME\tGRP_SEQ\tSUIT";
inline constexpr std::string_view kSubFields = "PACKAGE_ID\tNAME\tPRICE\tSUIT";
inline constexpr std::string_view kSwListFields = "COMPANY\tPRODUCT\tVERSION\tORIGINAL_FILE";

// Field counts of a record line (tabs + 1).
inline constexpr std::size_t kFontListFieldCount = 14;

// Field names the classes interpret.
inline constexpr std::string_view kFieldVersion = "Version";
inline constexpr std::string_view kFieldDbId = "DB_ID";
inline constexpr std::string_view kFieldCompany = "COMPANY";
inline constexpr std::string_view kFieldProduct = "PRODUCT";
inline constexpr std::string_view kFieldVersionValue = "VERSION";
inline constexpr std::string_view kFieldOriginalFile = "ORIGINAL_FILE";
inline constexpr std::string_view kFieldExeFile = "EXE_FILE";
inline constexpr std::string_view kFieldDispCompany = "DISP_COMPANY";
inline constexpr std::string_view kFieldDispProduct = "DISP_PRODUCT";
inline constexpr std::string_view kFieldName = "NAME";

// Positions of those fields in a check list / font list record.
inline constexpr std::size_t kCompanyIndex = 1;
inline constexpr std::size_t kProductIndex = 2;
inline constexpr std::size_t kVersionIndex = 3;
inline constexpr std::size_t kOriginalFileIndex = 4;
inline constexpr std::size_t kExeFileIndex = 5;

// The files' names inside the library folder.
inline constexpr std::string_view kCheckListFileName = "macchecklist.dat";
inline constexpr std::string_view kUserCheckListFileName = "userchecklist.dat";
inline constexpr std::string_view kPackageFileName = "macpcklist.dat";
inline constexpr std::string_view kFilterFileName = "macfilterlist.dat";
inline constexpr std::string_view kFontListFileName = "fontchecklist.dat";

// The lists a client fetches and a list server hands out, in the update
// run's order: the file's name in the library folder and the public list
// server's path that answers with it.
struct ListEndpoint {
  std::string_view fileName;
  std::string_view publicPath;
};
inline constexpr std::array<ListEndpoint, 5> kListEndpoints{{
    {kCheckListFileName, "/quarvel/download/list/check/mac/"},
    {kPackageFileName, "/quarvel/download/list/package/mac/"},
    {kFilterFileName, "/quarvel/download/list/filter/mac/"},
    {kUserCheckListFileName, "/quarvel/download/list/user/mac/"},
    {kFontListFileName, "/quarvel/download/list/font/mac/"},
}};

// The in-house web server's download endpoint, asked with
// "?type=keyfile&filename=NAME" for a list and "?type=file&filename=NAME"
// (on the fixed file server) for any other file.
inline constexpr std::string_view kDownloadEndpoint = "/cmmn/download.nis";
inline constexpr std::string_view kKeyFileQuery = "?type=keyfile&filename=";
inline constexpr std::string_view kFileQuery = "?type=file&filename=";
// The Windows package server's path; a file's name follows it.
inline constexpr std::string_view kWindowsPackagePath = "/file/keyfile60";

// Detached signatures (format/Signature.h). A file's signature lies beside
// it as "<name>.sig", and is asked for at the file's own address with the
// suffix on the path ("/quarvel/download/list/check/mac/.sig",
// "/file/keyfile60/package.dat.sig"), except where the query names the
// file: there the name takes it
// ("/cmmn/download.nis?type=keyfile&filename=macchecklist.dat.sig").
inline constexpr std::string_view kSignatureSuffix = ".sig";

// The address of the signature of what `url` (or a request target) answers
// with, by the rule above: the first "filename" parameter's value, when the
// query has one, gets the suffix; otherwise the path does.
std::string signatureUrl(std::string_view url);

// The audit reports a machine sends to a collector: the collector's path
// (appended to its base address), the largest report body either side
// accepts, the largest enrolment-secret file read, and the report layout's
// version ("format").
inline constexpr std::string_view kReportsEndpoint = "/api/reports";
inline constexpr std::size_t kMaxReportBytes = 8u << 20;
inline constexpr std::size_t kMaxSecretFileBytes = 4096;
inline constexpr int kReportFormatVersion = 1;

}  // namespace quarvel::datafile
