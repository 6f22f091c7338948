#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <new>
#include <optional>

#include "libtop/sampler.h"

namespace volorn {
namespace {

constexpr std::array<std::int32_t, 6> kInterfaceListName = {4, 17, 0, 0, 6, 0};

using Totals = std::initializer_list<Total64*>;

void beginSum(Totals totals) {
  for (Total64* total : totals) {
    total->previous = total->current;
    total->current = 0;
  }
}

// What the first sample finds is where the totals begin.
void endSum(Totals totals) {
  if (sampler.tsamp.seq != 1) return;
  for (Total64* total : totals) total->begin = total->previous = total->current;
}

template <typename Number>
Number numberAt(std::span<const std::byte> bytes, std::size_t offset) {
  Number number = 0;
  std::memcpy(&number, bytes.data() + offset, sizeof(number));
  return number;
}

// Ends at a message that does not fit into what is left, or is too short for its own head.
void addInterfaceMessages(std::span<const std::byte> list) {
  using namespace interface_message;
  SystemSample& tsamp = sampler.tsamp;
  while (list.size() > kTypeOffset) {
    const auto length = numberAt<std::uint16_t>(list, 0);
    if (length <= kTypeOffset || length > list.size()) return;
    const auto message = list.first(length);
    list = list.subspan(length);
    if (numberAt<std::uint8_t>(message, kTypeOffset) != kInformation64) continue;
    if (message.size() < kInformation64Bytes) continue;
    tsamp.net_in_packets.current += numberAt<std::uint64_t>(message, kPacketsReceivedOffset);
    tsamp.net_out_packets.current += numberAt<std::uint64_t>(message, kPacketsSentOffset);
    tsamp.net_in_bytes.current += numberAt<std::uint64_t>(message, kBytesReceivedOffset);
    tsamp.net_out_bytes.current += numberAt<std::uint64_t>(message, kBytesSentOffset);
  }
}

void addStatistics(const PropertyTable& statistics) {
  SystemSample& tsamp = sampler.tsamp;
  const auto add = [&](Total64& total, std::string_view key) {
    total.current += static_cast<std::uint64_t>(statistics.integer(key));
  };
  add(tsamp.disk_read_ops, kReadOperationsKey);
  add(tsamp.disk_read_bytes, kReadBytesKey);
  add(tsamp.disk_write_ops, kWriteOperationsKey);
  add(tsamp.disk_write_bytes, kWriteBytesKey);
}

// Memory that runs out in the registry is its failure.
std::unique_ptr<ServiceIterator> findDisks(DeviceRegistry& registry) try {
  return registry.findServices(kBlockStorageServiceClass);
} catch (const std::bad_alloc&) {
  return nullptr;
}

// False, the sums partial, at a disk whose properties cannot be had; it is not released.
bool addDisks(DeviceRegistry& registry, ServiceIterator& services) try {
  while (const ServiceHandle service = services.next()) {
    std::optional<PropertyTable> properties;
    if (!registry.copyProperties(service, properties)) return false;
    const PropertyTable* statistics = properties ? properties->table(kStatisticsProperty) : nullptr;
    if (statistics) addStatistics(*statistics);
    registry.releaseService(service);
  }
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

}  // namespace

void sumNetworkInterfaces() {
  Kernel& kernel = theKernel();
  SystemSample& tsamp = sampler.tsamp;
  const Totals totals = {&tsamp.net_in_packets, &tsamp.net_out_packets, &tsamp.net_in_bytes,
                         &tsamp.net_out_bytes};
  beginSum(totals);
  std::size_t length_bytes = 0;
  if (kernel.sysctl(kInterfaceListName, nullptr, length_bytes) != 0) return;
  const std::unique_ptr<std::byte[]> list(new (std::nothrow) std::byte[length_bytes]);
  if (!list) {
    std::puts("malloc failed");
    std::exit(1);
  }
  if (kernel.sysctl(kInterfaceListName, list.get(), length_bytes) != 0) return;
  addInterfaceMessages({list.get(), length_bytes});
  endSum(totals);
}

void sumDisks() {
  DeviceRegistry& registry = Current().device_registry;
  SystemSample& tsamp = sampler.tsamp;
  const Totals totals = {&tsamp.disk_read_ops, &tsamp.disk_write_ops, &tsamp.disk_read_bytes,
                         &tsamp.disk_write_bytes};
  const std::unique_ptr<ServiceIterator> services = findDisks(registry);
  if (!services) {
    sampler.print(sampler.print_arg, "Error in DeviceRegistryFindServices()");
    return;
  }
  beginSum(totals);
  if (!addDisks(registry, *services)) {
    sampler.print(sampler.print_arg, "Error in DeviceRegistryCopyProperties()");
    return;
  }
  services->reset();
  endSum(totals);
}

}  // namespace volorn
