// Shared inside the serial-port library: the port table and small helpers.
#pragma once

#include <poll.h>

#include <chrono>
#include <string>

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

// Sets the counter of an eventfd, so that every poll on it sees it readable from now on.
void signal_event(int fd);

}  // namespace kvrs232
