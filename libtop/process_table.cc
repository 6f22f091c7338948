#include "libtop/process_table.h"

#include <new>
#include <utility>

#include "libtop/assertion.h"
#include "libtop/libtop.h"

namespace volorn {
namespace {

constexpr auto kLeft = &TreeLinks::left;
constexpr auto kRight = &TreeLinks::right;

TreeLinks& links(ProcessInfo* pinfo) {
  // The analyser of clang 14 takes the address of a member that it knows nothing of for null.
  return pinfo->pid_links;  // NOLINT(clang-analyzer-core.uninitialized.UndefReturn)
}

int compare(std::int32_t a, std::int32_t b) {
  return a < b ? -1 : a > b ? 1 : 0;
}

// A side and the side opposite, for rules that have a mirror image.
struct Sides {
  ProcessInfo* TreeLinks::*near;
  ProcessInfo* TreeLinks::*far;
};

Sides sidesOf(ProcessInfo* child) {
  const bool is_left = links(links(child).parent).left == child;
  return is_left ? Sides{kLeft, kRight} : Sides{kRight, kLeft};
}

}  // namespace

int libtop_p_pinfo_pid_comp(const ProcessInfo* a, const ProcessInfo* b) {
  if (!a) assertionFailed("libtop_p_pinfo_pid_comp", 2312, "a != NULL");
  if (!b) assertionFailed("libtop_p_pinfo_pid_comp", 2313, "b != NULL");
  return compare(pidOf(a->psamp), pidOf(b->psamp));
}

ProcessTable::ProcessTable() {
  links(&sentinel_) = {.parent = &sentinel_, .left = &sentinel_, .right = &sentinel_, .colour = kBlack};
}

ProcessInfo* ProcessTable::find(std::int32_t pid) const {
  ProcessInfo* pinfo = root_;
  while (pinfo != &sentinel_) {
    const int order = compare(pid, pidOf(pinfo->psamp));
    if (order == 0) return pinfo;
    pinfo = order < 0 ? links(pinfo).left : links(pinfo).right;
  }
  return nullptr;
}

ProcessInfo* ProcessTable::insert(std::int32_t pid) {
  auto* pinfo = new (std::nothrow) ProcessInfo();
  if (!pinfo) return nullptr;
  pinfo->psamp.pid = static_cast<std::uint32_t>(pid);
  ProcessInfo* parent = &sentinel_;
  ProcessInfo** place = &root_;
  while (*place != &sentinel_) {
    parent = *place;
    place = libtop_p_pinfo_pid_comp(pinfo, parent) == -1 ? &links(parent).left : &links(parent).right;
  }
  *place = pinfo;
  links(pinfo) = {.parent = parent, .left = &sentinel_, .right = &sentinel_, .colour = kRed};
  rebalanceAfterInsert(pinfo);
  return pinfo;
}

void ProcessTable::clear() {
  while (ProcessInfo* pinfo = first()) erase(pinfo);
}

ProcessInfo* ProcessTable::leftmost(ProcessInfo* pinfo) const {
  while (links(pinfo).left != &sentinel_) pinfo = links(pinfo).left;
  return pinfo;
}

ProcessInfo* ProcessTable::first() const {
  return orNull(leftmost(root_));
}

ProcessInfo* ProcessTable::next(ProcessInfo* pinfo) const {
  if (links(pinfo).right != &sentinel_) return leftmost(links(pinfo).right);
  ProcessInfo* parent = links(pinfo).parent;
  while (parent != &sentinel_ && pinfo == links(parent).right) {
    pinfo = std::exchange(parent, links(parent).parent);
  }
  return orNull(parent);
}

// Moves `pinfo` down on the side `down`; its child on the other side takes its place.
void ProcessTable::rotate(ProcessInfo* pinfo, ProcessInfo* TreeLinks::*down, ProcessInfo* TreeLinks::*up) {
  ProcessInfo* child = links(pinfo).*up;
  ProcessInfo* moved = links(child).*down;
  links(pinfo).*up = moved;
  if (moved != &sentinel_) links(moved).parent = pinfo;
  replace(pinfo, child);
  links(child).*down = pinfo;
  links(pinfo).parent = child;
}

// Links `by` to the parent of `pinfo`. The sentinel keeps that parent too, until the erasing is done.
void ProcessTable::replace(ProcessInfo* pinfo, ProcessInfo* by) {
  ProcessInfo* parent = links(pinfo).parent;
  if (parent == &sentinel_) {
    root_ = by;
  } else if (links(parent).left == pinfo) {
    links(parent).left = by;
  } else {
    links(parent).right = by;
  }
  links(by).parent = parent;
}

void ProcessTable::rebalanceAfterInsert(ProcessInfo* pinfo) {
  while (links(links(pinfo).parent).colour == kRed) {
    ProcessInfo* parent = links(pinfo).parent;
    ProcessInfo* grandparent = links(parent).parent;
    const Sides sides = sidesOf(parent);
    ProcessInfo* uncle = links(grandparent).*sides.far;
    if (links(uncle).colour == kRed) {
      links(parent).colour = kBlack;
      links(uncle).colour = kBlack;
      links(grandparent).colour = kRed;
      pinfo = grandparent;
      continue;
    }
    if (links(parent).*sides.far == pinfo) {
      rotate(parent, sides.near, sides.far);
      std::swap(pinfo, parent);
    }
    links(parent).colour = kBlack;
    links(grandparent).colour = kRed;
    rotate(grandparent, sides.far, sides.near);
  }
  links(root_).colour = kBlack;
}

void ProcessTable::erase(ProcessInfo* pinfo) {
  std::uint32_t removed_colour = links(pinfo).colour;
  ProcessInfo* short_of_black = nullptr;
  if (links(pinfo).left == &sentinel_ || links(pinfo).right == &sentinel_) {
    short_of_black = links(pinfo).left == &sentinel_ ? links(pinfo).right : links(pinfo).left;
    replace(pinfo, short_of_black);
  } else {
    ProcessInfo* successor = leftmost(links(pinfo).right);
    removed_colour = links(successor).colour;
    short_of_black = links(successor).right;
    if (links(successor).parent == pinfo) {
      links(short_of_black).parent = successor;  // the sentinel's too
    } else {
      replace(successor, short_of_black);
      links(successor).right = links(pinfo).right;
      links(links(successor).right).parent = successor;
    }
    replace(pinfo, successor);
    links(successor).left = links(pinfo).left;
    links(links(successor).left).parent = successor;
    links(successor).colour = links(pinfo).colour;
  }
  if (removed_colour == kBlack) rebalanceAfterErase(short_of_black);
  links(&sentinel_).parent = &sentinel_;
  delete pinfo;
}

void ProcessTable::rebalanceAfterErase(ProcessInfo* pinfo) {
  while (pinfo != root_ && links(pinfo).colour == kBlack) {
    ProcessInfo* parent = links(pinfo).parent;
    const Sides sides = sidesOf(pinfo);
    ProcessInfo* sibling = links(parent).*sides.far;
    if (links(sibling).colour == kRed) {
      links(sibling).colour = kBlack;
      links(parent).colour = kRed;
      rotate(parent, sides.near, sides.far);
      sibling = links(parent).*sides.far;
    }
    ProcessInfo* near_nephew = links(sibling).*sides.near;
    ProcessInfo* far_nephew = links(sibling).*sides.far;
    if (links(near_nephew).colour == kBlack && links(far_nephew).colour == kBlack) {
      links(sibling).colour = kRed;
      pinfo = parent;
      continue;
    }
    if (links(far_nephew).colour == kBlack) {
      links(near_nephew).colour = kBlack;
      links(sibling).colour = kRed;
      rotate(sibling, sides.far, sides.near);
      sibling = links(parent).*sides.far;
    }
    links(sibling).colour = links(parent).colour;
    links(parent).colour = kBlack;
    links(links(sibling).*sides.far).colour = kBlack;
    rotate(parent, sides.near, sides.far);
    pinfo = root_;
  }
  links(pinfo).colour = kBlack;
}

}  // namespace volorn
