#pragma once

#include <cstdint>
#include <string_view>

namespace volorn {

class MetricStore {
 public:
  virtual ~MetricStore() = default;

  // Not acknowledged: a write that fails is lost silently to its caller.
  virtual void setScalarValue(std::string_view key, std::int64_t value) = 0;
};

}  // namespace volorn
