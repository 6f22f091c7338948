#include "volornctl/live/process_list.h"

#include <algorithm>
#include <cctype>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace volorn::ctl {
namespace {

bool holds(const std::string& text, const std::string& part) {
  const auto same = [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
  };
  return std::search(text.begin(), text.end(), part.begin(), part.end(), same) != text.end();
}

bool isChosen(const ProcessFigures& process, const ProcessChoice& choice, const UserNames& names) {
  if (choice.hides_kernel_threads && isKernelThread(process)) return false;
  if (!choice.pids.empty() && !choice.pids.contains(process.pid)) return false;
  if (choice.uid && process.uid != *choice.uid) return false;
  if (choice.user.empty() && choice.name.empty()) return true;
  const bool is_user = choice.user.empty() || choice.user == std::to_string(process.uid) ||
                       choice.user == userText(process.uid, names);
  return is_user && holds(process.command, choice.name);
}

// Every key is made once: there may be tens of thousands of rows, and a screen that waits for their order.
template <typename KeyOf>
void sortBy(ProcessList& list, const KeyOf& key_of, bool reverse) {
  using Key = decltype(key_of(*list.front().process));
  std::vector<std::pair<Key, ProcessRow>> keyed;
  keyed.reserve(list.size());
  for (const ProcessRow& row : list) keyed.emplace_back(key_of(*row.process), row);
  std::ranges::stable_sort(keyed, [reverse](const auto& a, const auto& b) {
    return reverse ? b.first < a.first : a.first < b.first;
  });
  std::ranges::transform(keyed, list.begin(), [](const auto& pair) { return pair.second; });
}

void sort(ProcessList& list, Column order, bool reverse, const UserNames& names) {
  if (order == Column::kCommand) {
    sortBy(
        list, [](const ProcessFigures& process) { return std::string_view(process.command); }, reverse);
  } else if (order == Column::kUser) {
    sortBy(
        list, [&](const ProcessFigures& process) { return userText(process.uid, names); }, reverse);
  } else {
    const auto key_of = [=](const ProcessFigures& process) { return orderKey(process, order, reverse); };
    sortBy(list, key_of, false);
  }
}

// Children below their parents, each group in the order of the list. Neither a parent of its own nor a ring
// of them, which pids that are used again may feign, loses a process: those follow at the top.
ProcessList asTree(const ProcessList& list) {
  std::unordered_map<std::int32_t, std::vector<std::size_t>> children;  // by pid, places in the list
  std::unordered_map<std::int32_t, std::size_t> place_of;
  for (std::size_t i = 0; i < list.size(); ++i) place_of[list[i].process->pid] = i;
  std::vector<std::pair<std::size_t, std::size_t>> pending;  // place and depth, the next one last
  for (std::size_t i = list.size(); i-- > 0;) {
    const ProcessFigures& process = *list[i].process;
    if (process.ppid != process.pid && place_of.contains(process.ppid)) {
      children[process.ppid].push_back(i);
    } else {
      pending.emplace_back(i, 0);
    }
  }
  ProcessList tree;
  std::vector<bool> is_placed(list.size());
  const auto place_pending = [&] {
    while (!pending.empty()) {
      const auto [place, depth] = pending.back();
      pending.pop_back();
      if (is_placed[place]) continue;
      is_placed[place] = true;
      tree.push_back({.process = list[place].process, .depth = depth});
      for (const std::size_t child : children[list[place].process->pid])
        pending.emplace_back(child, depth + 1);
    }
  };
  place_pending();
  for (std::size_t i = 0; i < list.size(); ++i) {
    pending.emplace_back(i, 0);
    place_pending();
  }
  return tree;
}

}  // namespace

ProcessList listProcesses(const Sample& sample, const ProcessChoice& choice, const UserNames& names) {
  ProcessList list;
  for (const ProcessFigures& process : sample.processes) {
    if (isChosen(process, choice, names)) list.push_back({.process = &process});
  }
  sort(list, choice.order, choice.is_reversed, names);
  if (choice.is_tree) list = asTree(list);
  if (choice.limit && static_cast<std::uint64_t>(*choice.limit) < list.size()) {
    list.resize(static_cast<std::size_t>(*choice.limit));
  }
  return list;
}

}  // namespace volorn::ctl
