#pragma once

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "libtop/sampler.h"
#include "platform/fake/fake_host.h"

namespace volorn {

inline constexpr std::uint64_t kPage = 4096;
inline constexpr std::uint64_t kSize = 16 * kPage;

inline RegionTopInfo top(ShareMode mode, std::uint32_t private_pages, std::uint32_t shared_pages,
                         std::uint32_t object_id = 1, std::uint32_t ref_count = 2) {
  return {.object_id = object_id,
          .ref_count = ref_count,
          .private_pages_resident = private_pages,
          .shared_pages_resident = shared_pages,
          .share_mode = mode};
}

// Regions of `kSize` bytes, one behind the other.
inline std::vector<fake::FakeRegion> regionsFrom(std::uint64_t address,
                                                 const std::vector<RegionTopInfo>& infos) {
  std::vector<fake::FakeRegion> regions;
  for (const RegionTopInfo& info : infos) {
    regions.push_back({.address = address, .size = kSize, .top = info});
    address += kSize;
  }
  return regions;
}

using Values = std::vector<std::uint64_t>;

// All these figures, one behind the other; of a time its microseconds.
template <typename... Parts>
Values flat(const Parts&... parts) {
  Values values;
  const auto add = [&values](const auto& part) {
    if constexpr (requires { part.microseconds; }) {
      EXPECT_LT(part.microseconds, 1'000'000);
      values.push_back(static_cast<std::uint64_t>(part.seconds * 1'000'000 + part.microseconds));
    } else if constexpr (requires { part.begin(); }) {
      values.insert(values.end(), part.begin(), part.end());
    } else {
      values.push_back(part);
    }
  };
  (add(parts), ...);
  return values;
}

// A started sampler over a fake host, and what it says.
class SamplerTest : public testing::Test {
 protected:
  ~SamplerTest() override {
    libtop_fini();
    sampler.reserved_memory_names = {};
    sampler.processor_type_name = {};
    sampler.tsamp = {};
  }

  static int collect(void* messages, const char* format, ...) {
    char text[256];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    static_cast<std::vector<std::string>*>(messages)->emplace_back(text);
    return 0;
  }

  int start() { return libtop_init(collect, &messages); }

  // Starts, where it is not started, and samples.
  const SystemSample& sample(bool walk_regions = true, bool shlib_totals = false) {
    const int started = sampler.argument_buffer ? 0 : start();
    EXPECT_EQ(started, 0);
    EXPECT_EQ(libtop_sample(walk_regions, shlib_totals), 0);
    return *libtop_tsamp();
  }

  // The record of a process; it must have one.
  static ProcessInfo& info(std::int32_t pid) { return *sampler.processes.find(pid); }
  static const ProcessSample& process(std::int32_t pid) { return info(pid).psamp; }

  // The pids of a walk.
  static std::vector<std::int32_t> walked() {
    std::vector<std::int32_t> pids;
    while (const ProcessInfo* pinfo = libtop_piterate()) {
      pids.push_back(pidOf(pinfo->psamp));
    }
    return pids;
  }

  void fail(std::string call, std::int32_t pid = fake::FakeKernel::kNoProcess, int code = kKernelFailure,
            int let_through = 0) {
    kernel.failures.push_back(
        {.call = std::move(call), .pid = pid, .code = code, .let_through = let_through});
  }

  fake::FakeHost host;
  fake::FakeKernel& kernel = host.kernel;
  std::vector<std::string> messages;

 private:
  Services services_ = host.services();
  ScopedServices scoped_{services_};
};

}  // namespace volorn
