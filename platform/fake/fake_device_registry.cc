#include "platform/fake/fake_device_registry.h"

#include <utility>

namespace volorn::fake {
namespace {

constexpr ServiceHandle kPowerSource = 1;
constexpr ServiceHandle kBacklight = 2;
constexpr ServiceHandle kFirstDisk = 3;

class DiskIterator : public ServiceIterator {
 public:
  DiskIterator(FakeDeviceRegistry& registry, CallJournal& calls) : registry_(registry), calls_(calls) {
    ++registry_.held_iterators;
  }
  ~DiskIterator() override { --registry_.held_iterators; }
  DiskIterator(const DiskIterator&) = delete;
  DiskIterator& operator=(const DiskIterator&) = delete;

  ServiceHandle next() override {
    if (next_ == registry_.disks.size()) return 0;
    ++registry_.held_services;
    return kFirstDisk + static_cast<ServiceHandle>(next_++);
  }
  void reset() override {
    calls_.emplace_back("resetServices");
    next_ = 0;
  }

 private:
  FakeDeviceRegistry& registry_;
  CallJournal& calls_;
  std::size_t next_ = 0;
};

}  // namespace

FakeDeviceRegistry::Disk FakeDeviceRegistry::diskWith(const PropertyTable& statistics) {
  return {.properties = PropertyTable{{std::string(kStatisticsProperty), PropertyValue{statistics}}}};
}

ServiceHandle FakeDeviceRegistry::findServiceOfClass(std::string_view service_class) {
  calls_.push_back("findServiceOfClass " + std::string(service_class));
  return service_class == kPowerSourceServiceClass && power_source ? kPowerSource : 0;
}

ServiceHandle FakeDeviceRegistry::findServiceMatching(const PropertyTable& matching) {
  calls_.emplace_back("findServiceMatching");
  const PropertyTable* wanted = matching.table(kPropertyMatchKey);
  const PropertyValue* control = wanted ? wanted->find("backlight-control") : nullptr;
  const bool* flag = control ? std::get_if<bool>(&control->value) : nullptr;
  return flag && *flag && backlight ? kBacklight : 0;
}

std::optional<PropertyValue> FakeDeviceRegistry::copyProperty(ServiceHandle service, std::string_view name) {
  calls_.push_back("copyProperty " + std::string(name));
  const auto& properties = service == kPowerSource ? power_source : backlight;
  if (service == 0 || !properties) return std::nullopt;
  const PropertyValue* value = properties->find(name);
  return value ? std::optional(*value) : std::nullopt;
}

bool FakeDeviceRegistry::open() {
  calls_.emplace_back("openDeviceRegistry");
  return !open_fails;
}

std::unique_ptr<ServiceIterator> FakeDeviceRegistry::findServices(std::string_view service_class) {
  calls_.push_back("findServices " + std::string(service_class));
  if (search_fails || service_class != kBlockStorageServiceClass) return nullptr;
  return std::make_unique<DiskIterator>(*this, calls_);
}

bool FakeDeviceRegistry::copyProperties(ServiceHandle service, std::optional<PropertyTable>& properties) {
  calls_.emplace_back("copyProperties");
  const Disk& disk = disks.at(service - kFirstDisk);
  if (disk.copy_fails) return false;
  properties = disk.properties;
  return true;
}

void FakeDeviceRegistry::releaseService(ServiceHandle /*service*/) {
  calls_.emplace_back("releaseService");
  --held_services;
}

}  // namespace volorn::fake
