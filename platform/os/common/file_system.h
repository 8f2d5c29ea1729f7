// The system side of the file names module: the directory calls that the
// temporary names and the pattern search are built on. Internal to the boundary.
#pragma once

#include <string>
#include <vector>

#include "kvos/file.h"

namespace kvos::file_system {

// Whether host names an existing directory.
bool is_directory(const std::string& host);

// Creates an empty file that must not exist yet: 1 created, 0 it exists
// already, -1 another failure.
int create_new(const std::string& host);

// The names in a directory, "." and ".." left out; false when it cannot be read.
bool list_directory(const std::string& hostDir, std::vector<std::string>& names);

// Name (as stored), attributes, size and last-write time of an existing file
// or directory; false when there is none.
bool describe(const std::string& host, FindData& found);

// A number that differs between processes running at the same time.
unsigned process_number();

}  // namespace kvos::file_system
