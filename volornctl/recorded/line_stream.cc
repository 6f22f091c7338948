#include "volornctl/recorded/line_stream.h"

#include <zstd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <new>
#include <stdexcept>
#include <utility>

namespace volorn::ctl {
namespace {

// A fifth fewer bytes than with zstd's own level, for a quarter of a millisecond a sample. Lines repeat each
// other at length, so that matches need not be short, nor the tables that find them large.
constexpr int kLevel = 7;
constexpr int kLeastMatchBytes = 6;
constexpr int kLeastTable = 17;  // bits of its entries

// Bits of the bytes that lie between a text and what it is compared with: some lines of it, within what
// readers are asked to hold.
constexpr int kLeastWindow = 18;
constexpr int kMostWindow = 25;
constexpr std::size_t kLinesOfAWindow = 8;

std::size_t checked(std::size_t result) {
  if (ZSTD_isError(result)) throw std::runtime_error(std::string("zstd: ") + ZSTD_getErrorName(result));
  return result;
}

}  // namespace

struct LineCompressor::Context {
  std::unique_ptr<ZSTD_CCtx, decltype(&ZSTD_freeCCtx)> zstd{ZSTD_createCCtx(), &ZSTD_freeCCtx};
};

LineCompressor::LineCompressor() : context_(std::make_unique<Context>()) {
  if (!context_->zstd) throw std::bad_alloc();
}

LineCompressor::~LineCompressor() = default;

void LineCompressor::begin(std::size_t line_bytes) {
  ZSTD_CCtx* zstd = context_->zstd.get();
  const int window =
      std::clamp(static_cast<int>(std::bit_width(line_bytes * kLinesOfAWindow)), kLeastWindow, kMostWindow);
  const int table = std::max(window - 4, kLeastTable);
  checked(ZSTD_CCtx_reset(zstd, ZSTD_reset_session_and_parameters));
  for (const auto& [parameter, value] : {std::pair{ZSTD_c_compressionLevel, kLevel},
                                         {ZSTD_c_windowLog, window},
                                         {ZSTD_c_hashLog, table},
                                         {ZSTD_c_chainLog, table - 1},
                                         {ZSTD_c_minMatch, kLeastMatchBytes}}) {
    checked(ZSTD_CCtx_setParameter(zstd, parameter, value));
  }
  compressed_.clear();
}

void LineCompressor::run(std::string_view text, int how) {
  ZSTD_inBuffer in = {.src = text.data(), .size = text.size(), .pos = 0};
  std::array<char, 16 * 1024> room = {};
  std::size_t left = 0;
  do {
    ZSTD_outBuffer out = {.dst = room.data(), .size = room.size(), .pos = 0};
    left =
        checked(ZSTD_compressStream2(context_->zstd.get(), &out, &in, static_cast<ZSTD_EndDirective>(how)));
    compressed_.append(room.data(), out.pos);
  } while (in.pos < in.size || (how != ZSTD_e_continue && left > 0));
}

void LineCompressor::add(std::string_view line) {
  run(line, ZSTD_e_continue);
}

std::string LineCompressor::take(bool is_last) {
  run({}, is_last ? ZSTD_e_end : ZSTD_e_flush);
  return std::exchange(compressed_, {});
}

struct LineExpander::Context {
  std::unique_ptr<ZSTD_DCtx, decltype(&ZSTD_freeDCtx)> zstd{ZSTD_createDCtx(), &ZSTD_freeDCtx};
};

LineExpander::LineExpander() : context_(std::make_unique<Context>()) {
  if (!context_->zstd) throw std::bad_alloc();
  checked(ZSTD_DCtx_setParameter(context_->zstd.get(), ZSTD_d_windowLogMax, kMostWindow));
}

LineExpander::~LineExpander() = default;

bool LineExpander::expand(std::string_view bytes, std::string& text, std::size_t most_bytes) {
  ZSTD_inBuffer in = {.src = bytes.data(), .size = bytes.size(), .pos = 0};
  const std::size_t step_bytes = ZSTD_DStreamOutSize();
  while (true) {
    const std::size_t before = text.size();
    const std::size_t room = std::min(step_bytes, most_bytes - std::min(most_bytes, before));
    text.resize(before + room);
    ZSTD_outBuffer out = {.dst = text.data() + before, .size = room, .pos = 0};
    const std::size_t in_before = in.pos;
    const std::size_t result = ZSTD_decompressStream(context_->zstd.get(), &out, &in);
    text.resize(before + out.pos);
    if (ZSTD_isError(result)) return false;
    // All that was given has been told once there is room left.
    if (in.pos == in.size && out.pos < out.size) return true;
    if (out.pos == 0 && in.pos == in_before) return false;
  }
}

}  // namespace volorn::ctl
