#include "platform/linux/devices/parse_block_stat.h"

#include "platform/linux/parse_fields.h"

namespace volorn::linux_host {

std::optional<BlockStat> parseBlockStat(std::string_view text) {
  constexpr std::uint64_t kSectorBytes = 512;
  FieldReader fields(text);
  BlockStat stat;
  std::uint64_t sectors_read = 0;
  std::uint64_t sectors_written = 0;
  const bool whole = fields.take(stat.reads) && fields.skip(1) && fields.take(sectors_read) &&
                     fields.skip(1) && fields.take(stat.writes) && fields.skip(1) &&
                     fields.take(sectors_written);
  if (!whole) return std::nullopt;
  stat.read_bytes = sectors_read * kSectorBytes;
  stat.written_bytes = sectors_written * kSectorBytes;
  return stat;
}

}  // namespace volorn::linux_host
