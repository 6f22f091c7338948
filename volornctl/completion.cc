#include "volornctl/completion.h"

#include <algorithm>
#include <vector>

#include "volornctl/choices.h"

namespace volorn::ctl {
namespace {

std::vector<const CLI::App*> commandsOf(const CLI::App& program) {
  std::vector<const CLI::App*> commands;
  for (const CLI::App* command : program.get_subcommands({})) {
    if (!command->get_group().empty()) commands.push_back(command);
  }
  return commands;
}

// -o and --sort of an option.
std::vector<std::string> namesOf(const CLI::Option& option) {
  std::vector<std::string> names;
  for (const std::string& name : option.get_snames()) names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) names.push_back("--" + name);
  return names;
}

bool takesValue(const CLI::Option& option) {
  return option.get_items_expected_max() > 0;
}

// The parser writes a validator's description behind it.
std::string typeOf(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  return type.substr(0, type.find(':'));
}

std::string joined(const std::vector<std::string>& words, const char* separator) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : separator) + word;
  return text;
}

// In single quotes.
std::string shellQuoted(const std::string& text) {
  std::string result = "'";
  for (const char c : text) {
    if (c == '\'') {
      result += "'\\''";
    } else {
      result += c;
    }
  }
  return result + "'";
}

// One shell's way to say what an option takes.
struct Ways {
  std::string folders, files, choices;
  std::string nothing;  // a value that nobody can name
};

std::string valueIn(const Ways& ways, const CLI::Option& option) {
  if (typeOf(option) == "DIR") return ways.folders;
  if (typeOf(option) == "FILE") return ways.files;
  const std::vector<std::string> choices = choicesOf(option);
  if (choices.empty()) return ways.nothing;
  std::string text = ways.choices;
  return text.replace(text.find('%'), 1, joined(choices, " "));
}

// -- bash

constexpr const char* kBashBegin = R"(# Completion of volornctl for bash, by the program's own parser.
_volornctl() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command='' choices='' i
  # An equals sign is a word of its own here.
  if [ "$word" = = ]; then
    word=''
  elif [ "$before" = = ]; then
    before=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case ${COMP_WORDS[i]} in
)";

constexpr const char* kBashMiddle =
    R"( if [ "${COMP_WORDS[i + 1]}" = = ]; then ((i += 2)); else ((++i)); fi ;;
      -*) ;;
      *) command=${COMP_WORDS[i]} && break ;;
    esac
  done
  case $command:$before in
)";

constexpr const char* kBashEnd = R"(  esac
  mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$word")
}
complete -F _volornctl volornctl
)";

std::string bashCases(const CLI::App& parser, const std::string& command) {
  static const Ways kWays = {
      .folders = "compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- \"$word\"); return",
      .files = "compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- \"$word\"); return",
      .choices = "choices='%'",
      .nothing = "return"};
  std::string text;
  for (const CLI::Option* option : parser.get_options()) {
    if (!takesValue(*option)) continue;
    std::vector<std::string> patterns;
    for (const std::string& name : namesOf(*option)) patterns.push_back(command + ":" + name);
    text += "    " + joined(patterns, " | ") + ") " + valueIn(kWays, *option) + " ;;\n";
  }
  return text;
}

