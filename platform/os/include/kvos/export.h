// Export macro of the operating-system boundary library: exported by its own
// build and imported by its users on Windows, default visibility elsewhere.
#pragma once

#if defined(_WIN32)
#if defined(KvOs_EXPORTS)
#define KVOS_API __declspec(dllexport)
#else
#define KVOS_API __declspec(dllimport)
#endif
#else
#define KVOS_API __attribute__((visibility("default")))
#endif
