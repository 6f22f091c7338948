#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <vector>

namespace volorn::ctl {

// For an option whose value is one of these names. Another is refused: the nearest of them and all are told.
CLI::Validator oneOf(const std::vector<std::string>& names);

// For an option that these values are completed to, while it checks them elsewhere or takes others too.
CLI::Validator offers(const std::vector<std::string>& names);

// What either says of an option; empty without one.
std::vector<std::string> choicesOf(const CLI::Option& option);

// "cpu, memory, time"
std::string listed(const std::vector<std::string>& names);

// Help that leaves out what choicesOf() tells: the option's own text names them where they are few.
std::shared_ptr<CLI::Formatter> makeHelpFormatter();

// What to say of a word that is no option or command of these parsers, the nearest of theirs included.
std::string unexpectedWord(const std::string& word, const std::vector<const CLI::App*>& parsers);

}  // namespace volorn::ctl
