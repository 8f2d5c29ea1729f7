// Serial devices on Linux: /dev/ttyS<n>, raw terminals, polls and eventfds.
#include <dirent.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kvrs232_posix.h"

namespace kvrs232 {

std::string default_device(int port) { return "/dev/ttyS" + std::to_string(port - 1); }

std::vector<int> existing_ports() {
  std::vector<int> ports;
  if (DIR* dev = opendir("/dev")) {
    while (const dirent* entry = readdir(dev)) {
      const char* name = entry->d_name;
      if (std::strncmp(name, "ttyS", 4) != 0 || name[4] == '\0' || std::strlen(name + 4) > 6 ||
          std::strspn(name + 4, "0123456789") != std::strlen(name + 4))
        continue;
      ports.push_back(std::atoi(name + 4) + 1);
    }
    closedir(dev);
  }
  return ports;
}

bool make_raw(int fd) {
  termios settings{};
  if (tcgetattr(fd, &settings) != 0) return false;
  cfmakeraw(&settings);
  settings.c_cflag |= CLOCAL | CREAD;
  settings.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
  settings.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
  settings.c_cc[VMIN] = 1;
  settings.c_cc[VTIME] = 0;
  return tcsetattr(fd, TCSANOW, &settings) == 0;
}

int poll_until(pollfd* fds, nfds_t count, Clock::time_point deadline) {
  for (;;) {
    timespec wait{};
    const timespec* limit = nullptr;
    if (deadline != Clock::time_point::max()) {
      const auto left = deadline - Clock::now();
      const long long ns = left.count() > 0 ? std::chrono::duration_cast<std::chrono::nanoseconds>(left).count() : 0;
      wait.tv_sec = static_cast<time_t>(ns / 1000000000);
      wait.tv_nsec = static_cast<long>(ns % 1000000000);
      limit = &wait;
    }
    const int ready = ppoll(fds, count, limit, nullptr);
    if (ready >= 0 || errno != EINTR) return ready;
  }
}

void signal_event(int fd) {
  const eventfd_t one = 1;
  [[maybe_unused]] const int written = eventfd_write(fd, one);
}

}  // namespace kvrs232
