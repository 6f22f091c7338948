#include "platform/linux/read_only_host.h"

#include "platform/linux/host_bindings.h"

namespace volorn::linux_host {
namespace {

class KeepsNothing : public Waketide, public PreferencesStore, public MetricStore, public SystemLog {
 public:
  void WaketideInit(std::string_view, WorkQueue&, EventHandler) override {}
  void WaketideAddJob(std::string_view, const JobDescription&) override {}
  std::optional<JobDescription> WaketideCopyJob(std::string_view) override { return std::nullopt; }

  std::optional<PreferenceValue> copyValue(std::string_view, std::string_view) override {
    return std::nullopt;
  }
  void setValue(std::string_view, std::string_view, const PreferenceValue&) override {}
  IntegerValue getIntegerValue(std::string_view, std::string_view) override { return {}; }
  void synchronise(std::string_view) override {}

  void setScalarValue(std::string_view, std::int64_t) override {}

  void write(std::string_view) override {}
};

}  // namespace

struct ReadOnlyHost::Parts {
  explicit Parts(Kernel* kernel)
      : services(bindings.servicesWith({nothing, nothing, nothing, nothing}, kernel)) {}

  HostBindings bindings;
  KeepsNothing nothing;
  Services services;
  ScopedServices installed{services};
};

ReadOnlyHost::ReadOnlyHost(Kernel* kernel) : parts_(std::make_unique<Parts>(kernel)) {}

ReadOnlyHost::~ReadOnlyHost() = default;

}  // namespace volorn::linux_host
