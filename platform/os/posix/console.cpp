// The system side of the console on Linux: the controlling terminal, its
// title escape, and the signals that stand for the console's events.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <mutex>

#include "../common/console_system.h"

namespace kvos::console_system {
namespace {

constexpr const char* kTerminal = "/dev/tty";
constexpr int kSignals[] = {SIGINT, SIGQUIT, SIGHUP};  // by event number

std::once_flag g_routed;
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

// Asks the handlers; unhandled events take their default action.
void on_console_signal(int signal) {
  const int saved = errno;
  const int event = event_of(signal);
  if (event >= 0 && dispatch_console_event(event)) {
    errno = saved;
    return;
  }
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
  raise(signal);
  errno = saved;
}

}  // namespace

// A process with usable standard output already has its console; one whose
// output is closed or the null device gets its controlling terminal.
bool allocate(std::string& inputDevice, std::string& outputDevice) {
  if (!closed(STDOUT_FILENO) && !is_null_device(STDOUT_FILENO)) return false;
  const int fd = open(kTerminal, O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return false;  // no controlling terminal
  close(fd);
  inputDevice = kTerminal;
  outputDevice = kTerminal;
  return true;
}

// The terminal's window belongs to the terminal program: a token stands for it.
void* window() { return &g_windowToken; }

bool set_title(const std::string& title) {
  const std::string sequence = "\033]0;" + title + "\007";
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
  return done == sequence.size();
}

bool show_window(bool) { return true; }
bool disable_close() { return true; }

void route_events() {
  std::call_once(g_routed, [] {
    struct sigaction action {};
    action.sa_handler = on_console_signal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : kSignals) sigaction(signal, &action, nullptr);
  });
}

bool restore_ctrl_c() {
  struct sigaction current {};
  if (sigaction(SIGINT, nullptr, &current) != 0) return false;
  if (current.sa_handler != SIG_IGN) return true;
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  return sigaction(SIGINT, &action, nullptr) == 0;
}

}  // namespace kvos::console_system
