#include <iostream>
#include <memory>

#include "CipherCommand.h"
#include "Commands.h"
#include "DataFileTool.h"
#include "StandardStreams.h"
#include "format/DataFileFormat.h"

namespace quarvel::cli {
namespace {

void addDecryptCommand(CLI::App& app) {
  auto path = std::make_shared<std::string>();
  auto* decrypt =
      app.add_subcommand("decrypt", "Print the lines of an enciphered data file as UTF-8");
  decrypt->add_option("FILE", *path, "The enciphered data file")->required();
  decrypt->callback([path] {
    const std::optional<std::string> input = inputPath(*path, datafile::kMaxFileBytes, std::cerr);
    if (!input) throw CLI::RuntimeError(1);
    if (int status = runDecrypt(*input, std::cout, std::cerr, *path); status != 0)
      throw CLI::RuntimeError(status);
  });
}

void addEncryptCommand(CLI::App& app) {
  auto options = std::make_shared<EncryptOptions>();
  auto* encrypt = app.add_subcommand(
      "encrypt",
      "Write a UTF-8 text (LF or CR LF line ends) as an enciphered Mac Korean data file");
  encrypt->add_option("TEXTFILE", options->textPath, "The UTF-8 text")->required();
  encrypt->add_option("OUTFILE", options->outPath, "The data file to write")->required();
  // With --kind, TEXTFILE is a TSV file named after its section
  // ("CHECKLIST.tsv") or a folder of them, each starting with its field names.
  auto kind = std::make_shared<std::string>();
  encrypt
      ->add_option("--kind", *kind,
                   "Build a checklist, package, filter or font file from TEXTFILE as plain TSV, "
                   "one file per section (TEXTFILE may be their folder)")
      ->check(CLI::IsMember({"checklist", "package", "filter", "font"}))
      ->option_text("checklist|package|filter|font");
  encrypt->callback([options, kind] {
    int status = 0;
    if (!kind->empty()) {
      status = buildDataFileFromTsv(*parseDataFileKind(*kind), {options->textPath},
                                    options->outPath, std::cerr);
    } else {
      const std::optional<std::string> input =
          inputPath(options->textPath, datafile::kMaxFileBytes, std::cerr);
      if (!input) throw CLI::RuntimeError(1);
      EncryptOptions fromInput = *options;
      fromInput.textPath = *input;
      status = runEncrypt(fromInput, std::cerr);
    }
    if (status != 0) throw CLI::RuntimeError(status);
  });
}

}  // namespace

void addCipherCommands(CLI::App& app) {
  addDecryptCommand(app);
  addEncryptCommand(app);
}

}  // namespace quarvel::cli
