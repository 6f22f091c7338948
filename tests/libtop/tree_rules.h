#pragma once

#include "libtop/libtop.h"
#include "libtop/process_table.h"

namespace volorn {

// Black records on every way down from here, or -1 when a rule is broken.
inline int blackHeight(const ProcessInfo* pinfo, const ProcessInfo* sentinel) {
  if (pinfo == sentinel) return 1;
  const TreeLinks& own = pinfo->pid_links;
  for (const ProcessInfo* child : {own.left, own.right}) {
    if (child == sentinel) continue;
    if (child->pid_links.parent != pinfo) return -1;
    if (own.colour == kRed && child->pid_links.colour == kRed) return -1;
  }
  const int left = blackHeight(own.left, sentinel);
  if (left < 0 || left != blackHeight(own.right, sentinel)) return -1;
  return left + (own.colour == kBlack ? 1 : 0);
}

// Whether order, colours, links and sentinel are those of a red-black tree.
inline bool isRedBlackTree(const ProcessTable& table) {
  const ProcessInfo* root = table.first();
  if (!root) return true;
  const ProcessInfo* const sentinel = root->pid_links.left;
  while (root->pid_links.parent != sentinel) root = root->pid_links.parent;
  const TreeLinks& empty = sentinel->pid_links;
  if (empty.parent != sentinel || empty.left != sentinel || empty.right != sentinel) return false;
  if (empty.colour != kBlack || root->pid_links.colour != kBlack) return false;
  if (blackHeight(root, sentinel) < 0) return false;
  for (ProcessInfo* pinfo = table.first(); pinfo; pinfo = table.next(pinfo)) {
    const ProcessInfo* after = table.next(pinfo);
    if (after && libtop_p_pinfo_pid_comp(pinfo, after) != -1) return false;
  }
  return true;
}

}  // namespace volorn
