#include "volornctl/choices.h"

#include <algorithm>
#include <memory>
#include <sstream>

#include "volornctl/text/nearest.h"

namespace volorn::ctl {
namespace {

constexpr const char* kValidatorName = "choices";

std::string joined(const std::vector<std::string>& names, const char* separator) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : separator) + name;
  return text;
}

CLI::Validator validator(const std::vector<std::string>& names,
                         const std::function<std::string(std::string&)>& check) {
  return CLI::Validator(check, joined(names, ","), kValidatorName);
}

class HelpFormatter : public CLI::Formatter {
 public:
  // " BY" and not " BY:cpu,private,..."
  std::string make_option_opts(const CLI::Option* option) const override {
    std::string text = CLI::Formatter::make_option_opts(option);
    const std::string choices = ":" + joined(choicesOf(*option), ",");
    const std::size_t place = choices.size() > 1 ? text.find(choices) : std::string::npos;
    return place == std::string::npos ? text : text.erase(place, choices.size());
  }
};

}  // namespace

std::string listed(const std::vector<std::string>& names) {
  return joined(names, ", ");
}

CLI::Validator oneOf(const std::vector<std::string>& names) {
  return validator(names, [names](const std::string& word) -> std::string {
    if (std::ranges::find(names, word) != names.end()) return "";
    return "not one of " + listed(names) + ": " + word + hint(word, names);
  });
}

CLI::Validator offers(const std::vector<std::string>& names) {
  return validator(names, [](const std::string& /*word*/) { return std::string(); });
}

std::vector<std::string> choicesOf(const CLI::Option& option) {
  std::vector<std::string> names;
  // Asked for one that it has not, the option throws; it is not to be changed, and asks for more than that.
  try {
    std::istringstream text(
        const_cast<CLI::Option&>(option).get_validator(kValidatorName)->get_description());
    for (std::string name; std::getline(text, name, ',');) names.push_back(name);
  } catch (const CLI::OptionNotFound&) {
  }
  return names;
}

std::shared_ptr<CLI::Formatter> makeHelpFormatter() {
  return std::make_shared<HelpFormatter>();
}

std::string unexpectedWord(const std::string& word, const std::vector<const CLI::App*>& parsers) {
  std::vector<std::string> names;
  for (const CLI::App* parser : parsers) {
    for (const CLI::Option* option : parser->get_options()) {
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    }
  }
  const bool is_option = word.starts_with("-");
  const bool has_command = parsers.size() > 1;
  if (!is_option) names.clear();
  if (!is_option && !has_command) {
    for (const CLI::App* command : parsers.front()->get_subcommands({})) {
      if (!command->get_group().empty()) names.push_back(command->get_name());
    }
  }
  const std::string of = has_command ? " of " + parsers.back()->get_name() : "";
  const std::string name = word.substr(0, word.find('='));
  const char* kind = is_option ? "option" : has_command ? "argument" : "command";
  return (is_option || has_command ? "not an " : "not a ") + std::string(kind) + of + ": " + name +
         hint(name, names);
}

}  // namespace volorn::ctl
