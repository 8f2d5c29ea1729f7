// Shared inside the serial-port library: the port table, time-outs, the
// handle table and the helpers each system's port code provides.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace kvrs232 {

using Clock = std::chrono::steady_clock;

// The device that port opens: a null-modem end, a KVCORE_SERIAL entry, or the
// system's default device (default_device). Port must be 1 or above.
std::string port_device(int port);

// The system's device of a port without an entry (/dev/ttyS<port-1>, \\.\COM<port>).
std::string default_device(int port);

// The ports whose default device exists, in any order.
std::vector<int> existing_ports();

// Null-modem ends: ports mapped in this process, ahead of KVCORE_SERIAL.
// cable_map fails when either port is already an end of another cable.
bool cable_map(int portA, const std::string& deviceA, int portB, const std::string& deviceB);
void cable_unmap(int portA, int portB);

// Line settings: KVRS232_OK, or the status that refuses them.
int check_line_settings(int baud, int dataBits, int parity, int stopBits);

// Time-outs in milliseconds, as KvRS232CommSetReadTimeout and
// KvRS232CommSetWriteTimeout take them.
constexpr uint32_t kMaxDword = 0xFFFFFFFFu;

struct ReadTimeouts {
  uint32_t interval = 0;
  uint32_t multiplier = 0;
  uint32_t constant = 0;
};

struct WriteTimeouts {
  uint32_t multiplier = 0;
  uint32_t constant = 0;
};

// A negative time-out is refused unless it is the largest value (-1).
bool timeout_value(int value, uint32_t& out);

// Time-outs of 2^40 ms (about 35 years) and more are without limit; below
// that, the deadline fits the clock's nanoseconds with room to spare.
constexpr uint64_t kNoLimitMs = uint64_t{1} << 40;

// Multiplier times the count plus constant, in milliseconds, without overflow.
uint64_t total_ms(uint32_t multiplier, size_t length, uint32_t constant);

// start + ms; Clock::time_point::max() for no limit.
Clock::time_point after_ms(Clock::time_point start, uint64_t ms);

// When a read of length bytes that started at start ends: the deadlines its
// time-outs give. atOnce: return with what is there; firstByte: return as
// soon as any byte is there; useInterval: the interval counts after each byte.
struct ReadPlan {
  bool atOnce = false;
  bool firstByte = false;
  bool useInterval = false;
  uint32_t interval = 0;
  Clock::time_point total = Clock::time_point::max();

  ReadPlan(const ReadTimeouts& t, size_t length, Clock::time_point start);
  // The deadline after got bytes, the last of them at lastByte.
  Clock::time_point deadline(size_t got, Clock::time_point lastByte) const;
};

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

// An open port's uses: every call holds one for its length; closing waits
// until the calls that woke up have left.
struct PortUses {
  std::mutex mutex;
  std::condition_variable idle;
  int uses = 0;
  ReadTimeouts readTimeouts;
  WriteTimeouts writeTimeouts;
  std::atomic<bool> hungUp{false};

  // Waits until no call uses the port any more.
  void wait_idle() {
    std::unique_lock<std::mutex> lock(mutex);
    idle.wait(lock, [this] { return uses == 0; });
  }
};

// A use of an open port (a PortUses) for the length of one call.
template <typename Port>
class Use {
 public:
  explicit Use(void* handle)
      : port_(HandleTable<Port>::instance().find(handle, [](Port& port) {
          std::lock_guard<std::mutex> lock(port.mutex);
          ++port.uses;
        })) {}
  ~Use() {
    if (!port_) return;
    std::lock_guard<std::mutex> lock(port_->mutex);
    if (--port_->uses == 0) port_->idle.notify_all();
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;

  Port* operator->() const { return port_.get(); }
  Port& operator*() const { return *port_; }
  explicit operator bool() const { return static_cast<bool>(port_); }

 private:
  std::shared_ptr<Port> port_;
};

}  // namespace kvrs232
