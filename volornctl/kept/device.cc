#include "volornctl/kept/device.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <span>
#include <stdexcept>

#include "platform/linux/parse_fields.h"
#include "platform/linux/parse_number.h"
#include "platform/linux/read_file.h"
extern "C" {
#include <sha2.h>
}

namespace volorn::ctl {
namespace {

using Id = std::array<std::uint8_t, 16>;

// dedb6b7b-05e0-4158-994d-715c48257153, which no other use of the machine id has.
constexpr Id kUse = {0xde, 0xdb, 0x6b, 0x7b, 0x05, 0xe0, 0x41, 0x58,
                     0x99, 0x4d, 0x71, 0x5c, 0x48, 0x25, 0x71, 0x53};

using Digest = std::array<std::uint8_t, SHA256_DIGEST_LENGTH>;

Digest sha256(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b) {
  SHA2_CTX context;
  Digest digest;
  SHA256Init(&context);
  SHA256Update(&context, a.data(), a.size());
  SHA256Update(&context, b.data(), b.size());
  SHA256Final(digest.data(), &context);
  return digest;
}

// RFC 2104, for a key shorter than a block.
Digest hmac(const Id& key, const Id& message) {
  std::array<std::uint8_t, SHA256_BLOCK_LENGTH> inner = {};
  std::array<std::uint8_t, SHA256_BLOCK_LENGTH> outer = {};
  for (std::size_t i = 0; i < inner.size(); ++i) {
    const std::uint8_t byte = i < key.size() ? key[i] : std::uint8_t{0};
    inner[i] = byte ^ 0x36;
    outer[i] = byte ^ 0x5c;
  }
  return sha256(outer, sha256(inner, message));
}

bool parseId(std::string_view text, Id& id) {
  if (text.size() != 2 * id.size()) return false;
  for (std::size_t i = 0; i < id.size(); ++i) {
    const char* digits = text.data() + 2 * i;
    const auto [end, error] = std::from_chars(digits, digits + 2, id[i], 16);
    if (error != std::errc() || end != digits + 2) return false;
  }
  return true;
}

// What a line NAME="VALUE" of os-release gives; empty without one.
std::string valueOf(std::string_view text, std::string_view name) {
  while (!text.empty()) {
    std::string_view line = linux_host::takeLine(text);
    if (!line.starts_with(name) || line.substr(name.size(), 1) != "=") continue;
    line.remove_prefix(name.size() + 1);
    const bool is_quoted =
        line.size() >= 2 && line.front() == line.back() && (line[0] == '"' || line[0] == '\'');
    return std::string(is_quoted ? line.substr(1, line.size() - 2) : line);
  }
  return "";
}

}  // namespace

std::string idForCollectors(std::string_view machine_id) {
  constexpr const char* kDigits = "0123456789abcdef";
  Id id = {};
  if (!parseId(machine_id, id)) return "";
  Digest digest = hmac(id, kUse);
  // The form of a random UUID.
  digest[6] = static_cast<std::uint8_t>((digest[6] & 0x0F) | 0x40);
  digest[8] = static_cast<std::uint8_t>((digest[8] & 0x3F) | 0x80);
  std::string text;
  for (const std::uint8_t byte : std::span(digest).first(id.size())) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0x0F];
  }
  return text;
}

Device readDevice(const std::string& root) {
  constexpr std::size_t kLimitBytes = 65'536;
  Device device;
  for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
    const std::string machine_id = linux_host::readFile(root + path, kLimitBytes).bytes;
    if (device.id.empty()) device.id = idForCollectors(linux_host::withoutTrailingBlanks(machine_id));
  }
  if (device.id.empty()) throw std::runtime_error(root + "/etc/machine-id: holds no machine id");
  for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    const std::string release = linux_host::readFile(root + path, kLimitBytes).bytes;
    if (device.os_name.empty()) device.os_name = valueOf(release, "NAME");
    if (device.os_version.empty()) device.os_version = valueOf(release, "VERSION_ID");
  }
  return device;
}

}  // namespace volorn::ctl
