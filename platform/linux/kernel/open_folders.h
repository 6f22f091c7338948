#pragma once

#include <algorithm>
#include <array>
#include <cstddef>

#include "platform/linux/file_descriptor.h"

namespace volorn::linux_host {

// Few folders may be open at a time, for 1,024 descriptors are a common limit and the reader has others. Who
// opens one too many closes the oldest, whose owner must be able to do without.
class OpenFolders {
 public:
  static constexpr std::size_t kMost = 8;

  // Before `folder` is opened. It must not move until it is left.
  void enter(FileDescriptor& folder) {
    FileDescriptor*& place = places_[next_];
    if (place) *place = FileDescriptor();
    place = &folder;
    next_ = (next_ + 1) % kMost;
  }

  // After its owner has closed it, or has failed to open it.
  void leave(FileDescriptor& folder) { std::ranges::replace(places_, &folder, nullptr); }

 private:
  std::array<FileDescriptor*, kMost> places_ = {};
  std::size_t next_ = 0;
};

}  // namespace volorn::linux_host
