// Time services on one process-wide monotonic microsecond clock: readings in
// several units, delays, a polled deadline (stopwatch), a one-shot timer that
// can call back (Timer), a logger of elapsed process time (TimeDebug) and the
// system uptime. A failing system call in any of them is fatal: sys_abort("Timer error").
#pragma once

#include <cstdint>
#include <memory>

#include <boost/shared_ptr.hpp>

#include "KvExport.h"
#include "Zub/Core/Callback.h"

// Microseconds since the first call in the process.
KVCORE_API uint64_t timer_us_large_int();
// The low 31 bits of timer_us_large_int(): wraps to 0 every 2^31 us (~35.8 minutes).
KVCORE_API long timer_us();
KVCORE_API long timer_ms();
KVCORE_API long timer_s();
KVCORE_API long timer_min();
KVCORE_API long timer_hr();
// Legacy ticks of 1/18.2 s to seconds.
KVCORE_API double TimerTicksToSeconds(long ticks);

// Sleeps the thread (not alertably).
KVCORE_API void delay_dos_ms(long ms);
// Busy-waits without giving up the processor.
KVCORE_API void delay_dos_us(long us);

// A deadline on the microsecond clock, polled by its user.
class KVCORE_API stopwatch {
 public:
  stopwatch();
  // Deadline = now + seconds; true when that is a non-zero number of microseconds.
  bool start(double seconds);
  // Whether the clock is past the deadline (whether or not started).
  bool time_up();
  // Whether started (whatever the clock says).
  bool is_on();
  void stop();
  // Sleeps for the given time; has nothing to do with the deadline.
  void Wait(double seconds);

 private:
  uint64_t deadline;
  int running;
};

// A one-shot timer. At expiry it is signalled (Done) and, on the thread that
// started it and only while that thread waits alertably (SysManager::Sleep),
// Fire() runs: by default it invokes the callback. Copies share the timer;
// the last copy to go cancels it. Stopping, starting again or cancelling at
// destruction also drops an expiry's Fire that is still waiting for such a wait.
class KVCORE_API Timer {
 public:
  Timer();
  // Started at once.
  explicit Timer(double seconds);
  explicit Timer(boost::shared_ptr<Zub::Core::Callback> callback);
  // Started at once.
  Timer(boost::shared_ptr<Zub::Core::Callback> callback, double seconds);
  Timer(const Timer& other);
  Timer& operator=(const Timer& other);
  virtual ~Timer();

  // Stores the duration used by Start().
  void Set(double seconds);
  // Arms the timer for the stored duration from now; starting again re-arms it
  // (an earlier expiry's Fire that has not run yet is dropped).
  void Start();
  void Start(double seconds);
  // Cancels a pending expiry, and drops the Fire of one that has come and not
  // run yet; a timer stopped before its time is never Done.
  void Stop();
  bool Done();
  bool IsOn();
  // Waits (not alertably, so Fire does not run) until the timer is signalled.
  void Wait();
  void Wait(double seconds);

  // Called at expiry (see above); overridden to act on it.
  virtual void Fire();

 protected:
  void Init(boost::shared_ptr<Zub::Core::Callback> callback, double seconds);

 private:
  struct Handle;
  struct Link;
  // Lets go of the shared system timer; the last holder cancels it.
  void ReleaseHandle();

  std::shared_ptr<Handle> m_handle;  // the system timer, shared by copies
  double m_seconds;
  boost::shared_ptr<Zub::Core::Callback> m_callback;
  std::shared_ptr<Link> m_link;  // leads this object's expiries to it while it lives
};

// Logs the process time elapsed between messages (category "Timer").
class KVCORE_API TimeDebug {
 public:
  explicit TimeDebug(const char* name = nullptr);
  TimeDebug(const TimeDebug& other);
  TimeDebug& operator=(const TimeDebug& other);
  ~TimeDebug();

  // "Time Debug Object <name>: <message>, Elapsed time: <t> msec|sec", the
  // time since construction or the previous message.
  void TimeMsg(const char* message, bool inMilliseconds);

 private:
  long ticks;  // process clock (ms since the process started) at the last reading
  char* name;
};

class KVCORE_API Time {
 public:
  // Milliseconds since the system started (wraps after ~49.7 days).
  static uint32_t Uptime();
};

// Diagnostics: print clock readings through Debug() (category "A").
KVCORE_API bool TestTheTimers(int cycles);
KVCORE_API bool TestTheTimers();
// Prints the session time once a second for 1000 seconds.
KVCORE_API void TestTheTimersSessionTime();
