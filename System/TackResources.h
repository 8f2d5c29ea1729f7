// The resources compiled into the library from the resources/ folder; the
// build generates their table (lower-cased file names and bytes).
#pragma once

#include <cstddef>

struct TackEmbeddedResource {
  const char* name;  // lower-cased file name; null ends the table
  const unsigned char* data;
  size_t size;
};

// The table, ended by an entry with a null name.
extern const TackEmbeddedResource kTackEmbeddedResources[];
