// The virtual null-modem cable: two pseudo-terminals and a thread that copies
// what each one's far side writes into the other. The cable holds both
// terminal sides open itself, so an end that no port has open keeps what is
// written to it (up to the terminal's buffer) instead of hanging up.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "KVRS232.h"
#include "kvrs232_posix.h"

namespace kvrs232 {
namespace {

// One direction of the cable: bytes read from one master, not yet written to the other.
struct Lane {
  int from = -1;
  int to = -1;
  char data[16384];
  size_t begin = 0;
  size_t end = 0;

  bool empty() const { return begin == end; }
  // Moves what can move without waiting.
  void pump() {
    for (;;) {
      if (empty()) {
        begin = end = 0;
        const ssize_t n = read(from, data, sizeof data);
        if (n <= 0) return;
        end = static_cast<size_t>(n);
      }
      const ssize_t n = write(to, data + begin, end - begin);
      if (n <= 0) return;
      begin += static_cast<size_t>(n);
    }
  }
};

struct Cable {
  int masters[2] = {-1, -1};
  int held[2] = {-1, -1};  // the terminal sides, kept open by the cable
  int ports[2] = {0, 0};
  bool mapped = false;
  int stop = -1;
  std::thread relay;

  ~Cable() {
    if (relay.joinable()) {
      signal_event(stop);
      relay.join();
    }
    if (mapped) cable_unmap(ports[0], ports[1]);
    for (int fd : {masters[0], masters[1], held[0], held[1], stop})
      if (fd >= 0) close(fd);
  }

  void run() {
    auto lanes = std::make_unique<Lane[]>(2);
    lanes[0].from = lanes[1].to = masters[0];
    lanes[0].to = lanes[1].from = masters[1];
    for (;;) {
      pollfd fds[3] = {{stop, POLLIN, 0}, {masters[0], 0, 0}, {masters[1], 0, 0}};
      for (int lane = 0; lane < 2; ++lane) {
        // Read more only when the bytes before have gone on; otherwise wait until they can.
        fds[1 + lane].events |= POLLIN;
        if (!lanes[lane].empty()) {
          fds[1 + lane].events &= ~POLLIN;
          fds[2 - lane].events |= POLLOUT;
        }
      }
      if (poll(fds, 3, -1) < 0 && errno != EINTR) return;
      if (fds[0].revents != 0) return;
      lanes[0].pump();
      lanes[1].pump();
    }
  }
};

// Opens a new pseudo-terminal; its master side non-blocking, its terminal side raw and held.
bool open_pair(int& master, int& held, std::string& device) {
  master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) return false;
  char name[128];
  if (ptsname_r(master, name, sizeof name) != 0) return false;
  device = name;
  held = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
  if (held < 0 || !make_raw(held)) return false;
  return fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK) == 0;
}

}  // namespace
}  // namespace kvrs232

using namespace kvrs232;

extern "C" {

int KvRS232NullModemOpen(void** cable, int portA, int portB) {
  if (cable == nullptr) return KVRS232_ERR_ARGUMENT;
  *cable = nullptr;
  if (portA < 1 || portB < 1 || portA == portB) return KVRS232_ERR_PORT;
  auto made = std::make_shared<Cable>();
  std::string devices[2];
  for (int end = 0; end < 2; ++end)
    if (!open_pair(made->masters[end], made->held[end], devices[end])) return KVRS232_ERR_RESOURCES;
  made->stop = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (made->stop < 0) return KVRS232_ERR_RESOURCES;
  made->ports[0] = portA;
  made->ports[1] = portB;
  if (!cable_map(portA, devices[0], portB, devices[1])) return KVRS232_ERR_BUSY;
  made->mapped = true;
  Cable* relay = made.get();
  made->relay = std::thread([relay] { relay->run(); });
  *cable = HandleTable<Cable>::instance().add(std::move(made));
  return KVRS232_OK;
}

int KvRS232NullModemClose(void** cable) {
  if (cable == nullptr) return KVRS232_ERR_ARGUMENT;
  std::shared_ptr<Cable> closing = HandleTable<Cable>::instance().take(*cable);
  if (!closing) return KVRS232_ERR_HANDLE;
  *cable = nullptr;
  closing.reset();  // stops the relay and closes the terminals
  return KVRS232_OK;
}

}  // extern "C"
