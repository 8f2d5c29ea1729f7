// The virtual null-modem cable on Windows, which has no pseudo-terminals: two
// ends inside the library joined by two lanes of bytes, with the time-outs of
// a COM port. A lane holds as much as a terminal's buffers would, so that a
// writer with nobody reading waits (and its write time-out ends the wait).
// Closing the cable hangs up the ports still open on it.
#include <algorithm>
#include <deque>
#include <map>

#include "KVRS232.h"
#include "kvrs232_win32.h"

namespace kvrs232 {
namespace {

constexpr const char* kDevicePrefix = "nullmodem:";
constexpr size_t kLaneCapacity = 64 * 1024;

struct Wire {
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<char> lanes[2];  // lanes[end]: written at that end, read at the other
  bool endOpen[2] = {false, false};
  bool cut = false;  // the cable was closed
};

struct Cable {
  std::shared_ptr<Wire> wire = std::make_shared<Wire>();
  int ports[2] = {0, 0};
  std::string devices[2];
};

// The ends of the open cables, by device; never destroyed, as the cables.
struct Ends {
  std::mutex mutex;
  std::map<std::string, std::pair<std::weak_ptr<Wire>, int>> byDevice;
};

Ends& ends() {
  static Ends* const table = new Ends;
  return *table;
}

class CableLine : public Line {
 public:
  CableLine(std::shared_ptr<Wire> wire, int end) : wire_(std::move(wire)), end_(end) {}
  ~CableLine() override {
    std::lock_guard<std::mutex> lock(wire_->mutex);
    wire_->endOpen[end_] = false;
  }

  // The settings of a cable end have nothing to act on.
  int configure(int, int, int, int) override { return state(); }
  int set_timeouts(const ReadTimeouts&, const WriteTimeouts&) override { return KVRS232_OK; }

  int read(char* buffer, size_t length, size_t& got, const ReadTimeouts& timeouts) override {
    const ReadPlan plan(timeouts, length, Clock::now());
    Clock::time_point lastByte{};
    std::unique_lock<std::mutex> lock(wire_->mutex);
    std::deque<char>& in = wire_->lanes[1 - end_];
    for (;;) {
      if (closing_) return KVRS232_ERR_CLOSED;
      if (!in.empty()) {
        const size_t n = std::min(in.size(), length - got);
        std::copy_n(in.begin(), n, buffer + got);
        in.erase(in.begin(), in.begin() + static_cast<std::ptrdiff_t>(n));
        got += n;
        lastByte = Clock::now();
        wire_->changed.notify_all();  // room for the writer at the other end
        if (got == length || plan.firstByte) return KVRS232_OK;
        continue;
      }
      if (wire_->cut) return KVRS232_ERR_HANGUP;
      if (plan.atOnce) return KVRS232_OK;
      if (!wait(lock, plan.deadline(got, lastByte))) return KVRS232_OK;
    }
  }

  int write(const char* buffer, size_t length, size_t& done, const WriteTimeouts& timeouts) override {
    Clock::time_point deadline = Clock::time_point::max();
    if (timeouts.multiplier != 0 || timeouts.constant != 0)
      deadline = after_ms(Clock::now(), total_ms(timeouts.multiplier, length, timeouts.constant));
    std::unique_lock<std::mutex> lock(wire_->mutex);
    std::deque<char>& out = wire_->lanes[end_];
    for (;;) {
      if (closing_) return KVRS232_ERR_CLOSED;
      if (wire_->cut) return KVRS232_ERR_HANGUP;
      const size_t n = std::min(kLaneCapacity - std::min(kLaneCapacity, out.size()), length - done);
      if (n > 0) {
        out.insert(out.end(), buffer + done, buffer + done + n);
        done += n;
        wire_->changed.notify_all();
        if (done == length) return KVRS232_OK;
        continue;
      }
      if (!wait(lock, deadline)) return KVRS232_OK;
    }
  }

