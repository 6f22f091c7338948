#include "platform/linux/devices/linux_device_registry.h"

#include <vector>

#include "platform/linux/devices/backlight.h"
#include "platform/linux/devices/block_storage.h"
#include "platform/snapshot_keys.h"

namespace volorn::linux_host {
namespace {

constexpr ServiceHandle kBacklight = 1;
constexpr ServiceHandle kPowerSource = 2;

}  // namespace

class LinuxDeviceRegistry::Iterator : public ServiceIterator {
 public:
  Iterator(LinuxDeviceRegistry& registry, std::vector<std::string> disks)
      : registry_(registry), disks_(std::move(disks)) {}

  ServiceHandle next() override { return next_ < disks_.size() ? registry_.nameDisk(disks_[next_++]) : 0; }
  void reset() override { next_ = 0; }

 private:
  LinuxDeviceRegistry& registry_;
  std::vector<std::string> disks_;
  std::size_t next_ = 0;
};

ServiceHandle LinuxDeviceRegistry::keep(ServiceHandle service, std::optional<PropertyTable> properties) {
  found_.erase(service);
  if (!properties) return 0;
  found_.emplace(service, std::move(*properties));
  return service;
}

void LinuxDeviceRegistry::note(std::string_view key, bool reading_was_had) {
  if (stand_ins_) stand_ins_->note(key, reading_was_had);
}

ServiceHandle LinuxDeviceRegistry::nameDisk(const std::string& disk) {
  disks_.emplace(++last_disk_, disk);
  return last_disk_;
}

ServiceHandle LinuxDeviceRegistry::findServiceOfClass(std::string_view service_class) {
  if (service_class != kPowerSourceServiceClass) return 0;
  auto properties = powerSourceProperties(supplies_.readFor(snapshot_key::kCharged));
  // What is left of a battery is no share without its capacity.
  note(snapshot_key::kCharged, properties && properties->find("MaxCapacity"));
  return keep(kPowerSource, std::move(properties));
}

ServiceHandle LinuxDeviceRegistry::findServiceMatching(const PropertyTable& matching) {
  const PropertyTable* wanted = matching.table(kPropertyMatchKey);
  if (!wanted) return 0;
  std::optional<BacklightService> backlight = readBacklight(sys_root_);
  note(snapshot_key::kBacklight, backlight && backlight->tells_brightness);
  if (!backlight || !backlight->properties.hasAll(*wanted)) return keep(kBacklight, std::nullopt);
  return keep(kBacklight, std::move(backlight->properties));
}

std::optional<PropertyValue> LinuxDeviceRegistry::copyProperty(ServiceHandle service, std::string_view name) {
  std::optional<PropertyTable> properties;
  if (!copyProperties(service, properties) || !properties) return std::nullopt;
  const PropertyValue* value = properties->find(name);
  return value ? std::optional(*value) : std::nullopt;
}

std::unique_ptr<ServiceIterator> LinuxDeviceRegistry::findServices(std::string_view service_class) {
  if (service_class != kBlockStorageServiceClass) return nullptr;
  return std::make_unique<Iterator>(*this, listDisks(sys_root_));
}

bool LinuxDeviceRegistry::copyProperties(ServiceHandle service, std::optional<PropertyTable>& properties) {
  if (const auto found = found_.find(service); found != found_.end()) {
    properties = found->second;
    return true;
  }
  const auto disk = disks_.find(service);
  if (disk == disks_.end()) return false;
  properties = readDisk(sys_root_, disk->second);
  return true;
}

}  // namespace volorn::linux_host
