// Threads, events, sleeps, completion queues and waitable timers.
//
// All waitable state lives under one process-wide lock. Each thread owns a
// condition variable; a thread that waits registers with the object it waits
// on, and whoever changes that object (or queues a routine to the thread)
// wakes it. Timer expiry needs no thread of its own: a timer is settled
// (made signalled, its completion queued) by whoever looks at it at or after
// its due time, and every wait that could observe an expiry (a wait on the
// timer, an alertable wait of the thread that armed it) sleeps no longer than
// to the due time. The observable behaviour is that of a timer which expires
// by itself at its due time.
#include <algorithm>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

#include "kvos/fault.h"
#include "kvos/thread.h"
#include "kvos/time.h"
#include "kvos/waitable_timer.h"

namespace kvos {

namespace {

std::mutex& wait_lock() {
  static std::mutex* const lock = new std::mutex();  // never destroyed: used during exit
  return *lock;
}

// Holds the wait lock; routines released under it are destroyed after it is
// let go, since their destructors may call back into this module.
struct Guard {
  Guard() : lock(wait_lock()) {}
  ~Guard() {
    if (lock.owns_lock()) lock.unlock();
    trash.clear();
  }
  std::unique_lock<std::mutex> lock;
  std::vector<Completion> trash;
};

}  // namespace

struct Waitable {
  virtual ~Waitable() = default;
  // Under the lock: consumes the signal when there is one.
  virtual bool acquire(int64_t now, Guard& guard) = 0;
  // Under the lock: the UTC file time at which the object may become
  // signalled by itself; INT64_MAX for never.
  virtual int64_t wake_time() const { return INT64_MAX; }

  std::vector<ThreadState*> waiters;
};

// A queued routine; `owner` is the timer whose expiry queued it (null for others).
struct Queued {
  Completion routine;
  const void* owner = nullptr;
};

struct ThreadState {
  std::condition_variable cv;
  std::deque<Queued> queue;
  // Timers armed by this thread whose completion is not delivered yet.
  std::vector<WaitableTimer::Impl*> pending;
  bool ended = false;
};

namespace {

void notify_waiters(Waitable& object) {
  for (ThreadState* waiter : object.waiters) waiter->cv.notify_one();
}

// Ends a thread's queue when the thread ends.
struct CurrentThread {
  std::shared_ptr<ThreadState> state;
  ~CurrentThread() {
    if (!state) return;
    std::deque<Queued> dropped;
    {
      std::lock_guard<std::mutex> lock(wait_lock());
      state->ended = true;
      dropped.swap(state->queue);
    }
  }
};

thread_local CurrentThread t_current;

std::shared_ptr<ThreadState> current_state() {
  if (!t_current.state) t_current.state = std::make_shared<ThreadState>();
  return t_current.state;
}

}  // namespace

struct Event::Impl : Waitable {
  Impl(bool manualReset, bool initiallySet) : manual(manualReset), set(initiallySet) {}
  bool acquire(int64_t, Guard&) override {
    if (!set) return false;
    if (!manual) set = false;
    return true;
  }
  bool manual;
  bool set;
};

struct WaitableTimer::Impl : Waitable {
  explicit Impl(bool manualReset) : manual(manualReset) {}

  bool acquire(int64_t now, Guard& guard) override {
    settle(now, guard);
    if (!signalled) return false;
    if (!manual) signalled = false;
    return true;
  }
  int64_t wake_time() const override { return armed ? due : INT64_MAX; }

  // Expires the timer when its time has come: signalled, waiters woken, the
  // completion queued to the thread that armed it.
  void settle(int64_t now, Guard& guard) {
    if (!armed || now < due) return;
    armed = false;
    signalled = true;
    notify_waiters(*this);
    if (armer) {
      forget_armer();
      if (completion && !armer->ended) {
        armer->queue.push_back({std::move(completion), this});
        armer->cv.notify_one();
        queuedTo = armer;
      }
      armer.reset();
    }
    drop_completion(guard);
  }

  void forget_armer() {
    if (!armer) return;
    auto& list = armer->pending;
    list.erase(std::remove(list.begin(), list.end(), this), list.end());
  }

  void drop_completion(Guard& guard) {
    if (completion) guard.trash.push_back(std::move(completion));
    completion = nullptr;
  }

  // Removes the arming and a completion that expiry queued but that has not
  // started to run.
  void disarm(Guard& guard) {
    armed = false;
    forget_armer();
    armer.reset();
    drop_completion(guard);
    if (const std::shared_ptr<ThreadState> thread = queuedTo.lock()) {
      auto& queue = thread->queue;
      for (auto it = queue.begin(); it != queue.end();) {
        if (it->owner != this) {
          ++it;
          continue;
        }
        guard.trash.push_back(std::move(it->routine));
        it = queue.erase(it);
      }
    }
    queuedTo.reset();
  }

