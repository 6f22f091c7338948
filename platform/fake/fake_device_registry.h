#pragma once

#include <optional>
#include <vector>

#include "platform/device_registry.h"
#include "platform/fake/call_journal.h"

namespace volorn::fake {

class FakeDeviceRegistry : public DeviceRegistry {
 public:
  struct Disk {
    std::optional<PropertyTable> properties;  // none: the copy succeeds and brings no table
    bool copy_fails = false;
  };

  explicit FakeDeviceRegistry(CallJournal& calls) : calls_(calls) {}
  ServiceHandle findServiceOfClass(std::string_view service_class) override;
  ServiceHandle findServiceMatching(const PropertyTable& matching) override;
  std::optional<PropertyValue> copyProperty(ServiceHandle service, std::string_view name) override;
  bool open() override;
  std::unique_ptr<ServiceIterator> findServices(std::string_view service_class) override;
  bool copyProperties(ServiceHandle service, std::optional<PropertyTable>& properties) override;
  void releaseService(ServiceHandle service) override;

  // A disk with these statistics.
  static Disk diskWith(const PropertyTable& statistics);

  std::optional<PropertyTable> power_source;  // none: there is no such service
  std::optional<PropertyTable> backlight;     // matched by "backlight-control" = true
  std::vector<Disk> disks;                    // block-storage drivers
  bool open_fails = false;
  bool search_fails = false;
  int held_services = 0;  // handed out by an iterator and not released
  int held_iterators = 0;

 private:
  CallJournal& calls_;
};

}  // namespace volorn::fake
