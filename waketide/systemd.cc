#include "waketide/systemd.h"

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace volorn::waketide {
namespace {

constexpr const char* kManager = "org.freedesktop.systemd1";
constexpr const char* kManagerPath = "/org/freedesktop/systemd1";
constexpr const char* kManagerInterface = "org.freedesktop.systemd1.Manager";
constexpr const char* kUnitInterface = "org.freedesktop.systemd1.Unit";
constexpr const char* kTimerInterface = "org.freedesktop.systemd1.Timer";

constexpr const char* kTimer = "volorn.timer";
constexpr const char* kTimerPath = "/org/freedesktop/systemd1/unit/volorn_2etimer";
constexpr const char* kServicePath = "/org/freedesktop/systemd1/unit/volorn_2eservice";

constexpr const char* kNoSuchUnit = "org.freedesktop.systemd1.NoSuchUnit";
constexpr const char* kUnitExists = "org.freedesktop.systemd1.UnitExists";

[[noreturn]] void fail(const std::string& what, int negative_error) {
  throw std::runtime_error(what + ": " + std::strerror(-negative_error));
}

}  // namespace

// Loaded when it is needed and not with the program: `serve` stays in memory on hosts that need not have it.
struct SystemdLibrary {
  struct Close {
    void operator()(void* opened) const { dlclose(opened); }
  };
  std::unique_ptr<void, Close> handle{dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL)};

  template <typename Function>
  Function* find(const char* name) const {
    void* const symbol = handle ? dlsym(handle.get(), name) : nullptr;
    if (!symbol) throw std::runtime_error(dlerror());
    return reinterpret_cast<Function*>(symbol);
  }

  decltype(sd_bus_open_system)* open = find<decltype(sd_bus_open_system)>("sd_bus_open_system");
  decltype(sd_bus_flush_close_unref)* close =
      find<decltype(sd_bus_flush_close_unref)>("sd_bus_flush_close_unref");
  decltype(sd_bus_call_method)* call = find<decltype(sd_bus_call_method)>("sd_bus_call_method");
  decltype(sd_bus_get_property_trivial)* getTrivial =
      find<decltype(sd_bus_get_property_trivial)>("sd_bus_get_property_trivial");
  decltype(sd_bus_get_property_string)* getString =
      find<decltype(sd_bus_get_property_string)>("sd_bus_get_property_string");
  decltype(sd_bus_error_has_name)* hasName = find<decltype(sd_bus_error_has_name)>("sd_bus_error_has_name");
  decltype(sd_bus_error_free)* freeError = find<decltype(sd_bus_error_free)>("sd_bus_error_free");
};

namespace {

// What the bus tells of a call that failed.
class BusError {
 public:
  explicit BusError(const SystemdLibrary& library) : library_(library) {}
  ~BusError() { library_.freeError(&error_); }
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;

  sd_bus_error* get() { return &error_; }
  bool is(const char* name) const { return library_.hasName(&error_, name) != 0; }

  [[noreturn]] void fail(const std::string& what) const {
    throw std::runtime_error(what + ": " + (error_.message ? error_.message : "no answer"));
  }

 private:
  const SystemdLibrary& library_;
  sd_bus_error error_ = {};
};

}  // namespace

Systemd::Systemd() : library_(std::make_unique<SystemdLibrary>()) {
  const int result = library_->open(&bus_);
  if (result < 0) fail("the system bus", result);
}

Systemd::~Systemd() {
  library_->close(bus_);
}

Systemd::Run Systemd::lastRun() {
  // The start before the state: the other way round a run that begins in between would pass for ended.
  const std::uint64_t started_us = timestamp(kServicePath, kUnitInterface, "InactiveExitTimestamp");
  BusError error(*library_);
  char* found = nullptr;
  const int result =
      library_->getString(bus_, kManager, kServicePath, kUnitInterface, "ActiveState", error.get(), &found);
  if (result < 0) error.fail("volorn.service");
  const std::unique_ptr<char, decltype(&std::free)> owned(found, std::free);
  const std::string state = found;
  if (started_us == 0 || (state != "inactive" && state != "failed")) return {started_us, 0};
  return {started_us, timestamp(kServicePath, kUnitInterface, "InactiveEnterTimestamp")};
}

void Systemd::stopTimer() {
  BusError error(*library_);
  const int result = library_->call(bus_, kManager, kManagerPath, kManagerInterface, "StopUnit", error.get(),
                                    nullptr, "ss", kTimer, "replace");
  if (result < 0 && !error.is(kNoSuchUnit)) error.fail("stopping volorn.timer");
}

bool Systemd::startTimer(const std::string& calendar) {
  BusError error(*library_);
  // Without the default dependencies, of which that on time-sync.target would hold the timer up for as long
  // as a host waits for its time.
  const int result = library_->call(bus_, kManager, kManagerPath, kManagerInterface, "StartTransientUnit",
                                    error.get(), nullptr, "ssa(sv)a(sa(sv))", kTimer, "replace", 7,        //
                                    "Description", "s", "Next start of the daily snapshot",                //
                                    "DefaultDependencies", "b", 0,                                         //
                                    "Conflicts", "as", 1, "shutdown.target",                               //
                                    "Before", "as", 1, "shutdown.target",                                  //
                                    "TimersCalendar", "a(ss)", 1, "OnCalendar", calendar.c_str(),          //
                                    "AccuracyUSec", "t", std::uint64_t{1}, "RemainAfterElapse", "b", 0, 0  //
  );
  if (result < 0 && !error.is(kUnitExists)) error.fail("starting volorn.timer");
  return result >= 0;
}

std::uint64_t Systemd::timerElapse() {
  return timestamp(kTimerPath, kTimerInterface, "NextElapseUSecRealtime");
}

std::uint64_t Systemd::timestamp(const char* path, const char* interface, const char* property) {
  BusError error(*library_);
  std::uint64_t microseconds = 0;
  if (library_->getTrivial(bus_, kManager, path, interface, property, error.get(), 't', &microseconds) < 0) {
    error.fail(property);
  }
  return microseconds;
}

}  // namespace volorn::waketide
