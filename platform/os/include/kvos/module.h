// The running program (its module handle and executable file) and modules
// loaded at run time: load one by name, look up its symbols, unload it.
#pragma once

#include <string>
#include <vector>

#include "kvos/export.h"

namespace kvos {

// Handle of the host executable (never null).
KVOS_API void* executable_module();

// Host path of the running executable; empty when it cannot be read.
KVOS_API std::string executable_path();

// The file name this platform gives a module of that base name
// ("KVRS232" -> "libKVRS232.so"; a Windows build gives "KVRS232.dll").
KVOS_API std::string module_file_name(const std::string& base);

// Directory (host path, no trailing separator) of the loaded module or
// executable that holds address; empty when none does.
KVOS_API std::string module_directory(const void* address);

// Loads a module. A name with a directory part is loaded from exactly there;
// a bare file name is looked up in each of directories in turn, then by the
// system's normal search. Returns null on failure, with the reason in *error
// when error is not null. Each successful load must be matched by module_unload.
KVOS_API void* module_load(const std::string& name, const std::vector<std::string>& directories,
                           std::string* error = nullptr);

// Address of an exported symbol of a loaded module; null when it has none
// (or module is null).
KVOS_API void* module_symbol(void* module, const char* name);

// Releases a load of module_load; the module leaves the process with its
// last release. A null module is ignored.
KVOS_API void module_unload(void* module);

}  // namespace kvos
