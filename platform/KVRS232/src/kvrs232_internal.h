// Shared inside the serial-port library: the port table and small helpers.
#pragma once

#include <poll.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace kvrs232 {

using Clock = std::chrono::steady_clock;

// The device that port opens: a null-modem end, a KVCORE_SERIAL entry, or the
// default /dev/ttyS<port-1>. Port must be 1 or above.
std::string port_device(int port);

// Null-modem ends: ports mapped in this process, ahead of KVCORE_SERIAL.
// cable_map fails when either port is already an end of another cable.
bool cable_map(int portA, const std::string& deviceA, int portB, const std::string& deviceB);
void cable_unmap(int portA, int portB);

// Puts an open terminal into raw mode (bytes pass unchanged, reads return
// what has arrived, no flow control, modem control lines ignored); false on failure.
bool make_raw(int fd);

// poll() that waits until deadline (Clock::time_point::max(): without limit)
// with sub-millisecond precision; restarts after signals.
int poll_until(pollfd* fds, nfds_t count, Clock::time_point deadline);

// Opaque handles: numbers in a table, so that a closed or unknown handle is
// refused instead of followed. A table is made once and never destroyed, so
// that what is still open when the process ends stays valid to its very end.
template <typename Item>
class HandleTable {
 public:
  static HandleTable& instance() {
    static HandleTable* const table = new HandleTable;
    return *table;
  }

  void* add(std::shared_ptr<Item> item) {
    std::lock_guard<std::mutex> lock(mutex_);
    const uintptr_t id = next_++;
    items_[id] = std::move(item);
    return reinterpret_cast<void*>(id);
  }
  // The item of handle, or null; hold(item) runs under the table's lock, so
  // that taking the item out cannot overtake it.
  template <typename Hold>
  std::shared_ptr<Item> find(void* handle, Hold hold) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = items_.find(reinterpret_cast<uintptr_t>(handle));
    if (found == items_.end()) return nullptr;
    hold(*found->second);
    return found->second;
  }
  // Takes the item of handle out of the table; null when there is none.
  std::shared_ptr<Item> take(void* handle) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = items_.find(reinterpret_cast<uintptr_t>(handle));
    if (found == items_.end()) return nullptr;
    std::shared_ptr<Item> item = std::move(found->second);
    items_.erase(found);
    return item;
  }

 private:
  HandleTable() = default;
  std::mutex mutex_;
  std::unordered_map<uintptr_t, std::shared_ptr<Item>> items_;
  uintptr_t next_ = 0x100;
};

// Sets the counter of an eventfd, so that every poll on it sees it readable from now on.
void signal_event(int fd);

}  // namespace kvrs232
