#include "waketide/job_row.h"

#include "platform/linux/state/state_reader.h"
#include "platform/names.h"

namespace volorn::waketide {

JobRow readJobRow(const std::string& state_directory) {
  try {
    const Row row = linux_host::StateReader(state_directory).job(kJobName);
    return {row, row ? "" : "no job is registered"};
  } catch (const linux_host::StateUnreadable& unreadable) {
    return {std::nullopt, unreadable.what()};
  }
}

}  // namespace volorn::waketide
