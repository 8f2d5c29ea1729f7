// Threads, events, sleeps, completion routines and waitable timers on
// Windows: completion routines are user-mode APCs, run by the thread's
// alertable waits (SleepEx, WaitForSingleObjectEx); waitable timers are the
// system's, whose completion routine is an APC to the thread that armed them.
#include <windows.h>

#include <deque>
#include <memory>
#include <unordered_map>

#include "kvos/fault.h"
#include "kvos/thread.h"
#include "kvos/time.h"
#include "kvos/waitable_timer.h"

namespace kvos {
namespace {

// The system's slim lock: usable while a thread ends, after the threads
// library has let go of the thread.
class Lock {
 public:
  explicit Lock(SRWLOCK& lock) : lock_(lock) { AcquireSRWLockExclusive(&lock_); }
  ~Lock() { ReleaseSRWLockExclusive(&lock_); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  SRWLOCK& lock_;
};

}  // namespace

// A thread's queue of routines. The thread's APC drains it, so that routines
// queued before the thread first runs wait for its first alertable wait too.
struct ThreadState {
  ~ThreadState() {
    if (handle != nullptr) CloseHandle(handle);
  }
  SRWLOCK lock = SRWLOCK_INIT;
  std::deque<Completion> queue;
  HANDLE handle = nullptr;  // known once the thread runs
  bool ended = false;
};

namespace {

// Runs the calling thread's queued routines, one at a time, until its queue
// is empty (routines may queue more).
void CALLBACK drain_queue(ULONG_PTR parameter) {
  ThreadState* self = reinterpret_cast<ThreadState*>(parameter);
  for (;;) {
    Completion routine;
    {
      Lock lock(self->lock);
      if (self->queue.empty()) return;
      routine = std::move(self->queue.front());
      self->queue.pop_front();
    }
    routine();
  }
}

// Under the state's lock: asks the thread to drain its queue at its next alertable wait.
bool request_drain(ThreadState& state) {
  return state.handle == nullptr || QueueUserAPC(drain_queue, state.handle, reinterpret_cast<ULONG_PTR>(&state)) != 0;
}

// Attaches the calling thread to its state: the handle that APCs are queued
// through, and a drain for routines queued before it ran.
void attach(ThreadState& state) {
  HANDLE handle = OpenThread(THREAD_SET_CONTEXT | SYNCHRONIZE, FALSE, GetCurrentThreadId());
  Lock lock(state.lock);
  state.handle = handle;
  if (!state.queue.empty()) request_drain(state);
}

// The calling thread's state lives in a fiber-local slot whose callback
// ends the thread's queue when the thread ends. (Thread-local objects with
// destructors are not used: mingw-w64's emulated thread-local storage frees
// them before their destructors run.)
void WINAPI thread_ended(void* slot) {
  auto* state = static_cast<std::shared_ptr<ThreadState>*>(slot);
  std::deque<Completion> dropped;
  {
    Lock lock((*state)->lock);
    (*state)->ended = true;
    dropped.swap((*state)->queue);
  }
  delete state;
}

DWORD state_slot() {
  static const DWORD slot = FlsAlloc(thread_ended);
  return slot;
}

// Makes state the calling thread's and attaches the thread to it.
void adopt(std::shared_ptr<ThreadState> state) {
  auto* slot = new std::shared_ptr<ThreadState>(std::move(state));
  FlsSetValue(state_slot(), slot);
  attach(**slot);
}

std::shared_ptr<ThreadState> current_state() {
  if (auto* slot = static_cast<std::shared_ptr<ThreadState>*>(FlsGetValue(state_slot()))) return *slot;
  adopt(std::make_shared<ThreadState>());
  return *static_cast<std::shared_ptr<ThreadState>*>(FlsGetValue(state_slot()));
}

WaitResult wait_result(DWORD result) {
  switch (result) {
    case WAIT_OBJECT_0: return kWaitSignalled;
    case WAIT_TIMEOUT: return kWaitTimeout;
    case WAIT_IO_COMPLETION: return kWaitCompletion;
    default: return kWaitFailed;
  }
}

WaitResult wait_handle(HANDLE handle, uint32_t timeoutMs, bool alertable) {
  if (alertable) (void)current_state();  // routines queued to this thread can reach it
  return wait_result(WaitForSingleObjectEx(handle, timeoutMs, alertable ? TRUE : FALSE));
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
  Lock lock(state_->lock);
  if (state_->ended) return false;
  state_->queue.push_back(std::move(routine));
  if (request_drain(*state_)) return true;
  state_->queue.pop_back();  // the thread is ending
  return false;
}

bool ThreadRef::alive() const {
  if (!state_) return false;
  Lock lock(state_->lock);
  return !state_->ended;
}

WaitResult sleep_ms(uint32_t ms, bool alertable) {
  if (alertable) (void)current_state();
  return SleepEx(ms, alertable ? TRUE : FALSE) == WAIT_IO_COMPLETION ? kWaitCompletion : kWaitTimeout;
}

Thread::Thread(std::function<void()> body) : ref_(std::make_shared<ThreadState>()) {
  std::shared_ptr<ThreadState> state = ref_.state_;
  thread_ = std::thread([state, body = std::move(body)]() mutable {
    adopt(std::move(state));
    body();
  });
}

Thread::~Thread() { join(); }

void Thread::join() {
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

struct Event::Impl {
  HANDLE handle;
};

Event::Event(bool manualReset, bool initiallySet)
    : impl_(std::make_unique<Impl>(Impl{CreateEventA(nullptr, manualReset, initiallySet, nullptr)})) {}

Event::~Event() {
  if (impl_->handle != nullptr) CloseHandle(impl_->handle);
}

void Event::set() { SetEvent(impl_->handle); }
void Event::reset() { ResetEvent(impl_->handle); }

WaitResult Event::wait(uint32_t timeoutMs, bool alertable) {
  if (impl_->handle == nullptr) return kWaitFailed;
  return wait_handle(impl_->handle, timeoutMs, alertable);
}

// ---------------------------------------------------------------------------
// Waitable timers. Each arming with a completion files the routine under a
// number of its own; the timer's APC carries the number and runs the routine
// only if it is still filed. Cancelling, arming again or destroying takes the
// routine out of the file, so it never runs late, whatever the system does
// with the APC it had queued.

namespace {

SRWLOCK g_filedLock = SRWLOCK_INIT;
std::unordered_map<uint64_t, std::shared_ptr<Completion>>& filed() {
  static auto* routines = new std::unordered_map<uint64_t, std::shared_ptr<Completion>>();  // used during exit
  return *routines;
}
uint64_t g_lastNumber = 0;

void CALLBACK timer_expired(void* parameter, DWORD, DWORD) {
  std::shared_ptr<Completion> routine;
  {
    Lock lock(g_filedLock);
    const auto it = filed().find(reinterpret_cast<uintptr_t>(parameter));
    if (it == filed().end()) return;
    routine = std::move(it->second);
    filed().erase(it);
  }
  (*routine)();
}

}  // namespace

struct WaitableTimer::Impl {
  ~Impl() {
    if (handle != nullptr) CloseHandle(handle);
  }
  // Takes back the routine of the last arming unless it has started to run.
  void take_back() {
    std::shared_ptr<Completion> dropped;
    Lock lock(g_filedLock);
    const auto it = filed().find(number);
    if (it != filed().end()) {
      dropped = std::move(it->second);
      filed().erase(it);
    }
    number = 0;
  }
  HANDLE handle = nullptr;
  uint64_t number = 0;  // the filed routine of the last arming; 0 for none
};

WaitableTimer::WaitableTimer(bool manualReset) : impl_(std::make_shared<Impl>()) {
  if (!fault_check(FaultPoint::TimerCreate)) impl_->handle = CreateWaitableTimerA(nullptr, manualReset, nullptr);
}

WaitableTimer::~WaitableTimer() {
  if (impl_->handle != nullptr) CancelWaitableTimer(impl_->handle);
  impl_->take_back();
}

bool WaitableTimer::valid() const { return impl_->handle != nullptr; }

bool WaitableTimer::arm(int64_t due, Completion completion) {
  if (impl_->handle == nullptr || fault_check(FaultPoint::TimerArm)) return false;
  impl_->take_back();
  void* parameter = nullptr;
  if (completion) {
    Lock lock(g_filedLock);
    impl_->number = ++g_lastNumber;
    filed().emplace(impl_->number, std::make_shared<Completion>(std::move(completion)));
    parameter = reinterpret_cast<void*>(static_cast<uintptr_t>(impl_->number));
  }
  LARGE_INTEGER when;
  when.QuadPart = due;
  if (SetWaitableTimer(impl_->handle, &when, 0, parameter != nullptr ? timer_expired : nullptr, parameter, FALSE)) {
    if (parameter != nullptr) (void)current_state();
    return true;
  }
  impl_->take_back();
  return false;
}

bool WaitableTimer::cancel() {
  if (impl_->handle == nullptr || fault_check(FaultPoint::TimerCancel)) return false;
  const bool cancelled = CancelWaitableTimer(impl_->handle) != 0;
  impl_->take_back();
  return cancelled;
}

WaitResult WaitableTimer::wait(uint32_t timeoutMs, bool alertable) {
  if (impl_->handle == nullptr || fault_check(FaultPoint::TimerWait)) return kWaitFailed;
  return wait_handle(impl_->handle, timeoutMs, alertable);
}

}  // namespace kvos
