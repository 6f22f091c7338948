#include "volornctl/live/process_options.h"

#include <string>
#include <vector>

#include "volornctl/live/users.h"
#include "volornctl/number_option.h"

namespace volorn::ctl {

void addPidOption(CLI::App& command, ProcessChoice& choice) {
  const auto take = [&choice](const std::vector<std::string>& words) {
    for (const std::string& word : words) {
      const std::optional<std::int32_t> pid = numberOf<std::int32_t>(word);
      if (!pid || *pid <= 0) throw CLI::ValidationError("--pid", "not the id of a process: " + word);
      choice.pids.insert(*pid);
    }
  };
  command.add_option_function<std::vector<std::string>>("-p,--pid", take, "These processes only, 1,2,...")
      ->type_name("PID")
      ->delimiter(',')
      ->allow_extra_args(false);
}

void addUserOption(CLI::App& command, ProcessChoice& choice) {
  const auto take = [&choice](const std::string& word) {
    choice.uid = userIdOf(word);
    if (!choice.uid) throw CLI::ValidationError("--user", "no such user: " + word);
  };
  command
      .add_option_function<std::string>("-u,--user", take, "Processes of this user only, a name or a number")
      ->type_name("USER");
}

}  // namespace volorn::ctl
