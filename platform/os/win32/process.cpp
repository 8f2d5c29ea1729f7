// The running process on Windows: its elapsed time and TerminateProcess.
#include <windows.h>

#include "kvos/process.h"

namespace kvos {
namespace {

uint64_t monotonic_ms() {
  LARGE_INTEGER count, frequency;
  QueryPerformanceCounter(&count);
  QueryPerformanceFrequency(&frequency);
  return static_cast<uint64_t>(count.QuadPart) / (static_cast<uint64_t>(frequency.QuadPart) / 1000u);
}

uint64_t g_startMs = 0;

__attribute__((constructor)) void record_process_start() { g_startMs = monotonic_ms(); }

}  // namespace

uint64_t process_elapsed_ms() { return monotonic_ms() - g_startMs; }

void process_terminate_now(int status) {
  TerminateProcess(GetCurrentProcess(), static_cast<UINT>(status));
  __builtin_unreachable();  // the calling thread ends with the process
}

}  // namespace kvos
