// quarvel keygen / sign / verify: the list maintainers' keys and the
// signatures published beside the lists.

#include <iostream>
#include <memory>

#include "Commands.h"
#include "SigningTool.h"

namespace quarvel::cli {

void addSigningCommands(CLI::App& app) {
  struct Args {
    std::string key;
    std::string publicKey;
    std::vector<std::string> files;
  };
  auto args = std::make_shared<Args>();

  auto* keygen = app.add_subcommand(
      "keygen", "Make a signing key pair: SECRET (mode 0600) and PUBLIC; neither may exist");
  keygen->add_option("SECRET", args->key, "The secret key file to create")->required();
  keygen->add_option("PUBLIC", args->publicKey, "The public key file to create")->required();
  keygen->callback([args] {
    if (int status = generateKeyFiles(args->key, args->publicKey, std::cerr); status != 0)
      throw CLI::RuntimeError(status);
  });

  auto* sign = app.add_subcommand("sign", "Write FILE.sig beside each FILE, signed with SECRET");
  sign->add_option("SECRET", args->key, "The secret key file")->required();
  sign->add_option("FILE", args->files, "The files to sign")->required();
  sign->callback([args] {
    if (int status = signFiles(args->key, args->files, std::cerr); status != 0)
      throw CLI::RuntimeError(status);
  });

  auto* verify = app.add_subcommand(
      "verify", "Check each FILE against FILE.sig with PUBLIC; exit 0 only when all hold");
  verify->add_option("PUBLIC", args->publicKey, "The public key file")->required();
  verify->add_option("FILE", args->files, "The files to check")->required();
  verify->callback([args] {
    if (int status = verifyFiles(args->publicKey, args->files, std::cout, std::cerr); status != 0)
      throw CLI::RuntimeError(status);
  });
}

}  // namespace quarvel::cli
