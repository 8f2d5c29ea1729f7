// Debugger support on Linux: a tracer is visible as TracerPid in /proc/self/status.
#include "kvos/debugger.h"

#include <atomic>
#include <cstdint>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace kvos {
namespace {

std::atomic<DebuggerWriter> g_writer{nullptr};

// The stream asks the kernel at most this often whether a tracer is attached.
constexpr int64_t kPresenceRefreshNs = 200000000;
std::atomic<int64_t> g_presenceCheckedAt{INT64_MIN};
std::atomic<bool> g_presenceCached{false};

int64_t monotonic_ns() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

// Presence for the output stream: fresh enough, and cheap per line.
bool debugger_present_recently() {
  const int64_t now = monotonic_ns();
  const int64_t checked = g_presenceCheckedAt.load(std::memory_order_relaxed);
  if (checked != INT64_MIN && now - checked < kPresenceRefreshNs) return g_presenceCached.load(std::memory_order_relaxed);
  const bool present = debugger_present();
  g_presenceCached.store(present, std::memory_order_relaxed);
  g_presenceCheckedAt.store(now, std::memory_order_relaxed);
  return present;
}

int tracer_pid() {
  FILE* f = std::fopen("/proc/self/status", "re");
  if (f == nullptr) return 0;
  char line[256];
  int pid = 0;
  while (std::fgets(line, sizeof line, f) != nullptr) {
    if (std::strncmp(line, "TracerPid:", 10) == 0) {
      pid = std::atoi(line + 10);
      break;
    }
  }
  std::fclose(f);
  return pid;
}

}  // namespace

bool debugger_present() { return tracer_pid() != 0; }

void debugger_break() {
  if (debugger_present()) std::raise(SIGTRAP);
}

void debugger_output(const char* text) {
  if (text == nullptr) return;
  if (DebuggerWriter writer = g_writer.load(std::memory_order_acquire)) {
    writer(text);
    return;
  }
  if (debugger_present_recently()) {
    std::fputs(text, stderr);
    std::fflush(stderr);
  }
}

DebuggerWriter set_debugger_writer(DebuggerWriter writer) {
  return g_writer.exchange(writer, std::memory_order_acq_rel);
}

}  // namespace kvos
