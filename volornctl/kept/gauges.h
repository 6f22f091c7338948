#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/state/state_reader.h"

namespace volorn::ctl {

// One of a snapshot's figures as those who collect metrics take it.
struct Gauge {
  std::string_view name;
  std::string_view help;
  std::string_view unit;  // "s", "1" for a share, and nothing for other plain numbers
  std::string value;      // in base units: "-0.99"
};

// Of each key whose reading was had, and of the snapshot's time; never two of one name. Keys that this
// program does not know have none.
std::vector<Gauge> gaugesOf(const linux_host::StoredSnapshot& snapshot);

}  // namespace volorn::ctl
