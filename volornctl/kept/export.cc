#include "volornctl/kept/export.h"

#include <algorithm>
#include <span>
#include <utility>

#include "volornctl/choices.h"
#include "volornctl/kept/device.h"
#include "volornctl/kept/export_text.h"
#include "volornctl/kept/state_choice.h"
#include "volornctl/kept/unsent.h"
#include "volornctl/number_option.h"
#include "volornctl/replace_file.h"

namespace volorn::ctl {
namespace {

using linux_host::StoredSnapshot;

// No body has a snapshot in less.
constexpr std::int64_t kLeastSnapshotBytes = 64;

constexpr const char* kIdentityLabel = "host_id";

std::string checkCursor(const std::string& text) {
  return parseCursor(text) ? "" : "not what --cursor has written: " + text;
}

std::string checkLabel(const std::string& text) {
  constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ_abcdefghijklmnopqrstuvwxyz";
  const std::string_view label = text;
  const std::string_view name = label.substr(0, label.find('='));
  const std::size_t other = name.find_first_not_of(std::string(kLetters) + "0123456789");
  const bool is_name = !name.empty() && other == name.npos && kLetters.find(name[0]) != kLetters.npos;
  const bool has_value = name.size() + 1 < label.size();
  const bool is_printable = std::ranges::none_of(label, [](unsigned char c) { return c < ' ' || c == 0x7F; });
  if (is_name && has_value && is_printable && name != kIdentityLabel && !name.starts_with("__")) return "";
  return "not NAME=VALUE with a name of letters, digits and underscores: " + text;
}

// As many of them as fit, but one at least; how many, and their body.
std::pair<std::size_t, std::string> fittingBody(std::span<const StoredSnapshot> snapshots,
                                                const Device& device, const std::string& format,
                                                std::size_t max_bytes) {
  const auto make = format == "otlp" ? otlpJson : prometheusText;
  std::size_t count = snapshots.size();
  std::string body = make(snapshots, device);
  while (body.size() > max_bytes && count > 1) {
    // Most are of one size; what is too many still is corrected in the next round.
    const std::size_t share = static_cast<std::size_t>(
        static_cast<double>(count) * static_cast<double>(max_bytes) / static_cast<double>(body.size()));
    count = std::clamp<std::size_t>(share, 1, count - 1);
    body = make(snapshots.first(count), device);
  }
  return {count, std::move(body)};
}

}  // namespace

CLI::App* ExportCommand::addTo(CLI::App& program) {
  CLI::App* command =
      program.add_subcommand("export", "Print the body of a request to a receiver of metrics");
  command->add_option("--format", format_, "For this kind of receiver: prometheus or otlp")
      ->type_name("NAME")
      ->required()
      ->check(oneOf({"prometheus", "otlp"}));
  command->add_option("--after", after_, "The snapshots after this cursor; all of them unless told")
      ->type_name("CURSOR")
      ->check(checkCursor);
  command->add_option("--max-bytes", max_bytes_, "No longer than so many bytes, but for a single snapshot")
      ->type_name("N")
      ->capture_default_str()
      ->check(checkCount);
  command->add_option("--cursor", cursor_file_, "Replace this file by the cursor behind what is printed")
      ->type_name("FILE");
  command->add_option("--label", labels_, "Give each sample this label; may be repeated")
      ->type_name("NAME=VALUE")
      ->allow_extra_args(false)
      ->check(checkLabel);
  return command;
}

void ExportCommand::run(const Surroundings& surroundings) {
  Device device = readDevice();
  for (const std::string& label : labels_) {
    const std::size_t equals = label.find('=');
    device.labels.emplace_back(label.substr(0, equals), label.substr(equals + 1));
  }
  const auto most = static_cast<std::size_t>(max_bytes_ / kLeastSnapshotBytes + 1);
  std::vector<UnsentSnapshot> unsent =
      readUnsent(stateDirectory(surroundings), after_ ? parseCursor(*after_) : std::nullopt, most);
  std::vector<StoredSnapshot> snapshots;
  for (UnsentSnapshot& one : unsent) snapshots.push_back(std::move(one.snapshot));
  const auto [count, body] = fittingBody(snapshots, device, format_, static_cast<std::size_t>(max_bytes_));
  surroundings.output.write(body);
  // Only now: whoever finds it has the whole body.
  if (cursor_file_) replaceFile(*cursor_file_, textOf(unsent[count - 1].cursor) + "\n");
}

}  // namespace volorn::ctl
