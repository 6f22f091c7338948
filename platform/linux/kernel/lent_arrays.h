#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "platform/kernel.h"

namespace volorn::linux_host {

// The arrays that are lent. One that is handed back is lent again.
class LentArrays {
 public:
  // An empty array to be filled now. Its elements stand still once it is filled.
  std::vector<PortName>& lend() {
    if (free_.empty()) {
      // So that to hand back takes no memory.
      if (free_.capacity() <= lent_.size()) free_.reserve(2 * lent_.size() + 2);
      free_.push_back(std::make_unique<Array>());
    }
    lent_.push_back(std::move(free_.back()));
    free_.pop_back();
    lent_.back()->clear();
    return *lent_.back();
  }

  std::size_t lentCount() const { return lent_.size(); }

  // Ends the arrays lent since there were so many.
  void dropFrom(std::size_t count) { lent_.resize(std::min(count, lent_.size())); }

  // False when it is not lent.
  bool handBack(PortArray array) {
    const auto found =
        std::ranges::find_if(lent_, [&](const auto& lent) { return lent->data() == array.data(); });
    if (found == lent_.end()) return false;
    free_.push_back(std::move(*found));
    lent_.erase(found);
    return true;
  }

 private:
  using Array = std::vector<PortName>;
  std::vector<std::unique_ptr<Array>> lent_;
  std::vector<std::unique_ptr<Array>> free_;
};

}  // namespace volorn::linux_host
