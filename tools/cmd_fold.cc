// quarvel fold [TEXT]: shows what saving a data file stores for a text, after
// the special-character folding (accented letters to plain letters, "¦" to
// "|", "¯" to "?", "µ" to "μ", fractions removed).

#include <iostream>
#include <iterator>
#include <memory>
#include <string>

#include "Commands.h"
#include "quarvel/CommonLib.h"

namespace quarvel::cli {

void addFoldCommand(CLI::App& app) {
  auto text = std::make_shared<std::string>();
  auto* fold = app.add_subcommand(
      "fold",
      "Print TEXT (or standard input) as a data-file save stores it, special characters folded");
  auto* option = fold->add_option("TEXT", *text, "The text to fold; standard input when absent");
  fold->callback([text, option] {
    if (option->count() > 0) {
      std::cout << CommonLib::encodingForSpecialCharacter(*text) << '\n';
      return;
    }
    // Standard input is folded byte for byte, line ends included.
    std::string input{std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
    std::cout << CommonLib::encodingForSpecialCharacter(input);
    std::cout.flush();
    if (!std::cout) throw CLI::RuntimeError(1);
  });
}

}  // namespace quarvel::cli
