#pragma once

#include <cstdint>

#include "libtop/process_info.h"

namespace volorn {

// Pids are compared as signed numbers.
inline std::int32_t pidOf(const ProcessSample& psamp) {
  return static_cast<std::int32_t>(psamp.pid);
}

// The process records by ascending signed pid: a red-black tree through their pid links. One sentinel stands
// for every empty link, so no walk of the tree asks for null. Records are found in logarithmic time and never
// move.
class ProcessTable {
 public:
  ProcessTable();
  ~ProcessTable() { clear(); }
  ProcessTable(const ProcessTable&) = delete;
  ProcessTable& operator=(const ProcessTable&) = delete;

  // Null when there is none.
  ProcessInfo* find(std::int32_t pid) const;

  // Makes a zeroed record of a pid that has none. Null when there is no memory for it.
  ProcessInfo* insert(std::int32_t pid);

  // Unlinks and frees the record.
  void erase(ProcessInfo* pinfo);

  void clear();

  // Null at the end.
  ProcessInfo* first() const;
  ProcessInfo* next(ProcessInfo* pinfo) const;

 private:
  ProcessInfo* leftmost(ProcessInfo* pinfo) const;
  ProcessInfo* orNull(ProcessInfo* pinfo) const { return pinfo == &sentinel_ ? nullptr : pinfo; }
  void rotate(ProcessInfo* pinfo, ProcessInfo* TreeLinks::*down, ProcessInfo* TreeLinks::*up);
  void replace(ProcessInfo* pinfo, ProcessInfo* by);
  void rebalanceAfterInsert(ProcessInfo* pinfo);
  void rebalanceAfterErase(ProcessInfo* pinfo);

  ProcessInfo sentinel_ = {};
  ProcessInfo* root_ = &sentinel_;
};

}  // namespace volorn
