#pragma once

#include <string>
#include <string_view>

namespace volorn::ctl {

// Puts a new file with this content in the place of the one at `path`, or where there is none. Whoever opens
// that finds the old content or the new, whole, also after a power cut; a failure leaves the old one. The new
// one has mode 0644 and, made by root, the folder's owner and group. Of several who do so at once each has
// its turn. What a killed one left beside it, `.NAME.new`, the next removes. What is no regular file is not
// replaced. Throws std::runtime_error.
void replaceFile(const std::string& path, std::string_view content);

}  // namespace volorn::ctl
