#include "platform/linux/regions/process_regions.h"

#include "platform/linux/page_size.h"
#include "platform/linux/regions/page_map_source.h"
#include "platform/linux/regions/region_view.h"
#include "platform/linux/regions/smaps_source.h"

namespace volorn::linux_host {
namespace {

// Where fewer than one page in so many is there, the text that leaves out the holes is the cheaper source.
constexpr std::uint64_t kSparsePages = 64;

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
    const PageMapSource::Result result = parts.page_map.read(process_folder, parts.mappings);
    if (result != PageMapSource::Result::not_offered) return result == PageMapSource::Result::read;
    source_ = RegionSource::smaps;
  }
  return parts.smaps.read(process_folder, parts.mappings);
}

void ProcessRegions::read(int process_folder, const RegionOwner& owner, RegionWalk walk,
                          std::vector<ProcessRegion>& regions) {
  regions.clear();
  if (owner.mapped_pages == 0 || !readMappings(process_folder, owner)) return;
  parts_->view.show(parts_->mappings, owner, walk, regions);
}

}  // namespace volorn::linux_host
