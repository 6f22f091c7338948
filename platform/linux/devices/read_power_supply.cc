#include "platform/linux/devices/read_power_supply.h"

#include <algorithm>
#include <utility>

#include "platform/linux/devices/attribute_folder.h"
#include "platform/linux/read_file.h"

namespace volorn::linux_host {
namespace {

void readStore(const AttributeFolder& folder, PowerSupply& store) {
  store.status = folder.text("status");
  store.present = folder.integer("present");
  store.energy_now = folder.integer("energy_now");
  store.energy_full = folder.integer("energy_full");
  store.charge_now = folder.integer("charge_now");
  store.charge_full = folder.integer("charge_full");
  store.capacity = folder.integer("capacity");
}

}  // namespace

std::vector<PowerSupply> readPowerSupplies(const std::string& sys_root) {
  const std::string class_folder = sys_root + "/class/power_supply";
  std::vector<PowerSupply> supplies;
  for (const std::string& name : listFolder(class_folder)) {
    const AttributeFolder folder(class_folder + '/' + name);
    PowerSupply supply;
    supply.type = folder.text("type");
    if (!isStore(supply) && !isCharger(supply)) continue;
    supply.scope = folder.text("scope");
    // Asked for its charge, a mouse asleep keeps its reader waiting: no more is read of it than whose it is.
    if (!isOfSystem(supply)) continue;
    if (isStore(supply)) {
      readStore(folder, supply);
    } else {
      supply.online = folder.integer("online");
    }
    supplies.push_back(std::move(supply));
  }
  return supplies;
}

const std::vector<PowerSupply>& SupplyReadings::readFor(std::string_view key) {
  if (answered_.empty() || std::ranges::find(answered_, key) != answered_.end()) {
    newest_ = readPowerSupplies(sys_root_);
    answered_.clear();
  }
  answered_.push_back(key);
  return newest_;
}

}  // namespace volorn::linux_host
