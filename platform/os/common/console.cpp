// The console: allocation state, the title and the control handlers.
#include "kvos/console.h"

#include <atomic>
#include <mutex>

#include "console_system.h"

namespace kvos {
namespace {

constexpr int kMaxHandlers = 8;

std::atomic<bool> g_allocated{false};
std::mutex g_mutex;
std::atomic<ConsoleCtrlHandler> g_handlers[kMaxHandlers];  // oldest first

}  // namespace

bool dispatch_console_event(int event) {
  for (int i = kMaxHandlers - 1; i >= 0; --i) {
    const ConsoleCtrlHandler handler = g_handlers[i].load(std::memory_order_acquire);
    if (handler != nullptr && handler(event)) return true;
  }
  return false;
}

bool console_allocate(std::string& inputDevice, std::string& outputDevice) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_allocated.load()) return false;
  if (!console_system::allocate(inputDevice, outputDevice)) return false;
  g_allocated.store(true);
  return true;
}

void* console_window() { return g_allocated.load() ? console_system::window() : nullptr; }

bool console_set_title(const std::string& title) {
  if (!g_allocated.load()) return false;
  std::string clean;
  for (char c : title)
    if (static_cast<unsigned char>(c) >= 0x20 && c != 0x7F) clean += c;
  return console_system::set_title(clean);
}

bool console_show_window(bool show) { return console_window() != nullptr && console_system::show_window(show); }
bool console_disable_close() { return console_window() != nullptr && console_system::disable_close(); }

bool console_set_ctrl_handler(ConsoleCtrlHandler handler, bool add) {
  if (!g_allocated.load() || handler == nullptr) return false;
  std::lock_guard<std::mutex> lock(g_mutex);
  int used = 0;  // handlers occupy slots 0..used-1, oldest first
  while (used < kMaxHandlers && g_handlers[used].load() != nullptr) ++used;
  if (!add) {
    for (int i = used - 1; i >= 0; --i) {
      if (g_handlers[i].load() != handler) continue;
      for (int j = i; j + 1 < used; ++j) g_handlers[j].store(g_handlers[j + 1].load(), std::memory_order_release);
      g_handlers[used - 1].store(nullptr, std::memory_order_release);
      return true;
    }
    return false;
  }
  if (used == kMaxHandlers) return false;
  g_handlers[used].store(handler, std::memory_order_release);
  console_system::route_events();
  return true;
}

bool console_restore_ctrl_c() { return g_allocated.load() && console_system::restore_ctrl_c(); }

}  // namespace kvos
