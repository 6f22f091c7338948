#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>

#include "platform/device_registry.h"

namespace volorn::linux_host {

// The power source, the backlight and the disks. Finding the first two reads their properties, and they stay
// as they were until the service is found again: so those of one finding belong together, whatever a driver
// does between two calls. A disk's are read when they are asked for.
class LinuxDeviceRegistry : public DeviceRegistry {
 public:
  explicit LinuxDeviceRegistry(std::string sys_root) : sys_root_(std::move(sys_root)) {}

  ServiceHandle findServiceOfClass(std::string_view service_class) override;
  ServiceHandle findServiceMatching(const PropertyTable& matching) override;
  std::optional<PropertyValue> copyProperty(ServiceHandle service, std::string_view name) override;

  // /sys needs no connection.
  bool open() override { return true; }

  // Lists the disks there are now; null for another class. The registry must outlive the iterator.
  std::unique_ptr<ServiceIterator> findServices(std::string_view service_class) override;

  // Fails for what is no service. A disk that has gone since it was listed has no properties.
  bool copyProperties(ServiceHandle service, std::optional<PropertyTable>& properties) override;

  void releaseService(ServiceHandle service) override { disks_.erase(service); }

 private:
  class Iterator;

  // Reads a service's properties; its handle, or 0 where the host has no such service.
  ServiceHandle find(ServiceHandle service);

  ServiceHandle nameDisk(const std::string& disk);

  std::string sys_root_;
  std::map<ServiceHandle, PropertyTable> found_;
  std::map<ServiceHandle, std::string> disks_;  // not released yet
  ServiceHandle last_disk_ = 2;                 // the handle handed out last, or the last of the fixed ones
};

}  // namespace volorn::linux_host
