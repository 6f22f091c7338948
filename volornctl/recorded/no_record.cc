#include "volornctl/recorded/replay.h"

namespace volorn::ctl {

bool isRecordBuilt() {
  return false;
}

std::unique_ptr<Command> makeRecordCommand() {
  return nullptr;
}

std::size_t replay(const ReplayChoice& /*choice*/, const std::function<bool(const Sample&)>& /*show*/) {
  return 0;
}

std::unique_ptr<ReplaySource> openReplay(const ReplayChoice& /*choice*/, double /*interval_seconds*/) {
  return nullptr;
}

}  // namespace volorn::ctl
