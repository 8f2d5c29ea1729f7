// Shared by the Windows port and cable code: the line a port moves bytes on.
#pragma once

#include <memory>
#include <string>

#include "../kvrs232_internal.h"

namespace kvrs232 {

// An open line: a COM port or one end of a null-modem cable. Statuses are KVRS232_*.
class Line {
 public:
  virtual ~Line() = default;
  virtual int configure(int baud, int dataBits, int parity, int stopBits) = 0;
  virtual int set_timeouts(const ReadTimeouts& read, const WriteTimeouts& write) = 0;
  virtual int read(char* buffer, size_t length, size_t& got, const ReadTimeouts& timeouts) = 0;
  virtual int write(const char* buffer, size_t length, size_t& done, const WriteTimeouts& timeouts) = 0;
  virtual int set_out_line(int line, int state) = 0;
  virtual int modem_status(int& bits) = 0;
  virtual int flush() = 0;
  // KVRS232_ERR_HANGUP once the line has been hung up, KVRS232_OK before.
  virtual int state() = 0;
  // The handle is being closed: calls waiting on the line end with KVRS232_ERR_CLOSED.
  virtual void wake() = 0;
};

// Opens the null-modem end behind a "nullmodem:" device; null with the status
// in status when there is none (KVRS232_ERR_NO_DEVICE) or it is open (KVRS232_ERR_BUSY).
std::unique_ptr<Line> open_cable_end(const std::string& device, int& status);

// Whether a device names a null-modem end.
bool is_cable_device(const std::string& device);

}  // namespace kvrs232
