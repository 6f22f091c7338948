#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>

#include "platform/device_registry.h"
#include "platform/linux/devices/read_power_supply.h"
#include "platform/linux/stand_ins.h"

namespace volorn::linux_host {

// The power source, the backlight and the disks. Finding the first two reads their properties, and they stay
// as they were until the service is found again: so those of one finding belong together, whatever a driver
// does between two calls. A disk's are read when they are asked for.
class LinuxDeviceRegistry : public DeviceRegistry {
 public:
  // `stand_ins`: null where nobody asks which values stand in for a reading.
  LinuxDeviceRegistry(std::string sys_root, SupplyReadings& supplies, StandIns* stand_ins = nullptr)
      : sys_root_(std::move(sys_root)), supplies_(supplies), stand_ins_(stand_ins) {}

  // Finds the power source; 0 for another class.
  ServiceHandle findServiceOfClass(std::string_view service_class) override;

  // Finds the backlight, or nothing.
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

  // Keeps what was read of a service under its handle, which it returns; 0 where there is no such service.
  ServiceHandle keep(ServiceHandle service, std::optional<PropertyTable> properties);

  void note(std::string_view key, bool reading_was_had);
  ServiceHandle nameDisk(const std::string& disk);

  std::string sys_root_;
  SupplyReadings& supplies_;
  StandIns* stand_ins_;
  std::map<ServiceHandle, PropertyTable> found_;
  std::map<ServiceHandle, std::string> disks_;  // not released yet
  ServiceHandle last_disk_ = 2;                 // the handle handed out last, or the last of the fixed ones
};

}  // namespace volorn::linux_host
