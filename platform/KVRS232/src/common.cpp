// The port table (KVCORE_SERIAL, null-modem ends, default devices), the
// status texts, line settings and time-outs: what every system shares.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string_view>

#include "KVRS232.h"
#include "kvrs232_internal.h"
#include "kvtext/text.h"

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

// KVCORE_SERIAL: "PORT=DEVICE" entries separated by ';'. An entry without a
// port number of 1 or above, or without a device, is ignored.
std::map<int, std::string> configured_ports() {
  std::map<int, std::string> ports;
  const char* value = std::getenv("KVCORE_SERIAL");
  if (value == nullptr) return ports;
  for (const std::string& entry : kvtext::split(value, ";")) {
    const size_t equals = entry.find('=');
    if (equals == std::string::npos) continue;
    const std::string number(kvtext::trim_blanks(std::string_view(entry).substr(0, equals)));
    const std::string device(kvtext::trim_blanks(std::string_view(entry).substr(equals + 1)));
    if (number.empty() || number.size() > 9 || device.empty() ||
        number.find_first_not_of("0123456789") != std::string::npos)
      continue;
    const int port = std::atoi(number.c_str());
    if (port >= 1) ports[port] = device;
  }
  return ports;
}

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

int check_line_settings(int baud, int dataBits, int parity, int stopBits) {
  static const int kRates[] = {50,     75,     110,    134,     150,     200,     300,     600,
                               1200,   1800,   2400,   4800,    9600,    19200,   38400,   57600,
                               115200, 230400, 460800, 500000,  576000,  921600,  1000000, 1152000,
                               1500000, 2000000, 2500000, 3000000, 3500000, 4000000};
  if (std::find(std::begin(kRates), std::end(kRates), baud) == std::end(kRates)) return KVRS232_ERR_BAUD;
  if (dataBits < 5 || dataBits > 8) return KVRS232_ERR_DATA_BITS;
  if (parity < KVRS232_NOPARITY || parity > KVRS232_SPACEPARITY) return KVRS232_ERR_PARITY;
  if (stopBits < KVRS232_ONESTOPBIT || stopBits > KVRS232_TWOSTOPBITS ||
      (stopBits == KVRS232_ONE5STOPBITS && dataBits != 5))
    return KVRS232_ERR_STOP_BITS;
  return KVRS232_OK;
}

bool timeout_value(int value, uint32_t& out) {
  if (value < 0 && value != KVRS232_MAXDWORD) return false;
  out = static_cast<uint32_t>(value);
  return true;
}

uint64_t total_ms(uint32_t multiplier, size_t length, uint32_t constant) {
  if (multiplier != 0 && length > kNoLimitMs / multiplier) return kNoLimitMs;
  return uint64_t{multiplier} * length + constant;
}

Clock::time_point after_ms(Clock::time_point start, uint64_t ms) {
  if (ms >= kNoLimitMs) return Clock::time_point::max();
  return start + std::chrono::milliseconds(ms);
}

ReadPlan::ReadPlan(const ReadTimeouts& t, size_t length, Clock::time_point start)
    : atOnce(t.interval == kMaxDword && t.multiplier == 0 && t.constant == 0),
      firstByte(t.interval == kMaxDword && t.multiplier == kMaxDword && t.constant != 0 && t.constant != kMaxDword),
      useInterval(!firstByte && t.interval != 0),
      interval(t.interval) {
  if (firstByte)
    total = after_ms(start, t.constant);
  else if (t.multiplier != 0 || t.constant != 0)
    total = after_ms(start, total_ms(t.multiplier, length, t.constant));
}

Clock::time_point ReadPlan::deadline(size_t got, Clock::time_point lastByte) const {
  if (useInterval && got > 0) return std::min(total, after_ms(lastByte, interval));
  return total;
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
  for (int port : existing_ports()) table.insert(port);
  int count = 0;
  for (int port : table) {
    if (count < capacity) ports[count] = port;
    ++count;
  }
  return count;
}

}  // extern "C"
