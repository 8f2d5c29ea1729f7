// Threads, events, sleeps and the per-thread queue of completion routines.
//
// Every thread has a queue of completion routines. Routines are queued by
// other threads (ThreadRef::queue_completion) or by expiring waitable timers
// (kvos/waitable_timer.h), and run on that thread only while it waits
// alertably: an alertable sleep or wait runs every queued routine and then
// returns kWaitCompletion. A thread that never waits alertably never runs them.
// A timer that is cancelled or armed again takes back the routine it queued.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include "kvos/export.h"

namespace kvos {

enum WaitResult {
  kWaitSignalled = 0,   // the object was signalled
  kWaitTimeout = 1,     // the time ran out
  kWaitCompletion = 2,  // completion routines ran (alertable waits only)
  kWaitFailed = 3,      // the wait itself failed
};

// A timeout meaning "without limit".
constexpr uint32_t kWaitForever = 0xFFFFFFFFu;

using Completion = std::function<void()>;

struct ThreadState;

// Refers to a thread's completion queue; copies refer to the same thread. It
// stays valid after the thread has ended, but queues no more routines then.
class KVOS_API ThreadRef {
 public:
  ThreadRef();
  ~ThreadRef();
  ThreadRef(const ThreadRef&);
  ThreadRef& operator=(const ThreadRef&);

  // The calling thread.
  static ThreadRef current();

  // Queues a routine to run on the thread at its next alertable wait. False
  // for an empty reference, an empty routine, or a thread that has ended.
  [[nodiscard]] bool queue_completion(Completion routine) const;

  [[nodiscard]] bool alive() const;
  bool empty() const { return !state_; }
  bool operator==(const ThreadRef& other) const { return state_ == other.state_; }

 private:
  friend class Thread;
  friend struct WaitAccess;
  explicit ThreadRef(std::shared_ptr<ThreadState> state);
  std::shared_ptr<ThreadState> state_;
};

// Suspends the calling thread for ms milliseconds (kWaitForever: without
// limit). Alertable: returns kWaitCompletion as soon as queued routines have
// run, including routines already queued at the call; otherwise kWaitTimeout.
KVOS_API WaitResult sleep_ms(uint32_t ms, bool alertable);

// A thread running a function; its completion queue exists from construction,
// so routines may be queued to it before it first runs. The destructor joins.
class KVOS_API Thread {
 public:
  explicit Thread(std::function<void()> body);
  ~Thread();
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  void join();
  bool joinable() const { return thread_.joinable(); }
  const ThreadRef& ref() const { return ref_; }

 private:
  ThreadRef ref_;
  std::thread thread_;
};

// An event, manual-reset (stays set until reset; releases every waiter) or
// auto-reset (a released waiter resets it; one waiter per set).
class KVOS_API Event {
 public:
  explicit Event(bool manualReset, bool initiallySet = false);
  ~Event();
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  void set();
  void reset();
  // Waits up to timeoutMs for the event (0 only tests it). Alertable waits
  // also end with kWaitCompletion when queued routines ran.
  WaitResult wait(uint32_t timeoutMs, bool alertable = false);

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace kvos
