// Waitable timers: one-shot, armed for an absolute system time in file-time
// units (100 ns since 1601, UTC), signalled at expiry, with an optional
// completion routine queued at expiry to the thread that armed the timer
// (run there during its alertable waits; see kvos/thread.h).
#pragma once

#include <cstdint>
#include <memory>

#include "kvos/export.h"
#include "kvos/thread.h"

namespace kvos {

class KVOS_API WaitableTimer {
 public:
  // A manual-reset timer stays signalled after expiry until armed again; an
  // auto-reset one is reset by the wait that it releases.
  explicit WaitableTimer(bool manualReset = true);
  // An armed timer is cancelled; its completion is dropped, also when expiry
  // has queued it already and it has not started to run.
  ~WaitableTimer();
  WaitableTimer(const WaitableTimer&) = delete;
  WaitableTimer& operator=(const WaitableTimer&) = delete;

  // False when the timer could not be created; every operation then fails.
  [[nodiscard]] bool valid() const;

  // Arms the timer for `due`, an absolute UTC file time; a negative value is
  // a time relative to now, in 100 ns units. The timer becomes unsignalled;
  // at `due` it becomes signalled and `completion` (if any) is queued to the
  // calling thread. Arming again replaces the earlier arming and its
  // completion; a completion that an earlier expiry queued and that has not
  // started to run is taken back as well.
  [[nodiscard]] bool arm(int64_t due, Completion completion = {});

  // Stops a pending expiry and takes back its completion, also one that
  // expiry has queued already and that has not started to run (a routine
  // that is running finishes). The signalled state is left as it is, so a
  // timer cancelled before expiry stays unsignalled and one cancelled after
  // it stays signalled.
  [[nodiscard]] bool cancel();

  // Waits up to timeoutMs for the timer to be signalled (0 only tests it).
  WaitResult wait(uint32_t timeoutMs, bool alertable = false);

  struct Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace kvos
