// Shared by the Linux port and cable code: terminals, polls and wake-up events.
#pragma once

#include <poll.h>

#include "../kvrs232_internal.h"

namespace kvrs232 {

// Puts an open terminal into raw mode (bytes pass unchanged, reads return
// what has arrived, no flow control, modem control lines ignored); false on failure.
bool make_raw(int fd);

// poll() that waits until deadline (Clock::time_point::max(): without limit)
// with sub-millisecond precision; restarts after signals.
int poll_until(pollfd* fds, nfds_t count, Clock::time_point deadline);

// Sets the counter of an eventfd, so that every poll on it sees it readable from now on.
void signal_event(int fd);

}  // namespace kvrs232
