// gen_cli_docs MAN BASH: writes the manual page and the bash completion of
// `quarvel` from its command definitions, so that neither can fall behind
// the commands. Run by the build; both are installed with the tool.

#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Commands.h"
#include "quarvel/Version.h"

namespace {

using quarvel::cli::addAllCommands;

// roff text: backslashes and hyphens escaped, no line starting a request.
std::string roff(const std::string& text) {
  std::string out;
  bool lineStart = true;
  for (char c : text) {
    if (lineStart && (c == '.' || c == '\'')) out += "\\&";
    if (c == '\\')
      out += "\\\\";
    else if (c == '-')
      out += "\\-";
    else
      out += c;
    lineStart = c == '\n';
  }
  return out;
}

std::vector<const CLI::App*> commandsOf(const CLI::App& app) {
  std::vector<const CLI::App*> commands;
  for (const CLI::App* sub : app.get_subcommands({})) commands.push_back(sub);
  return commands;
}

// "--kind, -k" style names of an option; empty for a positional.
std::string optionNames(const CLI::Option& option) {
  std::string names;
  for (const std::string& s : option.get_snames()) names += (names.empty() ? "-" : ", -") + s;
  for (const std::string& l : option.get_lnames()) names += (names.empty() ? "--" : ", --") + l;
  return names;
}

std::string argumentText(const CLI::Option& option) {
  if (!option.get_option_text().empty()) return option.get_option_text();
  if (option.get_type_size() == 0) return {};  // a flag
  return option.get_type_name();
}

std::string usage(const CLI::App& command, const std::string& path) {
  std::string line = path;
  bool hasOptions = false;
  for (const CLI::Option* option : command.get_options({}))
    hasOptions = hasOptions || option->nonpositional();
  if (hasOptions) line += " [OPTIONS]";
  if (!command.get_subcommands({}).empty()) line += " COMMAND";
  for (const CLI::Option* option : command.get_options({}))
    if (option->get_positional())
      line += option->get_required() ? " " + option->get_name() : " [" + option->get_name() + "]";
  return line;
}

void manCommand(std::ostream& out, const CLI::App& command, const std::string& path) {
  out << ".SS \"" << roff(usage(command, path)) << "\"\n"
      << roff(command.get_description()) << "\n";
  for (const CLI::Option* option : command.get_options({})) {
    if (option->get_lnames() == std::vector<std::string>{"help"}) continue;
    const std::string names = option->nonpositional() ? optionNames(*option) : option->get_name();
    const std::string argument = option->nonpositional() ? argumentText(*option) : "";
    out << ".TP\n\\fB" << roff(names) << "\\fR";
    if (!argument.empty()) out << " \\fI" << roff(argument) << "\\fR";
    out << "\n" << roff(option->get_description()) << "\n";
  }
  // A command's own exit statuses; the inherited footer stands once, at the end.
  if (command.get_footer() != command.get_parent()->get_footer())
    out << ".PP\n" << roff(command.get_footer()) << "\n";
  for (const CLI::App* sub : commandsOf(command))
    manCommand(out, *sub, path + " " + sub->get_name());
}

std::string manPage(const CLI::App& app) {
  std::ostringstream out;
  out << ".TH QUARVEL 1 \"\" \"quarvel " << quarvel::version() << "\" \"User Commands\"\n"
      << ".SH NAME\nquarvel \\- " << roff("read, write, serve and update the audit check lists")
      << "\n.SH SYNOPSIS\n.B quarvel\n[\\fB\\-q\\fR | \\fB\\-\\-verbose\\fR] \\fICOMMAND\\fR "
         "[\\fIOPTIONS\\fR] [\\fIARGUMENTS\\fR]\n.br\n.B quarvel \\-\\-version\n"
      << ".SH DESCRIPTION\n"
      << roff(
             "The command-line tool for the people who maintain, host and use the check lists: "
             "it reads and writes the enciphered data files, shows the settings and the "
             "work folders, reports the machine's network identity and reachability, downloads "
             "fresh lists, serves them, and audits a machine against them.")
      << "\n.SH OPTIONS\n";
  for (const CLI::Option* option : app.get_options({})) {
    out << ".TP\n\\fB" << roff(optionNames(*option)) << "\\fR\n"
        << roff(option->get_description()) << "\n";
  }
  out << ".SH COMMANDS\n";
  for (const CLI::App* command : commandsOf(app))
    manCommand(out, *command, "quarvel " + command->get_name());
  out << ".SH EXIT STATUS\n"
      << roff(app.get_footer()) << "\n"
      << ".SH FILES\n.TP\n\\fI$XDG_CONFIG_HOME/com.Corvane.Defaults.plist\\fR\n"
      << roff("The settings domain (default ~/.config).") << "\n"
      << ".SH SEE ALSO\n"
      << roff("systemctl(1) for quarvel-serve.service.") << "\n";
  return out.str();
}

// The words a command offers: its options, its own commands.
std::string wordsOf(const CLI::App& command) {
  std::string words;
  for (const CLI::Option* option : command.get_options({})) {
    for (const std::string& s : option->get_snames()) words += " -" + s;
    for (const std::string& l : option->get_lnames()) words += " --" + l;
  }
  for (const CLI::App* sub : commandsOf(command)) words += " " + sub->get_name();
  return words.empty() ? words : words.substr(1);
}

void completionCases(std::ostream& out, const CLI::App& command, const std::string& key) {
  out << "    '" << key << "') words='" << wordsOf(command) << "' ;;\n";
  for (const CLI::App* sub : commandsOf(command))
    completionCases(out, *sub, key.empty() ? sub->get_name() : key + " " + sub->get_name());
}

// Options whose argument is one of a few words ("checklist|package|...").
void enumerationCases(std::ostream& out, const CLI::App& command, std::set<std::string>& seen) {
  for (const CLI::Option* option : command.get_options({})) {
    const std::string& text = option->get_option_text();
    if (text.find('|') == std::string::npos || !option->nonpositional()) continue;
    std::string words = text;
    for (char& c : words)
      if (c == '|') c = ' ';
    for (const std::string& l : option->get_lnames())
      if (seen.insert(l).second)
        out << "      '--" << l << "') COMPREPLY=($(compgen -W '" << words
            << "' -- \"$cur\")); return ;;\n";
  }
  for (const CLI::App* sub : commandsOf(command)) enumerationCases(out, *sub, seen);
}

std::string completion(const CLI::App& app) {
  std::ostringstream out;
  out << "# bash completion for quarvel, generated from its command definitions.\n"
      << "_quarvel() {\n"
      << "  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}\n"
      << "  local path='' word i words\n"
      << "  case $prev in\n";
  std::ostringstream enums;
  std::set<std::string> seen;
  enumerationCases(enums, app, seen);
  out << enums.str() << "  esac\n"
      << "  # The command path typed so far: the words that name commands.\n"
      << "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
      << "    word=${COMP_WORDS[i]}\n"
      << "    [[ $word == -* ]] && continue\n"
      << "    case \" $(_quarvel_words \"$path\") \" in\n"
      << "      *\" $word \"*) path=${path:+$path }$word ;;\n"
      << "    esac\n"
      << "  done\n"
      << "  words=$(_quarvel_words \"$path\")\n"
      << "  if [[ $cur == -* ]]; then\n"
      << "    COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
      << "    return\n"
      << "  fi\n"
      << "  # Its commands; inside a command, files too (FILE arguments).\n"
      << "  local commands=()\n"
      << "  for word in $words; do [[ $word == -* ]] || commands+=(\"$word\"); done\n"
      << "  COMPREPLY=($(compgen -W \"${commands[*]}\" -- \"$cur\"))\n"
      << "  [[ -n $path ]] && COMPREPLY+=($(compgen -f -- \"$cur\"))\n"
      << "  return 0\n"
      << "}\n"
      << "_quarvel_words() {\n"
      << "  local words=''\n"
      << "  case $1 in\n";
  completionCases(out, app, "");
  out << "  esac\n"
      << "  printf '%s' \"$words\"\n"
      << "}\n"
      << "complete -o filenames -F _quarvel quarvel\n";
  return out.str();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: gen_cli_docs MAN BASH\n";
    return 2;
  }
  CLI::App app{"quarvel: read, write, serve and update the audit check lists", "quarvel"};
  addAllCommands(app);
  std::ofstream man(argv[1]);
  man << manPage(app);
  std::ofstream bash(argv[2]);
  bash << completion(app);
  return man && bash ? 0 : 1;
}