  // A cable carries no modem lines; a break has nothing to reach.
  int set_out_line(int line, int) override {
    if (const int status = state(); status != KVRS232_OK) return status;
    return line == KVRS232_LINE_BREAK ? KVRS232_OK : KVRS232_ERR_NOT_SUPPORTED;
  }
  int modem_status(int&) override {
    if (const int status = state(); status != KVRS232_OK) return status;
    return KVRS232_ERR_NOT_SUPPORTED;
  }

  // What this end has not read, and what it wrote that the other end has not.
  int flush() override {
    std::lock_guard<std::mutex> lock(wire_->mutex);
    wire_->lanes[0].clear();
    wire_->lanes[1].clear();
    wire_->changed.notify_all();
    return KVRS232_OK;
  }

  int state() override {
    std::lock_guard<std::mutex> lock(wire_->mutex);
    return wire_->cut ? KVRS232_ERR_HANGUP : KVRS232_OK;
  }

  void wake() override {
    std::lock_guard<std::mutex> lock(wire_->mutex);
    closing_ = true;
    wire_->changed.notify_all();
  }

 private:
  // Waits for a change until deadline; false when the deadline has passed.
  bool wait(std::unique_lock<std::mutex>& lock, Clock::time_point deadline) {
    if (deadline == Clock::time_point::max()) {
      wire_->changed.wait(lock);
      return true;
    }
    if (Clock::now() >= deadline) return false;
    wire_->changed.wait_until(lock, deadline);
    return true;
  }

  std::shared_ptr<Wire> wire_;
  int end_;
  bool closing_ = false;  // under the wire's lock
};

}  // namespace

bool is_cable_device(const std::string& device) { return device.rfind(kDevicePrefix, 0) == 0; }

std::unique_ptr<Line> open_cable_end(const std::string& device, int& status) {
  std::shared_ptr<Wire> wire;
  int end = 0;
  {
    Ends& table = ends();
    std::lock_guard<std::mutex> lock(table.mutex);
    const auto found = table.byDevice.find(device);
    if (found != table.byDevice.end()) {
      wire = found->second.first.lock();
      end = found->second.second;
    }
  }
  if (!wire) {
    status = KVRS232_ERR_NO_DEVICE;
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(wire->mutex);
  if (wire->endOpen[end]) {
    status = KVRS232_ERR_BUSY;
    return nullptr;
  }
  wire->endOpen[end] = true;
  status = KVRS232_OK;
  return std::make_unique<CableLine>(wire, end);
}

}  // namespace kvrs232

using namespace kvrs232;

extern "C" {

int KvRS232NullModemOpen(void** cable, int portA, int portB) {
  if (cable == nullptr) return KVRS232_ERR_ARGUMENT;
  *cable = nullptr;
  if (portA < 1 || portB < 1 || portA == portB) return KVRS232_ERR_PORT;
  auto made = std::make_shared<Cable>();
  made->ports[0] = portA;
  made->ports[1] = portB;
  for (int end = 0; end < 2; ++end) made->devices[end] = kDevicePrefix + std::to_string(made->ports[end]);
  if (!cable_map(portA, made->devices[0], portB, made->devices[1])) return KVRS232_ERR_BUSY;
  {
    Ends& table = ends();
    std::lock_guard<std::mutex> lock(table.mutex);
    for (int end = 0; end < 2; ++end) table.byDevice[made->devices[end]] = {made->wire, end};
  }
  *cable = HandleTable<Cable>::instance().add(std::move(made));
  return KVRS232_OK;
}

int KvRS232NullModemClose(void** cable) {
  if (cable == nullptr) return KVRS232_ERR_ARGUMENT;
  std::shared_ptr<Cable> closing = HandleTable<Cable>::instance().take(*cable);
  if (!closing) return KVRS232_ERR_HANDLE;
  *cable = nullptr;
  {
    Ends& table = ends();
    std::lock_guard<std::mutex> lock(table.mutex);
    for (const std::string& device : closing->devices) table.byDevice.erase(device);
  }
  cable_unmap(closing->ports[0], closing->ports[1]);
  std::lock_guard<std::mutex> lock(closing->wire->mutex);
  closing->wire->cut = true;
  closing->wire->changed.notify_all();
  return KVRS232_OK;
}

}  // extern "C"
