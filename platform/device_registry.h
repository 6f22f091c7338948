#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace volorn {

struct PropertyValue;

// A keyed table of properties. Keys are few, so a look-up walks them.
class PropertyTable {
 public:
  struct Entry;

  PropertyTable() = default;
  PropertyTable(std::initializer_list<Entry> entries);

  void set(std::string_view key, PropertyValue value);

  // Null when the key is absent. Valid until the table changes.
  const PropertyValue* find(std::string_view key) const;

  // The nested table under `key`; null when there is none.
  const PropertyTable* table(std::string_view key) const;

  // The integer under `key`; 0 when there is none.
  std::int64_t integer(std::string_view key) const;

  // Whether every entry of `wanted` is here with an equal value. An integer equals no double.
  bool hasAll(const PropertyTable& wanted) const;

  // Whatever the order of their entries.
  bool operator==(const PropertyTable& other) const;

 private:
  std::vector<Entry> entries_;
};

struct PropertyValue {
  std::variant<bool, std::int64_t, double, PropertyTable> value;

  // Either kind of number as a double; none for anything else.
  std::optional<double> asDouble() const;

  // None for anything but an integer.
  std::optional<std::int64_t> asInteger() const;

  bool operator==(const PropertyValue& other) const;
};

struct PropertyTable::Entry {
  std::string key;
  PropertyValue value;
};

// Names a service of the registry; 0 is no service.
using ServiceHandle = std::uint32_t;

// Service class of the supply that powers the device from its own store: the system's batteries as one.
// Properties: "CurrentCapacity" and "MaxCapacity", in one unit of the device's own.
inline constexpr std::string_view kPowerSourceServiceClass = "PowerSource";

// Key of an outer table whose value is a table of the properties that a service must have.
inline constexpr std::string_view kPropertyMatchKey = "PropertyMatch";

// Property of a display: a table of tables, of which "brightness" holds "value", "min" and "max".
inline constexpr std::string_view kDisplayParametersProperty = "DisplayParameters";

// Service class of the drivers of block storage, one for each disk.
inline constexpr std::string_view kBlockStorageServiceClass = "BlockStorageDriver";

// Property of a block-storage driver: a table of integers counted since it started, under these four keys. A
// key may be absent.
inline constexpr std::string_view kStatisticsProperty = "Statistics";
inline constexpr std::string_view kReadOperationsKey = "Operations (Read)";
inline constexpr std::string_view kReadBytesKey = "Bytes (Read)";
inline constexpr std::string_view kWriteOperationsKey = "Operations (Write)";
inline constexpr std::string_view kWriteBytesKey = "Bytes (Write)";

// Walks the services found by one search, as they were then. To destroy it releases it.
class ServiceIterator {
 public:
  virtual ~ServiceIterator() = default;

  // The next service, which the caller releases; 0 at the end.
  virtual ServiceHandle next() = 0;

  // Back to the first service.
  virtual void reset() = 0;
};

// The device's hardware services and their named properties.
class DeviceRegistry {
 public:
  virtual ~DeviceRegistry() = default;

  // The first service of the class, or 0.
  virtual ServiceHandle findServiceOfClass(std::string_view service_class) = 0;

  // The first service that has every property in the matching table's kPropertyMatchKey entry, or 0.
  virtual ServiceHandle findServiceMatching(const PropertyTable& matching) = 0;

  // None when the service is 0 or lacks the property.
  virtual std::optional<PropertyValue> copyProperty(ServiceHandle service, std::string_view name) = 0;

  // Opens the connection that findServices needs; false when there is none to be had. Open already, it stays
  // so.
  virtual bool open() = 0;

  // All services of the class, none of them too. Null when the search fails.
  virtual std::unique_ptr<ServiceIterator> findServices(std::string_view service_class) = 0;

  // Copies all properties of a service. False when that fails; true with no table where the service has none.
  virtual bool copyProperties(ServiceHandle service, std::optional<PropertyTable>& properties) = 0;

  // Gives back a service that an iterator handed out. It is named no more.
  virtual void releaseService(ServiceHandle service) = 0;
};

}  // namespace volorn