// Long names alone, as people look for them; a short one is as quickly typed.
std::string longNames(const CLI::App& parser) {
  std::vector<std::string> names;
  for (const CLI::Option* option : parser.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return joined(names, " ");
}

std::string bashScript(const CLI::App& program) {
  std::vector<std::string> with_values;
  for (const CLI::Option* option : program.get_options()) {
    if (takesValue(*option)) with_values.push_back(joined(namesOf(*option), " | "));
  }
  std::string text = kBashBegin + ("      " + joined(with_values, " | ")) + ")" + kBashMiddle;
  text += bashCases(program, "*");
  std::vector<std::string> names;
  for (const CLI::App* command : commandsOf(program)) {
    names.push_back(command->get_name());
    text += bashCases(*command, command->get_name());
  }
  const std::string everywhere = longNames(program);
  text += "    :*) choices='" + joined(names, " ") + " " + everywhere + "' ;;\n";
  for (const CLI::App* command : commandsOf(program)) {
    text +=
        "    " + command->get_name() + ":*) choices='" + longNames(*command) + " " + everywhere + "' ;;\n";
  }
  return text + kBashEnd;
}

// -- zsh

// A description within brackets, colons and brackets of its own escaped.
std::string zshEscaped(const std::string& text) {
  std::string result;
  for (const char c : text) {
    if (c == '[' || c == ']' || c == ':' || c == '\\') result += '\\';
    result += c;
  }
  return result;
}

std::string zshArguments(const CLI::App& parser) {
  static const Ways kWays = {.folders = ":folder:_files -/",
                             .files = ":file:_files",
                             .choices = ":value:(%)",
                             .nothing = ":value: "};
  std::string text;
  for (const CLI::Option* option : parser.get_options()) {
    const std::vector<std::string> names = namesOf(*option);
    for (const std::string& name : names) {
      const bool is_long = name.starts_with("--");
      std::string entry = "(" + joined(names, " ") + ")" + name;
      if (takesValue(*option)) entry += is_long ? "=" : "+";
      entry += "[" + zshEscaped(option->get_description()) + "]";
      if (takesValue(*option)) entry += valueIn(kWays, *option);
      text += " \\\n      " + shellQuoted(entry);
    }
  }
  return text;
}

std::string zshScript(const CLI::App& program) {
  std::string text =
      "#compdef volornctl\n"
      "# Completion of volornctl for zsh, by the program's own parser.\n"
      "_volornctl() {\n"
      "  local curcontext=$curcontext state line\n"
      "  typeset -A opt_args\n"
      "  local -a commands=(";
  for (const CLI::App* command : commandsOf(program)) {
    text += "\n    " + shellQuoted(command->get_name() + ":" + zshEscaped(command->get_description()));
  }
  text += ")\n  _arguments -C" + zshArguments(program) +
          " \\\n      '1: :->command' '*:: :->argument' && return\n"
          "  case $state in\n"
          "    command) _describe command commands ;;\n"
          "    argument)\n"
          "      case $words[1] in\n";
  for (const CLI::App* command : commandsOf(program)) {
    text += "        " + command->get_name() + ") _arguments" + zshArguments(*command);
    // Help is the same in both.
    for (const CLI::Option* option : program.get_options()) {
      if (takesValue(*option))
        text += " \\\n      " + shellQuoted(joined(namesOf(*option), " ") + "=[" +
                                            zshEscaped(option->get_description()) + "]:folder:_files -/");
    }
    text += " ;;\n";
  }
  return text +
         "      esac ;;\n"
         "  esac\n"
         "}\n"
         "(( $+functions[compdef] )) && compdef _volornctl volornctl\n";
}

// -- fish

std::string fishOptions(const CLI::App& parser, const std::string& condition) {
  static const Ways kWays = {.folders = "-x -a '(__fish_complete_directories)'",
                             .files = "-r -F",
                             .choices = "-x -a '%'",
                             .nothing = "-x"};
  std::string text;
  for (const CLI::Option* option : parser.get_options()) {
    if (namesOf(*option).empty()) continue;
    text += "complete -c volornctl" + condition;
    for (const std::string& name : option->get_snames()) text += " -s " + name;
    for (const std::string& name : option->get_lnames()) text += " -l " + name;
    if (takesValue(*option)) text += " " + valueIn(kWays, *option);
    text += " -d " + shellQuoted(option->get_description()) + "\n";
  }
  return text;
}

std::string fishScript(const CLI::App& program) {
  std::string text =
      "# Completion of volornctl for fish, by the program's own parser.\n"
      "complete -c volornctl -f\n" +
      fishOptions(program, "");
  for (const CLI::App* command : commandsOf(program)) {
    text += "complete -c volornctl -n __fish_use_subcommand -a " + command->get_name() + " -d " +
            shellQuoted(command->get_description()) + "\n" +
            fishOptions(*command, " -n '__fish_seen_subcommand_from " + command->get_name() + "'");
  }
  return text;
}

}  // namespace

std::string completionScript(const CLI::App& program, const std::string& shell) {
  return shell == "zsh" ? zshScript(program) : shell == "fish" ? fishScript(program) : bashScript(program);
}

CLI::App* CompletionCommand::addTo(CLI::App& program) {
  program_ = &program;
  CLI::App* command = program.add_subcommand("completion", "Print what completes its words in a shell");
  command->group("");
  command->add_option("shell", shell_, "bash, zsh or fish")
      ->required()
      ->check(oneOf({"bash", "zsh", "fish"}));
  return command;
}

void CompletionCommand::run(const Surroundings& surroundings) {
  surroundings.output.write(completionScript(*program_, shell_));
}

}  // namespace volorn::ctl
