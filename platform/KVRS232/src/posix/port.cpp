// The nine port functions over termios. Every call holds a use of its port;
// closing takes the port out of the table,
// wakes the calls that wait (an event in each of their polls) and releases
// the device once the last use has ended.
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "KVRS232.h"
#include "kvrs232_posix.h"

namespace kvrs232 {
namespace {

using PortUse = kvrs232::Use<struct Port>;

struct Port : PortUses {
  int fd = -1;
  int wake = -1;  // eventfd, set when the handle is closed

  ~Port() {
    if (fd >= 0) close(fd);  // also drops the exclusive lock
    if (wake >= 0) close(wake);
  }
};

int open_error(int error) {
  switch (error) {
    case ENOENT:
    case ENXIO:
    case ENODEV:
    case ENOTDIR: return KVRS232_ERR_NO_DEVICE;
    case EACCES:
    case EPERM:
    case EROFS: return KVRS232_ERR_ACCESS;
    case EBUSY: return KVRS232_ERR_BUSY;
    case EMFILE:
    case ENFILE:
    case ENOMEM: return KVRS232_ERR_RESOURCES;
    default: return KVRS232_ERR_OPEN;
  }
}

// The status of a failed read, write or ioctl on the device.
int device_error(Port& port, int error) {
  if (error == EIO || error == ENXIO || error == ENODEV || error == EPIPE) {
    port.hungUp = true;
    return KVRS232_ERR_HANGUP;
  }
  return KVRS232_ERR_IO;
}

// Calls that do not move data first look for a hang-up, so that every call
// after one reports it.
int line_state(Port& port) {
  if (!port.hungUp) {
    pollfd probe{port.fd, POLLIN, 0};
    if (poll(&probe, 1, 0) > 0 && (probe.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) port.hungUp = true;
  }
  return port.hungUp ? KVRS232_ERR_HANGUP : KVRS232_OK;
}

int read_bytes(Port& port, char* buffer, size_t length, size_t& got) {
  ReadTimeouts t;
  {
    std::lock_guard<std::mutex> lock(port.mutex);
    t = port.readTimeouts;
  }
  const ReadPlan plan(t, length, Clock::now());
  Clock::time_point lastByte{};
  bool sawHangup = false;
  for (;;) {
    const ssize_t n = read(port.fd, buffer + got, length - got);
    if (n > 0) {
      got += static_cast<size_t>(n);
      lastByte = Clock::now();
      if (got == length || plan.firstByte) return KVRS232_OK;
      continue;
    }
    if (n == 0) {
      port.hungUp = true;
      return KVRS232_ERR_HANGUP;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return device_error(port, errno);
    if (sawHangup) {
      port.hungUp = true;
      return KVRS232_ERR_HANGUP;
    }
    if (plan.atOnce) return KVRS232_OK;
    const Clock::time_point deadline = plan.deadline(got, lastByte);
    if (deadline != Clock::time_point::max() && Clock::now() >= deadline) return KVRS232_OK;
    pollfd fds[2] = {{port.fd, POLLIN, 0}, {port.wake, POLLIN, 0}};
    if (poll_until(fds, 2, deadline) < 0) return KVRS232_ERR_IO;
    if (fds[1].revents != 0) return KVRS232_ERR_CLOSED;
    sawHangup = (fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0 && (fds[0].revents & POLLIN) == 0;
  }
}

int write_bytes(Port& port, const char* buffer, size_t length, size_t& done) {
  WriteTimeouts t;
  {
    std::lock_guard<std::mutex> lock(port.mutex);
    t = port.writeTimeouts;
  }
  Clock::time_point deadline = Clock::time_point::max();
  if (t.multiplier != 0 || t.constant != 0)
    deadline = after_ms(Clock::now(), total_ms(t.multiplier, length, t.constant));
  bool sawHangup = false;
  for (;;) {
    // A terminal raises no SIGPIPE: a far end that is gone shows as EIO.
    const ssize_t n = write(port.fd, buffer + done, length - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
      if (done == length) return KVRS232_OK;
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno != EAGAIN) return device_error(port, errno);
    if (sawHangup) {
      port.hungUp = true;
      return KVRS232_ERR_HANGUP;
    }
    if (deadline != Clock::time_point::max() && Clock::now() >= deadline) return KVRS232_OK;
    pollfd fds[2] = {{port.fd, POLLOUT, 0}, {port.wake, POLLIN, 0}};
    if (poll_until(fds, 2, deadline) < 0) return KVRS232_ERR_IO;
    if (fds[1].revents != 0) return KVRS232_ERR_CLOSED;
    sawHangup = (fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0 && (fds[0].revents & POLLOUT) == 0;
  }
}

speed_t speed_code(int baud) {
  static const struct {
    int rate;
    speed_t code;
  } kRates[] = {{50, B50},           {75, B75},           {110, B110},         {134, B134},
                {150, B150},         {200, B200},         {300, B300},         {600, B600},
                {1200, B1200},       {1800, B1800},       {2400, B2400},       {4800, B4800},
                {9600, B9600},       {19200, B19200},     {38400, B38400},     {57600, B57600},
                {115200, B115200},   {230400, B230400},   {460800, B460800},   {500000, B500000},
                {576000, B576000},   {921600, B921600},   {1000000, B1000000}, {1152000, B1152000},
                {1500000, B1500000}, {2000000, B2000000}, {2500000, B2500000}, {3000000, B3000000},
                {3500000, B3500000}, {4000000, B4000000}};
  for (const auto& rate : kRates)
    if (rate.rate == baud) return rate.code;
  return B0;
}

}  // namespace
}  // namespace kvrs232

using namespace kvrs232;

extern "C" {

int KvRS232CommOpen(void** handle, int port) {
  if (handle == nullptr) return KVRS232_ERR_ARGUMENT;
  *handle = nullptr;
  if (port < 1) return KVRS232_ERR_PORT;
  auto opened = std::make_shared<Port>();
  // No controlling terminal: a hang-up of the line never signals this process.
  opened->fd = open(port_device(port).c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (opened->fd < 0) return open_error(errno);
  termios probe{};
  if (tcgetattr(opened->fd, &probe) != 0) return KVRS232_ERR_NOT_SERIAL;
  // Exclusive: the lock keeps out programs that lock too (and this process's
  // own second open); TIOCEXCL keeps out every other opener but the superuser.
  if (flock(opened->fd, LOCK_EX | LOCK_NB) != 0)
    return errno == EWOULDBLOCK ? KVRS232_ERR_BUSY : KVRS232_ERR_OPEN;
  if (ioctl(opened->fd, TIOCEXCL) != 0 || !make_raw(opened->fd)) return KVRS232_ERR_OPEN;
  opened->wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (opened->wake < 0) return KVRS232_ERR_RESOURCES;
  *handle = HandleTable<Port>::instance().add(std::move(opened));
  return KVRS232_OK;
}

int KvRS232CommInit(void* handle, int baud, int dataBits, int parity, int stopBits) {
  PortUse port(handle);
  if (!port) return KVRS232_ERR_HANDLE;
  if (const int refused = check_line_settings(baud, dataBits, parity, stopBits); refused != KVRS232_OK) return refused;
  const speed_t speed = speed_code(baud);
  static const tcflag_t kSizes[] = {CS5, CS6, CS7, CS8};
  if (const int state = line_state(*port); state != KVRS232_OK) return state;
  termios settings{};
  if (tcgetattr(port->fd, &settings) != 0) return device_error(*port, errno);
  settings.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | PARODD | CMSPAR | CSTOPB);
  settings.c_cflag |= kSizes[dataBits - 5];
  switch (parity) {
    case KVRS232_ODDPARITY: settings.c_cflag |= PARENB | PARODD; break;
    case KVRS232_EVENPARITY: settings.c_cflag |= PARENB; break;
    case KVRS232_MARKPARITY: settings.c_cflag |= PARENB | CMSPAR | PARODD; break;
    case KVRS232_SPACEPARITY: settings.c_cflag |= PARENB | CMSPAR; break;
    default: break;
  }
  // With 5 data bits the second stop bit is one and a half bits long.
  if (stopBits != KVRS232_ONESTOPBIT) settings.c_cflag |= CSTOPB;
  cfsetispeed(&settings, speed);
  cfsetospeed(&settings, speed);
  if (tcsetattr(port->fd, TCSANOW, &settings) != 0) return device_error(*port, errno);
  termios applied{};
  if (tcgetattr(port->fd, &applied) != 0) return device_error(*port, errno);
  if (cfgetospeed(&applied) != speed) return KVRS232_ERR_BAUD;
  return KVRS232_OK;
}

int KvRS232CommIo(void* handle, int operation, void* buffer, size_t length, size_t* transferred) {
  if (transferred != nullptr) *transferred = 0;
  PortUse port(handle);
  if (!port) return KVRS232_ERR_HANDLE;
  if (transferred == nullptr || (buffer == nullptr && length != 0) ||
      (operation != KVRS232_IO_READ && operation != KVRS232_IO_WRITE))
    return KVRS232_ERR_ARGUMENT;
  if (port->hungUp) return KVRS232_ERR_HANGUP;
  if (length == 0) return line_state(*port);
  size_t moved = 0;
  const int status = operation == KVRS232_IO_READ
                         ? read_bytes(*port, static_cast<char*>(buffer), length, moved)
                         : write_bytes(*port, static_cast<const char*>(buffer), length, moved);
  *transferred = moved;
  return status;
}

int KvRS232CommSetOutLine(void* handle, int line, int state) {
  PortUse port(handle);
  if (!port) return KVRS232_ERR_HANDLE;
  if (line < KVRS232_LINE_DTR || line > KVRS232_LINE_BREAK || (state != 0 && state != 1))
    return KVRS232_ERR_ARGUMENT;
  if (const int status = line_state(*port); status != KVRS232_OK) return status;
  int result;
  if (line == KVRS232_LINE_BREAK) {
    result = ioctl(port->fd, state != 0 ? TIOCSBRK : TIOCCBRK);
  } else {
    const int bits = line == KVRS232_LINE_DTR ? TIOCM_DTR : TIOCM_RTS;
    result = ioctl(port->fd, state != 0 ? TIOCMBIS : TIOCMBIC, &bits);
  }
  if (result == 0) return KVRS232_OK;
  if (errno == ENOTTY || errno == EINVAL) return KVRS232_ERR_NOT_SUPPORTED;
  return device_error(*port, errno);
}

int KvRS232CommGetModemStatus(void* handle, int* status) {
  if (status != nullptr) *status = 0;
  PortUse port(handle);
  if (!port) return KVRS232_ERR_HANDLE;
  if (status == nullptr) return KVRS232_ERR_ARGUMENT;
  if (const int state = line_state(*port); state != KVRS232_OK) return state;
  int bits = 0;
  if (ioctl(port->fd, TIOCMGET, &bits) != 0) {
    if (errno == ENOTTY || errno == EINVAL) return KVRS232_ERR_NOT_SUPPORTED;
    return device_error(*port, errno);
  }
  *status = ((bits & TIOCM_CTS) ? KVRS232_MS_CTS_ON : 0) | ((bits & TIOCM_DSR) ? KVRS232_MS_DSR_ON : 0) |
            ((bits & TIOCM_RNG) ? KVRS232_MS_RING_ON : 0) | ((bits & TIOCM_CAR) ? KVRS232_MS_RLSD_ON : 0);
  return KVRS232_OK;
}

int KvRS232CommSetReadTimeout(void* handle, int interval, int multiplier, int constant) {
  PortUse port(handle);
  if (!port) return KVRS232_ERR_HANDLE;
  ReadTimeouts t;
  if (!timeout_value(interval, t.interval) || !timeout_value(multiplier, t.multiplier) ||
      !timeout_value(constant, t.constant))
    return KVRS232_ERR_ARGUMENT;
  if (const int state = line_state(*port); state != KVRS232_OK) return state;
  std::lock_guard<std::mutex> lock(port->mutex);
  port->readTimeouts = t;
  return KVRS232_OK;
}

int KvRS232CommSetWriteTimeout(void* handle, int multiplier, int constant) {
  PortUse port(handle);
  if (!port) return KVRS232_ERR_HANDLE;
  WriteTimeouts t;
  if (!timeout_value(multiplier, t.multiplier) || !timeout_value(constant, t.constant)) return KVRS232_ERR_ARGUMENT;
  if (const int state = line_state(*port); state != KVRS232_OK) return state;
  std::lock_guard<std::mutex> lock(port->mutex);
  port->writeTimeouts = t;
  return KVRS232_OK;
}

int KvRS232CommFlush(void* handle) {
  PortUse port(handle);
  if (!port) return KVRS232_ERR_HANDLE;
  if (const int state = line_state(*port); state != KVRS232_OK) return state;
  if (tcflush(port->fd, TCIOFLUSH) != 0) return device_error(*port, errno);
  return KVRS232_OK;
}

int KvRS232CommClose(void** handle) {
  if (handle == nullptr) return KVRS232_ERR_ARGUMENT;
  std::shared_ptr<Port> port = HandleTable<Port>::instance().take(*handle);
  if (!port) return KVRS232_ERR_HANDLE;
  *handle = nullptr;
  // Wake the calls that wait on the port, then let them leave before the
  // device is released, so that none of them touches a descriptor reused since.
  signal_event(port->wake);
  port->wait_idle();
  port.reset();
  return KVRS232_OK;
}

}  // extern "C"
