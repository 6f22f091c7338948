#include "platform/linux/regions/process_regions.h"

#include <cerrno>

#include "platform/linux/page_size.h"
#include "platform/linux/regions/page_map_source.h"
#include "platform/linux/regions/region_view.h"
#include "platform/linux/regions/smaps_source.h"
#include "platform/shared_library_ranges.h"

namespace volorn::linux_host {
namespace {

// Where fewer than one page in so many is there, the text that leaves out the holes is the cheaper source.
constexpr std::uint64_t kSparsePages = 64;

// The call is not offered, or a filter of calls keeps it back: that is so for every process.
bool isRefused(int error) {
  return error == ENOTTY || error == ENOSYS || error == EPERM || error == EINVAL || error == EOPNOTSUPP;
}

}  // namespace

struct ProcessRegions::Parts {
  PageMapSource page_map{pageSizeBytes()};
  SmapsSource smaps{pageSizeBytes()};
  RegionView view{pageSizeBytes()};
  std::vector<Mapping> mappings;
};

ProcessRegions::ProcessRegions(RegionSource source) : source_(source), parts_(std::make_unique<Parts>()) {}

ProcessRegions::~ProcessRegions() = default;

bool ProcessRegions::readMappings(int process_folder, const RegionOwner& owner) {
  Parts& parts = *parts_;
  parts.mappings.clear();
  const bool is_sparse = owner.resident_pages < owner.mapped_pages / kSparsePages;
  if (source_ == RegionSource::page_map || (source_ == RegionSource::best && !is_sparse)) {
    const PageMapSource::Failure failure = parts.page_map.read(process_folder, parts.mappings);
    if (failure.error == 0) return true;
    if (failure.is_of_process) return false;
    if (isRefused(failure.error)) source_ = RegionSource::smaps;
    parts.mappings.clear();
  }
  return parts.smaps.read(process_folder, parts.mappings) && !parts.mappings.empty();
}

bool ProcessRegions::read(int process_folder, const RegionOwner& owner, RegionWalk walk,
                          std::vector<ProcessRegion>& regions) {
  regions.clear();
  if (owner.mapped_pages == 0) return true;
  if (walk == RegionWalk::of_task && !sharedLibraryRangeOf(owner.cpu_type)) return false;
  if (!readMappings(process_folder, owner)) return false;
  parts_->view.show(parts_->mappings, owner, walk, regions);
  return true;
}

void ProcessRegions::forgetObjectsBut(std::span<const std::uint32_t> kept) {
  parts_->view.forgetObjectsBut(kept);
}

}  // namespace volorn::linux_host
