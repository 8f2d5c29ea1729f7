// The running process on Linux.
#include "kvos/process.h"

#include <time.h>
#include <unistd.h>

namespace kvos {
namespace {

uint64_t monotonic_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

uint64_t g_startMs = 0;

__attribute__((constructor)) void record_process_start() { g_startMs = monotonic_ms(); }

}  // namespace

uint64_t process_elapsed_ms() { return monotonic_ms() - g_startMs; }

void process_terminate_now(int status) { _exit(status); }

}  // namespace kvos
