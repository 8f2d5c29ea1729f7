// Virtual memory for the region heaps: address ranges reserved without
// memory behind them, then committed (readable and writable, zero-filled on
// first touch) and decommitted in whole pages. Internal to the boundary.
#pragma once

#include <cstddef>

namespace kvos::vm {

// The unit of commit and decommit.
size_t page_size();

// Reserves size bytes of inaccessible address space; null on failure.
void* reserve(size_t size);

// Makes whole pages of a reserved range readable and writable.
bool commit(void* p, size_t size);

// Gives whole committed pages back; they become inaccessible.
bool decommit(void* p, size_t size);

// Tells the system that the contents of whole committed pages are no longer
// needed: it may drop them; the pages stay accessible, with undefined contents.
void discard(void* p, size_t size);

// Releases a whole range that reserve returned.
void release(void* p, size_t size);

}  // namespace kvos::vm
