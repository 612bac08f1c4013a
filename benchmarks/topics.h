// The topics of measurement. Each registers its benchmarks and adds the rows they fill.
#pragma once

#include "table.h"

namespace orvo::benchmarks {

void add_decoding(Table& table);
void add_lost_locks(Table& table);
void add_unsynced_channels(Table& table);
void add_lock_search(Table& table);
void add_read_back(Table& table);
void add_inspection(Table& table);
void add_python(Table& table);
void add_capture(Table& table);
void add_instrument_and_tool(Table& table);

}  // namespace orvo::benchmarks
