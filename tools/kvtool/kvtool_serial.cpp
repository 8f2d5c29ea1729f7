// kvtool: serial ports (ports, send, listen, loopback); demo step 75.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "SystemKvCore.h"
#include "kvtool.h"

namespace {

using Clock = std::chrono::steady_clock;

int fail(int port, const char* what, int status) {
  std::fprintf(stderr, "kvtool serial: port %d: %s: %s\n", port, what, Rs232if.StatusText(status));
  return 1;
}

// An open port, closed with the object.
class Port {
 public:
  explicit Port(int number) : number_(number) { status_ = Rs232if.CommOpen(&handle_, number); }
  ~Port() {
    if (handle_ != nullptr) Rs232if.CommClose(&handle_);
  }
  Port(const Port&) = delete;
  Port& operator=(const Port&) = delete;

  int status() const { return status_; }
  void* handle() const { return handle_; }
  int number() const { return number_; }

 private:
  int number_;
  int status_;
  void* handle_ = nullptr;
};

std::string device_of(int port) {
  char device[512];
  return KvRS232PortDevice(port, device, sizeof device) == KVRS232_OK ? device : "(unknown)";
}

int show_ports() {
  const char* mapping = std::getenv("KVCORE_SERIAL");
  std::printf("KVCORE_SERIAL: %s\n", mapping != nullptr ? mapping : "(not set; port N is /dev/ttyS<N-1>)");
  std::vector<int> ports(256);
  const int count = KvRS232PortList(ports.data(), static_cast<int>(ports.size()));
  ports.resize(static_cast<size_t>(std::min(count, 256)));
  std::printf("%-6s %-32s %-8s %s\n", "port", "device", "mapped", "exists");
  for (int port : ports) {
    const std::string device = device_of(port);
    const bool mapped = device != "/dev/ttyS" + std::to_string(port - 1);
    std::error_code error;
    std::printf("%-6d %-32s %-8s %s\n", port, device.c_str(), mapped ? "yes" : "no",
                std::filesystem::exists(device, error) ? "yes" : "no");
  }
  return 0;
}

int open_and_init(Port& port, int baud) {
  if (port.status() != KVRS232_OK) return fail(port.number(), ("cannot open " + device_of(port.number())).c_str(), port.status());
  const int status = Rs232if.CommInit(port.handle(), baud, 8, KVRS232_NOPARITY, KVRS232_ONESTOPBIT);
  return status == KVRS232_OK ? 0 : fail(port.number(), "cannot set the line", status);
}

int send(int number, const std::string& text, int baud, const std::string& eol) {
  std::string bytes = text;
  if (eol == "cr" || eol == "crlf") bytes += '\r';
  if (eol == "lf" || eol == "crlf") bytes += '\n';
  Port port(number);
  if (open_and_init(port, baud) != 0) return 1;
  Rs232if.CommSetWriteTimeout(port.handle(), 1, 5000);
  size_t sent = 0;
  const int status = Rs232if.CommIo(port.handle(), KVRS232_IO_WRITE, bytes.data(), bytes.size(), &sent);
  if (status != KVRS232_OK) return fail(number, "write failed", status);
  if (sent < bytes.size()) {
    std::fprintf(stderr, "kvtool serial: port %d: write timed out after %zu of %zu bytes\n", number, sent, bytes.size());
    return 1;
  }
  return 0;
}

int listen(int number, double seconds, int baud) {
  Port port(number);
  if (open_and_init(port, baud) != 0) return 1;
  const Clock::time_point end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  char buffer[4096];
  for (Clock::time_point now = Clock::now(); now < end; now = Clock::now()) {
    // Return as soon as anything has arrived, waiting at most until the end.
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - now).count();
    Rs232if.CommSetReadTimeout(port.handle(), KVRS232_MAXDWORD, KVRS232_MAXDWORD, static_cast<int>(std::max<long long>(left, 1)));
    size_t got = 0;
    const int status = Rs232if.CommIo(port.handle(), KVRS232_IO_READ, buffer, sizeof buffer, &got);
    std::fwrite(buffer, 1, got, stdout);
    std::fflush(stdout);
    if (status != KVRS232_OK) return fail(number, "read failed", status);
  }
  return 0;
}

// Moves all of bytes from one port to the other through CommIo, 4 KiB at a time.
bool move_through(void* from, void* to, const std::string& bytes, std::string& received) {
  received.assign(bytes.size(), '\0');
  bool wrote = true;
  std::thread writer([&] {
    for (size_t at = 0; at < bytes.size() && wrote; at += 4096) {
      size_t sent = 0;
      wrote = Rs232if.CommIo(from, KVRS232_IO_WRITE, const_cast<char*>(bytes.data() + at),
                             std::min<size_t>(4096, bytes.size() - at), &sent) == KVRS232_OK;
    }
  });
  size_t total = 0;
  while (total < bytes.size()) {
    size_t got = 0;
    if (Rs232if.CommIo(to, KVRS232_IO_READ, received.data() + total, std::min<size_t>(4096, bytes.size() - total),
                       &got) != KVRS232_OK || got == 0)
      break;
    total += got;
  }
  writer.join();
  received.resize(total);
  return wrote && received == bytes;
}

