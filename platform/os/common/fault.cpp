// Fault injection points of the boundary.
#include "kvos/fault.h"

#include <array>
#include <atomic>
#include <mutex>

namespace kvos {
namespace {

constexpr unsigned kPoints = static_cast<unsigned>(FaultPoint::Count);

struct PointState {
  unsigned skip = 0;
  unsigned count = 0;  // 0: fail for ever
  unsigned hits = 0;
};

std::atomic<unsigned> g_armed{0};  // one bit per armed point
std::mutex g_mutex;
std::array<PointState, kPoints> g_points;

unsigned bit(FaultPoint point) { return 1u << static_cast<unsigned>(point); }
bool valid(FaultPoint point) { return static_cast<unsigned>(point) < kPoints; }

}  // namespace

void fault_arm(FaultPoint point, unsigned skip, unsigned count) {
  if (!valid(point)) return;
  std::lock_guard<std::mutex> lock(g_mutex);
  g_points[static_cast<unsigned>(point)] = PointState{skip, count, 0};
  g_armed.fetch_or(bit(point), std::memory_order_release);
}

void fault_disarm(FaultPoint point) {
  if (!valid(point)) return;
  std::lock_guard<std::mutex> lock(g_mutex);
  g_armed.fetch_and(~bit(point), std::memory_order_release);
}

void fault_disarm_all() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_armed.store(0, std::memory_order_release);
  for (PointState& state : g_points) state = PointState{};
}

unsigned fault_hits(FaultPoint point) {
  if (!valid(point)) return 0;
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_points[static_cast<unsigned>(point)].hits;
}

bool fault_check(FaultPoint point) {
  if ((g_armed.load(std::memory_order_relaxed) & bit(point)) == 0) return false;
  std::lock_guard<std::mutex> lock(g_mutex);
  if ((g_armed.load(std::memory_order_relaxed) & bit(point)) == 0) return false;
  PointState& state = g_points[static_cast<unsigned>(point)];
  if (state.skip > 0) {
    --state.skip;
    return false;
  }
  ++state.hits;
  if (state.count != 0 && state.hits >= state.count) g_armed.fetch_and(~bit(point), std::memory_order_release);
  return true;
}

}  // namespace kvos
