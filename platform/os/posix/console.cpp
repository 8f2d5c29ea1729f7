// The console on Linux: the controlling terminal.
#include "kvos/console.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <mutex>

namespace kvos {
namespace {

constexpr const char* kTerminal = "/dev/tty";
constexpr int kSignals[] = {SIGINT, SIGQUIT, SIGHUP};  // by event number
constexpr int kMaxHandlers = 8;

std::atomic<bool> g_allocated{false};
std::mutex g_mutex;
std::string g_title;
bool g_titleSet = false;
std::atomic<ConsoleCtrlHandler> g_handlers[kMaxHandlers];
bool g_signalsInstalled = false;
char g_windowToken;

bool is_null_device(int fd) {
  struct stat st, null;
  if (fstat(fd, &st) != 0) return false;
  if (stat("/dev/null", &null) != 0) return false;
  return S_ISCHR(st.st_mode) && st.st_rdev == null.st_rdev;
}

bool closed(int fd) { return fcntl(fd, F_GETFD) == -1 && errno == EBADF; }

int event_of(int signal) {
  for (int event = 0; event < 3; ++event)
    if (kSignals[event] == signal) return event;
  return -1;
}

// Asks the handlers, newest first; unhandled events take their default action.
void on_console_signal(int signal) {
  const int saved = errno;
  const int event = event_of(signal);
  for (int i = kMaxHandlers - 1; i >= 0 && event >= 0; --i) {
    const ConsoleCtrlHandler handler = g_handlers[i].load(std::memory_order_acquire);
    if (handler != nullptr && handler(event)) {
      errno = saved;
      return;
    }
  }
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
  raise(signal);
  errno = saved;
}

void install_signals() {
  if (g_signalsInstalled) return;
  struct sigaction action {};
  action.sa_handler = on_console_signal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  for (int signal : kSignals) sigaction(signal, &action, nullptr);
  g_signalsInstalled = true;
}

}  // namespace

bool console_allocate(std::string& inputDevice, std::string& outputDevice) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_allocated.load()) return false;
  if (!closed(STDOUT_FILENO) && !is_null_device(STDOUT_FILENO)) return false;  // already has its console
  const int fd = open(kTerminal, O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return false;  // no controlling terminal
  close(fd);
  inputDevice = kTerminal;
  outputDevice = kTerminal;
  g_allocated.store(true);
  return true;
}

bool console_allocated() { return g_allocated.load(); }

void* console_window() { return g_allocated.load() ? &g_windowToken : nullptr; }

bool console_set_title(const std::string& title) {
  if (!g_allocated.load()) return false;
  std::string clean;
  for (char c : title)
    if (static_cast<unsigned char>(c) >= 0x20 && c != 0x7F) clean += c;
  const std::string sequence = "\033]0;" + clean + "\007";
  const int fd = open(kTerminal, O_WRONLY | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < sequence.size()) {
    const ssize_t n = write(fd, sequence.data() + done, sequence.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  close(fd);
  if (done != sequence.size()) return false;
  std::lock_guard<std::mutex> lock(g_mutex);
  g_title = clean;
  g_titleSet = true;
  return true;
}

bool console_get_title(std::string& title) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (!g_titleSet) return false;
  title = g_title;
  return true;
}

bool console_show_window(bool) { return console_window() != nullptr; }
bool console_disable_close() { return console_window() != nullptr; }

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
  install_signals();
  return true;
}

bool console_restore_ctrl_c() {
  if (!g_allocated.load()) return false;
  struct sigaction current {};
  if (sigaction(SIGINT, nullptr, &current) != 0) return false;
  if (current.sa_handler == SIG_IGN) {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    return sigaction(SIGINT, &action, nullptr) == 0;
  }
  return true;
}

}  // namespace kvos
