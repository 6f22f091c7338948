#include "platform/linux/read_power_supply.h"

#include <utility>

#include "platform/linux/attribute_folder.h"
#include "platform/linux/read_file.h"

namespace volorn::linux_host {
namespace {

void readBattery(const AttributeFolder& folder, PowerSupply& battery) {
  battery.status = folder.text("status");
  battery.present = folder.integer("present");
  battery.energy_now = folder.integer("energy_now");
  battery.energy_full = folder.integer("energy_full");
  battery.charge_now = folder.integer("charge_now");
  battery.charge_full = folder.integer("charge_full");
  battery.capacity = folder.integer("capacity");
}

}  // namespace

std::vector<PowerSupply> readPowerSupplies(const std::string& sys_root) {
  const std::string class_folder = sys_root + "/class/power_supply";
  std::vector<PowerSupply> supplies;
  for (const std::string& name : listFolder(class_folder)) {
    const AttributeFolder folder(class_folder + '/' + name);
    PowerSupply supply;
    supply.type = folder.text("type");
    if (!isBattery(supply) && !isCharger(supply)) continue;
    supply.scope = folder.text("scope");
    // Asked for its charge, a mouse asleep keeps its reader waiting: no more is read of it than whose it is.
    if (!isOfSystem(supply)) continue;
    if (isBattery(supply)) {
      readBattery(folder, supply);
    } else {
      supply.online = folder.integer("online");
    }
    supplies.push_back(std::move(supply));
  }
  return supplies;
}

}  // namespace volorn::linux_host
