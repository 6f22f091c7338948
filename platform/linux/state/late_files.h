#pragma once

namespace volorn::linux_host {

// Distributions build SQLite for 32-bit processors with times of 32 bits: it opens no file that was written
// from 2038 on. Before the first is opened, this has it look at files through us, where that is so.
void letSqliteSeeLateFiles();

}  // namespace volorn::linux_host
