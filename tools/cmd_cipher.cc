#include <iostream>
#include <memory>

#include "CipherCommand.h"
#include "Commands.h"

namespace quarvel::cli {
namespace {

void addDecryptCommand(CLI::App& app) {
  auto path = std::make_shared<std::string>();
  auto* decrypt =
      app.add_subcommand("decrypt", "Print the lines of an enciphered data file as UTF-8");
  decrypt->add_option("FILE", *path, "The enciphered data file")->required();
  decrypt->callback([path] {
    if (int status = runDecrypt(*path, std::cout, std::cerr); status != 0)
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
  encrypt->callback([options] {
    if (int status = runEncrypt(*options, std::cerr); status != 0) throw CLI::RuntimeError(status);
  });
}

}  // namespace

void addCipherCommands(CLI::App& app) {
  addDecryptCommand(app);
  addEncryptCommand(app);
}

}  // namespace quarvel::cli
