// show, lookup, check: reading the data files from the command line.

#include <iostream>

#include "Commands.h"
#include "DataFileTool.h"
#include "StandardStreams.h"
#include "format/DataFileFormat.h"

namespace quarvel::cli {

namespace {

const std::map<std::string, DataFileKind> kKinds = {{"checklist", DataFileKind::CheckList},
                                                    {"package", DataFileKind::Package},
                                                    {"filter", DataFileKind::Filter},
                                                    {"font", DataFileKind::Font}};

struct ShowOptions {
  std::string file;
  std::optional<DataFileKind> kind;
  bool json = false;
  bool tsv = false;
};

struct LookupOptions {
  std::string file;
  std::optional<DataFileKind> kind;
  LookupQuery query;
  bool json = false;
};

struct CheckOptions {
  std::string file;
  std::optional<DataFileKind> kind;
};

void addKindOption(CLI::App* command, std::optional<DataFileKind>& kind) {
  command
      ->add_option("--kind", kind,
                   "checklist, package, filter or font (default: from the sections)")
      ->transform(CLI::CheckedTransformer(kKinds, CLI::ignore_case))
      ->option_text("checklist|package|filter|font");
}

void fail(int status) {
  if (status != 0) throw CLI::RuntimeError(status);
}

// FILE as given, or a copy of standard input for "-"; an unreadable
// standard input fails as an unreadable file does (`failure`).
std::string readable(const std::string& file, int failure) {
  std::optional<std::string> path = inputPath(file, datafile::kMaxFileBytes, std::cerr);
  if (!path) fail(failure);
  return *path;
}

}  // namespace

void addDataFileCommands(CLI::App& app) {
  auto show = std::make_shared<ShowOptions>();
  CLI::App* showCommand = app.add_subcommand("show", "Print a data file's version and records");
  showCommand->add_option("FILE", show->file, "the data file")->required();
  addKindOption(showCommand, show->kind);
  auto* json = showCommand->add_flag("--json", show->json, "as JSON");
  showCommand->add_flag("--tsv", show->tsv, "as TSV, one block per section")->excludes(json);
  showCommand->callback([show] {
    const OutputFormat format = show->json  ? OutputFormat::Json
                                : show->tsv ? OutputFormat::Tsv
                                            : OutputFormat::Table;
    fail(showDataFile(readable(show->file, 1), show->kind, format, std::cout, std::cerr,
                      show->file));
  });

  auto lookup = std::make_shared<LookupOptions>();
  CLI::App* lookupCommand =
      app.add_subcommand("lookup", "Answer a data file's look-up with the record it finds");
  lookupCommand->add_option("FILE", lookup->file, "the data file")->required();
  addKindOption(lookupCommand, lookup->kind);
  auto* exe = lookupCommand->add_option("--exe", lookup->query.exe, "executable or font file name");
  auto* property = lookupCommand->add_option("--property", lookup->query.property,
                                             "COMPANY\\tPRODUCT\\tVERSION\\tORIGINAL_FILE");
  auto* id = lookupCommand->add_option("--id", lookup->query.id, "DB_ID");
  auto* filter = lookupCommand->add_option("--filter", lookup->query.filter,
                                           "COMPANY\\tPRODUCT\\tVERSION\\tORIGINAL_FILE");
  auto* package = lookupCommand->add_option("--package", lookup->query.package, "package DB_ID");
  lookupCommand->add_option("--sub", lookup->query.sub, "a #SUB record index, for the display name")
      ->needs(package);
  lookupCommand->add_flag("--json", lookup->json, "as JSON (null when no record matches)");
  lookupCommand->footer(
      "Exit status: 0 a record matches, 1 none does, 2 usage error or a file that cannot be "
      "read. FILE may be - for standard input.");
  std::vector<CLI::Option*> keys = {exe, property, id, filter, package};
  for (CLI::Option* key : keys)
    for (CLI::Option* other : keys)
      if (key != other) key->excludes(other);
  lookupCommand->callback([lookup, keys] {
    bool any = false;
    for (CLI::Option* key : keys) any = any || key->count() > 0;
    if (!any)
      throw CLI::ValidationError("lookup",
                                 "give one of --exe, --property, --id, --filter, --package");
    fail(lookupDataFile(readable(lookup->file, 2), lookup->kind, lookup->query, lookup->json,
                        std::cout, std::cerr, lookup->file));
  });

  auto check = std::make_shared<CheckOptions>();
  CLI::App* checkCommand = app.add_subcommand(
      "check", "Validate a data file: refused lines, repeated keys, characters lost on save");
  checkCommand->add_option("FILE", check->file, "the data file")->required();
  checkCommand->footer(
      "Exit status: 0 no errors (warnings allowed), 1 errors found or a file that cannot be "
      "read, 2 usage error. FILE may be - for standard input.");
  addKindOption(checkCommand, check->kind);
  checkCommand->callback([check] {
    fail(checkDataFile(readable(check->file, 1), check->kind, std::cout, std::cerr, check->file));
  });
}

}  // namespace quarvel::cli
