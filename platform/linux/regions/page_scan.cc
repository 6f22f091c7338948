#include "platform/linux/regions/page_scan.h"

#include <sys/ioctl.h>

#include "platform/linux/regions/mapping_query.h"

namespace volorn::linux_host {
namespace {

constexpr std::uint64_t kPresent = 1 << 3;
constexpr std::uint64_t kSwapped = 1 << 4;
constexpr std::uint64_t kZeroPage = 1 << 5;  // of either size

// A page is found when, its categories xor `inverted`, it has all of `all_of` and, if there are any, one of
// `any_of`.
struct ScanRequest {
  std::uint64_t size_bytes = sizeof(ScanRequest);
  std::uint64_t flags = 0;
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::uint64_t walked_to = 0;  // the kernel's answer
  std::uint64_t runs_address = 0;
  std::uint64_t runs_room = 0;
  std::uint64_t page_limit = 0;
  std::uint64_t inverted = 0;
  std::uint64_t all_of = 0;
  std::uint64_t any_of = 0;
  std::uint64_t told_of = 0;  // runs are parted where these categories change
};
static_assert(sizeof(ScanRequest) == 96);

constexpr auto kPageMapScan = static_cast<IoctlRequest>(_IOWR('f', 16, ScanRequest));

}  // namespace

int PageScan::scan(int page_map, std::uint64_t start, std::uint64_t end, Kind kind,
                   std::uint64_t& walked_to) {
  ScanRequest request;
  request.start = start;
  request.end = end;
  request.runs_address = reinterpret_cast<std::uintptr_t>(runs_.data());
  request.runs_room = runs_.size();
  if (kind == Kind::present_or_swapped) {
    request.any_of = kPresent | kSwapped;
  } else {
    request.inverted = kZeroPage;
    request.all_of = kPresent | kZeroPage;
  }
  const int count = ioctl(page_map, kPageMapScan, &request);
  walked_to = request.walked_to;
  return count;
}

}  // namespace volorn::linux_host
