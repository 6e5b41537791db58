// quarvel fold [TEXT]: shows what saving a data file stores for a text, after
// the special-character folding (accented letters to plain letters, "¦" to
// "|", "¯" to "?", "µ" to "μ", fractions removed).

#include <iostream>
#include <memory>
#include <string>
#include <string_view>

#include "Commands.h"
#include "quarvel/CommonLib.h"

namespace quarvel::cli {

namespace {
// The longest line standard input may hold: far beyond any data-file line.
constexpr std::size_t kMaxLineBytes = std::size_t{64} << 20;
}  // namespace

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
    // Standard input is folded byte for byte, line ends included, a block
    // of whole lines at a time (no fold reaches across a line end), so any
    // amount passes through in bounded memory; only a single line is held
    // whole, up to kMaxLineBytes.
    std::string pending;
    char block[1 << 16];
    while (std::cin.read(block, sizeof block) || std::cin.gcount() > 0) {
      const auto got = static_cast<std::size_t>(std::cin.gcount());
      pending.append(block, got);
      // Only the block just read can hold a new line end: searching all
      // that is pending would go over a long line again for every block.
      const std::size_t inBlock = std::string_view(block, got).rfind('\n');
      if (inBlock == std::string_view::npos) {
        if (pending.size() > kMaxLineBytes) {
          std::cerr << "quarvel fold: a line longer than " << kMaxLineBytes << " bytes\n";
          throw CLI::RuntimeError(1);
        }
        continue;
      }
      const std::size_t lineEnd = pending.size() - got + inBlock;
      std::cout << CommonLib::encodingForSpecialCharacter(
          std::string_view(pending).substr(0, lineEnd + 1));
      pending.erase(0, lineEnd + 1);
    }
    std::cout << CommonLib::encodingForSpecialCharacter(pending);
    std::cout.flush();
    if (!std::cout) throw CLI::RuntimeError(1);
  });
}

}  // namespace quarvel::cli