int loopback(size_t size, int rounds) {
  std::vector<int> listed(256);
  const int count = KvRS232PortList(listed.data(), 256);
  const int first = count > 0 ? listed[static_cast<size_t>(std::min(count, 256) - 1)] + 1 : 1;
  void* cable = nullptr;
  int status = KvRS232NullModemOpen(&cable, first, first + 1);
  if (status != KVRS232_OK) return fail(first, "cannot make a null-modem cable", status);
  int result = 1;
  {
    Port a(first), b(first + 1);
    if (open_and_init(a, 115200) == 0 && open_and_init(b, 115200) == 0) {
      std::printf("  null-modem cable: port %d (%s) <-> port %d (%s)\n", first, device_of(first).c_str(), first + 1,
                  device_of(first + 1).c_str());
      // Reads wait at most 5 s, so that a lost byte ends the run instead of hanging it.
      Rs232if.CommSetReadTimeout(a.handle(), 0, 0, 5000);
      Rs232if.CommSetReadTimeout(b.handle(), 0, 0, 5000);
      std::string bytes(size, '\0'), received;
      for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7 + (i >> 8)) & 0xFF);
      const Clock::time_point start = Clock::now();
      bool intact = move_through(a.handle(), b.handle(), bytes, received);
      const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
      std::printf("  %zu bytes in 4 KiB writes and reads: %.1f ms, %.2f MiB/s, %s\n", size, seconds * 1000.0,
                  static_cast<double>(size) / (1 << 20) / seconds,
                  intact ? "received intact" : "RECEIVED DIFFERENT BYTES");
      // Round trips of one byte: written at a, echoed by b, read back at a.
      std::vector<double> trips;
      std::thread echo([&] {
        char byte = 0;
        size_t moved = 0;
        for (int i = 0; i < rounds; ++i)
          if (Rs232if.CommIo(b.handle(), KVRS232_IO_READ, &byte, 1, &moved) != KVRS232_OK || moved != 1 ||
              Rs232if.CommIo(b.handle(), KVRS232_IO_WRITE, &byte, 1, &moved) != KVRS232_OK)
            break;
      });
      for (int i = 0; i < rounds; ++i) {
        char byte = static_cast<char>(i), back = 0;
        size_t moved = 0;
        const Clock::time_point sent = Clock::now();
        if (Rs232if.CommIo(a.handle(), KVRS232_IO_WRITE, &byte, 1, &moved) != KVRS232_OK ||
            Rs232if.CommIo(a.handle(), KVRS232_IO_READ, &back, 1, &moved) != KVRS232_OK || moved != 1 || back != byte)
          break;
        trips.push_back(std::chrono::duration<double, std::micro>(Clock::now() - sent).count());
      }
      echo.join();
      std::sort(trips.begin(), trips.end());
      if (static_cast<int>(trips.size()) == rounds && rounds > 0) {
        std::printf("  one-byte round trip over %d rounds: p50 %.1f us, p99 %.1f us\n", rounds,
                    trips[trips.size() / 2], trips[std::min(trips.size() - 1, trips.size() * 99 / 100)]);
      } else {
        std::printf("  one-byte round trip: %zu of %d rounds came back\n", trips.size(), rounds);
        intact = false;
      }
      result = intact ? 0 : 1;
    }
  }
  KvRS232NullModemClose(&cable);
  return result;
}

// The options of the serial commands; the callbacks share them.
struct SerialOptions {
  int port = 0;
  std::string text;
  int baud = 9600;
  std::string eol = "none";
  double seconds = 10.0;
  size_t bytes = 1 << 20;
  int rounds = 200;
};

void setup_serial_commands(CLI::App& app, int& exitCode) {
  CLI::App* serial = app.add_subcommand("serial", "Serial ports through the serial line manager");
  serial->require_subcommand(1);
  auto o = std::make_shared<SerialOptions>();

  serial->add_subcommand("ports", "The port table: each port's device and whether it exists")
      ->callback([&exitCode] { exitCode = show_ports(); });

  CLI::App* sendCommand = serial->add_subcommand("send", "Write TEXT to PORT (8 data bits, no parity, 1 stop bit)");
  sendCommand->add_option("PORT", o->port, "Port number")->required();
  sendCommand->add_option("TEXT", o->text, "The bytes to send")->required();
  sendCommand->add_option("--baud", o->baud, "Baud rate")->capture_default_str();
  sendCommand->add_option("--eol", o->eol, "Line end to append")
      ->check(CLI::IsMember({"none", "cr", "lf", "crlf"}))
      ->capture_default_str();
  sendCommand->callback([&exitCode, o] { exitCode = send(o->port, o->text, o->baud, o->eol); });

  CLI::App* listenCommand = serial->add_subcommand("listen", "Copy what PORT receives to standard output");
  listenCommand->add_option("PORT", o->port, "Port number")->required();
  listenCommand->add_option("--seconds", o->seconds, "How long to listen")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  listenCommand->add_option("--baud", o->baud, "Baud rate")->capture_default_str();
  listenCommand->callback([&exitCode, o] { exitCode = listen(o->port, o->seconds, o->baud); });

  CLI::App* loop = serial->add_subcommand(
      "loopback", "Both ends of a null-modem cable (two pseudo-terminals) through the library: throughput, latency");
  loop->add_option("--bytes", o->bytes, "Bytes to move one way")->check(CLI::PositiveNumber)->capture_default_str();
  loop->add_option("--rounds", o->rounds, "One-byte round trips to time")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  loop->callback([&exitCode, o] { exitCode = loopback(o->bytes, o->rounds); });
}

int demo_serial() { return loopback(256 * 1024, 100); }

[[maybe_unused]] const bool registered =
    kvtool::register_command(setup_serial_commands) &&
    kvtool::register_demo_step(75, "Serial line: a null-modem loopback through the serial line manager", demo_serial);

}  // namespace
