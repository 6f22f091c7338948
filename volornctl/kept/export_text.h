#pragma once

#include <span>
#include <string>

#include "platform/linux/state/state_reader.h"
#include "volornctl/kept/device.h"

namespace volorn::ctl {

// Snapshots of one device for a receiver, each gauge with its snapshot's own time. The device's identity
// stands in `host_id` or `host.id`, its owner's labels beside it. `instance` or `service.instance.id`, by
// which alerts and dashboards tell one from another, is the owner's label of that name, or else the identity
// too.

// In Prometheus's text format with time stamps in milliseconds.
std::string prometheusText(std::span<const linux_host::StoredSnapshot> snapshots, const Device& device);

// As the JSON body of OTLP/HTTP, an ExportMetricsServiceRequest with one point of each gauge a snapshot.
std::string otlpJson(std::span<const linux_host::StoredSnapshot> snapshots, const Device& device);

}  // namespace volorn::ctl
