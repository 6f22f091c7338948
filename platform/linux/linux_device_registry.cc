#include "platform/linux/linux_device_registry.h"

#include <vector>

#include "platform/linux/backlight.h"
#include "platform/linux/block_storage.h"
#include "platform/linux/read_power_supply.h"

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

ServiceHandle LinuxDeviceRegistry::find(ServiceHandle service) {
  std::optional<PropertyTable> properties =
      service == kBacklight ? readBacklight(sys_root_) : powerSourceProperties(readPowerSupplies(sys_root_));
  found_.erase(service);
  if (!properties) return 0;
  found_.emplace(service, std::move(*properties));
  return service;
}

ServiceHandle LinuxDeviceRegistry::nameDisk(const std::string& disk) {
  disks_.emplace(++last_disk_, disk);
  return last_disk_;
}

ServiceHandle LinuxDeviceRegistry::findServiceOfClass(std::string_view service_class) {
  if (service_class == kPowerSourceServiceClass) return find(kPowerSource);
  const std::unique_ptr<ServiceIterator> services = findServices(service_class);
  return services ? services->next() : 0;
}

ServiceHandle LinuxDeviceRegistry::findServiceMatching(const PropertyTable& matching) {
  const PropertyTable* wanted = matching.table(kPropertyMatchKey);
  if (!wanted) return 0;
  for (const ServiceHandle service : {kBacklight, kPowerSource}) {
    if (find(service) && found_.at(service).hasAll(*wanted)) return service;
  }
  return 0;
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
