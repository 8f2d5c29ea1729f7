// The port table (KVCORE_SERIAL, null-modem ends, default devices), the
// status texts and the helpers shared by the port and cable code.
#include <dirent.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>

#include "KVRS232.h"
#include "kvrs232_internal.h"

namespace kvrs232 {

namespace {

// Ports mapped to null-modem ends; never destroyed, as the cables that use it.
struct CableEnds {
  std::mutex mutex;
  std::map<int, std::string> devices;
};

CableEnds& cable_ends() {
  static CableEnds* const ends = new CableEnds;
  return *ends;
}

std::string trimmed(const std::string& text) {
  const size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return std::string();
  const size_t end = text.find_last_not_of(" \t");
  return text.substr(begin, end - begin + 1);
}

// KVCORE_SERIAL: "PORT=DEVICE" entries separated by ';'. An entry without a
// port number of 1 or above, or without a device, is ignored.
std::map<int, std::string> configured_ports() {
  std::map<int, std::string> ports;
  const char* value = std::getenv("KVCORE_SERIAL");
  if (value == nullptr) return ports;
  const std::string text = value;
  for (size_t begin = 0; begin <= text.size();) {
    size_t end = text.find(';', begin);
    if (end == std::string::npos) end = text.size();
    const std::string entry = text.substr(begin, end - begin);
    begin = end + 1;
    const size_t equals = entry.find('=');
    if (equals == std::string::npos) continue;
    const std::string number = trimmed(entry.substr(0, equals));
    const std::string device = trimmed(entry.substr(equals + 1));
    if (number.empty() || number.size() > 9 || device.empty() ||
        number.find_first_not_of("0123456789") != std::string::npos)
      continue;
    const int port = std::atoi(number.c_str());
    if (port >= 1) ports[port] = device;
  }
  return ports;
}

std::string default_device(int port) { return "/dev/ttyS" + std::to_string(port - 1); }

}  // namespace

std::string port_device(int port) {
  {
    CableEnds& ends = cable_ends();
    std::lock_guard<std::mutex> lock(ends.mutex);
    const auto end = ends.devices.find(port);
    if (end != ends.devices.end()) return end->second;
  }
  const std::map<int, std::string> ports = configured_ports();
  const auto entry = ports.find(port);
  return entry != ports.end() ? entry->second : default_device(port);
}

bool cable_map(int portA, const std::string& deviceA, int portB, const std::string& deviceB) {
  CableEnds& ends = cable_ends();
  std::lock_guard<std::mutex> lock(ends.mutex);
  if (ends.devices.count(portA) != 0 || ends.devices.count(portB) != 0) return false;
  ends.devices[portA] = deviceA;
  ends.devices[portB] = deviceB;
  return true;
}

void cable_unmap(int portA, int portB) {
  CableEnds& ends = cable_ends();
  std::lock_guard<std::mutex> lock(ends.mutex);
  ends.devices.erase(portA);
  ends.devices.erase(portB);
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

using namespace kvrs232;

extern "C" {

const char* KvRS232StatusText(int status) {
  switch (status) {
    case KVRS232_OK: return "success";
    case KVRS232_ERR_HANDLE: return "invalid handle";
    case KVRS232_ERR_ARGUMENT: return "invalid argument";
    case KVRS232_ERR_PORT: return "invalid port number";
    case KVRS232_ERR_NO_DEVICE: return "the port's device does not exist";
    case KVRS232_ERR_BUSY: return "the port is open elsewhere";
    case KVRS232_ERR_ACCESS: return "no permission to open the port's device";
    case KVRS232_ERR_NOT_SERIAL: return "the port's device is not a serial line";
    case KVRS232_ERR_OPEN: return "the port's device cannot be opened";
    case KVRS232_ERR_BAUD: return "unsupported baud rate";
    case KVRS232_ERR_DATA_BITS: return "unsupported data bits";
    case KVRS232_ERR_PARITY: return "unsupported parity";
    case KVRS232_ERR_STOP_BITS: return "unsupported stop bits";
    case KVRS232_ERR_NOT_SUPPORTED: return "the device has no such line";
    case KVRS232_ERR_HANGUP: return "the line was hung up";
    case KVRS232_ERR_CLOSED: return "the handle was closed";
    case KVRS232_ERR_IO: return "input/output error";
    case KVRS232_ERR_RESOURCES: return "out of system resources";
    case KVRS232_ERR_MODULE: return "module not available";
    default: return "unknown status";
  }
}

int KvRS232PortDevice(int port, char* device, size_t size) {
  if (port < 1) return KVRS232_ERR_PORT;
  if (device == nullptr) return KVRS232_ERR_ARGUMENT;
  const std::string path = port_device(port);
  if (path.size() + 1 > size) return KVRS232_ERR_ARGUMENT;
  std::memcpy(device, path.c_str(), path.size() + 1);
  return KVRS232_OK;
}

int KvRS232PortList(int* ports, int capacity) {
  if (capacity < 0 || (capacity > 0 && ports == nullptr)) return KVRS232_ERR_ARGUMENT;
  std::set<int> table;
  for (const auto& entry : configured_ports()) table.insert(entry.first);
  {
    CableEnds& ends = cable_ends();
    std::lock_guard<std::mutex> lock(ends.mutex);
    for (const auto& entry : ends.devices) table.insert(entry.first);
  }
  if (DIR* dev = opendir("/dev")) {
    while (const dirent* entry = readdir(dev)) {
      const char* name = entry->d_name;
      if (std::strncmp(name, "ttyS", 4) != 0 || name[4] == '\0' || std::strlen(name + 4) > 6 ||
          std::strspn(name + 4, "0123456789") != std::strlen(name + 4))
        continue;
      table.insert(std::atoi(name + 4) + 1);
    }
    closedir(dev);
  }
  int count = 0;
  for (int port : table) {
    if (count < capacity) ports[count] = port;
    ++count;
  }
  return count;
}

}  // extern "C"