  bool manual;
  bool valid = true;
  bool armed = false;
  bool signalled = false;
  int64_t due = 0;
  Completion completion;
  std::shared_ptr<ThreadState> armer;
  std::weak_ptr<ThreadState> queuedTo;  // where expiry queued the completion
};

namespace {

void settle_pending(ThreadState& self, int64_t now, Guard& guard) {
  const std::vector<WaitableTimer::Impl*> pending = self.pending;  // settle edits the list
  for (WaitableTimer::Impl* timer : pending) timer->settle(now, guard);
}

// Runs the thread's queued routines outside the lock, one at a time, until
// the queue is empty (routines may queue more).
void run_queue(ThreadState& self, Guard& guard) {
  while (!self.queue.empty()) {
    Completion routine = std::move(self.queue.front().routine);
    self.queue.pop_front();
    guard.lock.unlock();
    routine();
    routine = nullptr;
    guard.lock.lock();
  }
}

WaitResult wait_on(Waitable* object, uint32_t timeoutMs, bool alertable) {
  using Clock = std::chrono::steady_clock;
  const std::shared_ptr<ThreadState> self = current_state();
  const bool forever = timeoutMs == kWaitForever;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(forever ? 0 : timeoutMs);
  Guard guard;
  for (;;) {
    const int64_t now = system_file_time();
    if (alertable) {
      settle_pending(*self, now, guard);
      if (!self->queue.empty()) {
        run_queue(*self, guard);
        return kWaitCompletion;
      }
    }
    if (object != nullptr && object->acquire(now, guard)) return kWaitSignalled;
    const Clock::time_point steadyNow = Clock::now();
    if (!forever && steadyNow >= deadline) return kWaitTimeout;

    int64_t wake = object != nullptr ? object->wake_time() : INT64_MAX;
    if (alertable)
      for (const WaitableTimer::Impl* timer : self->pending) wake = std::min(wake, timer->wake_time());
    bool bounded = !forever;
    Clock::time_point until = deadline;
    if (wake != INT64_MAX) {
      const int64_t ticks = std::clamp<int64_t>(wake - now, 0, 1000000000000000LL);  // at most ~3 years
      const Clock::time_point at = steadyNow + std::chrono::nanoseconds(ticks * 100);
      until = bounded ? std::min(until, at) : at;
      bounded = true;
    }
    if (object != nullptr) object->waiters.push_back(self.get());
    if (bounded)
      self->cv.wait_until(guard.lock, until);
    else
      self->cv.wait(guard.lock);
    if (object != nullptr) {
      auto& list = object->waiters;
      list.erase(std::find(list.begin(), list.end(), self.get()));
    }
  }
}

}  // namespace

// ---------------------------------------------------------------------------

ThreadRef::ThreadRef() = default;
ThreadRef::~ThreadRef() = default;
ThreadRef::ThreadRef(const ThreadRef&) = default;
ThreadRef& ThreadRef::operator=(const ThreadRef&) = default;
ThreadRef::ThreadRef(std::shared_ptr<ThreadState> state) : state_(std::move(state)) {}

ThreadRef ThreadRef::current() { return ThreadRef(current_state()); }

bool ThreadRef::queue_completion(Completion routine) const {
  if (!state_ || !routine) return false;
  std::lock_guard<std::mutex> lock(wait_lock());
  if (state_->ended) return false;
  state_->queue.push_back({std::move(routine), nullptr});
  state_->cv.notify_one();
  return true;
}

bool ThreadRef::alive() const {
  if (!state_) return false;
  std::lock_guard<std::mutex> lock(wait_lock());
  return !state_->ended;
}

WaitResult sleep_ms(uint32_t ms, bool alertable) {
  if (ms == 0 && !alertable) {
    std::this_thread::yield();
    return kWaitTimeout;
  }
  return wait_on(nullptr, ms, alertable);
}

Thread::Thread(std::function<void()> body) : ref_(std::make_shared<ThreadState>()) {
  std::shared_ptr<ThreadState> state = ref_.state_;
  thread_ = std::thread([state, body = std::move(body)]() mutable {
    t_current.state = std::move(state);
    body();
  });
}

Thread::~Thread() { join(); }

void Thread::join() {
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

Event::Event(bool manualReset, bool initiallySet) : impl_(std::make_unique<Impl>(manualReset, initiallySet)) {}
Event::~Event() = default;

void Event::set() {
  std::lock_guard<std::mutex> lock(wait_lock());
  impl_->set = true;
  notify_waiters(*impl_);
}

void Event::reset() {
  std::lock_guard<std::mutex> lock(wait_lock());
  impl_->set = false;
}

WaitResult Event::wait(uint32_t timeoutMs, bool alertable) { return wait_on(impl_.get(), timeoutMs, alertable); }

// ---------------------------------------------------------------------------

WaitableTimer::WaitableTimer(bool manualReset) : impl_(std::make_shared<Impl>(manualReset)) {
  if (fault_check(FaultPoint::TimerCreate)) impl_->valid = false;
}

WaitableTimer::~WaitableTimer() {
  Guard guard;
  impl_->disarm(guard);
}

bool WaitableTimer::valid() const { return impl_->valid; }

bool WaitableTimer::arm(int64_t due, Completion completion) {
  if (!impl_->valid || fault_check(FaultPoint::TimerArm)) return false;
  Guard guard;
  const int64_t now = system_file_time();
  if (due < 0) due = due == INT64_MIN || now > INT64_MAX + due ? INT64_MAX : now - due;
  impl_->disarm(guard);  // also takes back the completion of an earlier expiry that has not run
  impl_->armed = true;
  impl_->signalled = false;
  impl_->due = due;
  if (completion) {
    impl_->completion = std::move(completion);
    impl_->armer = current_state();
    impl_->armer->pending.push_back(impl_.get());
  }
  impl_->settle(now, guard);
  notify_waiters(*impl_);  // waiters recompute their wake time
  return true;
}

bool WaitableTimer::cancel() {
  if (!impl_->valid || fault_check(FaultPoint::TimerCancel)) return false;
  Guard guard;
  impl_->settle(system_file_time(), guard);  // an expiry that is due signals the timer
  impl_->disarm(guard);
  notify_waiters(*impl_);
  return true;
}

WaitResult WaitableTimer::wait(uint32_t timeoutMs, bool alertable) {
  if (!impl_->valid || fault_check(FaultPoint::TimerWait)) return kWaitFailed;
  return wait_on(impl_.get(), timeoutMs, alertable);
}

}  // namespace kvos
