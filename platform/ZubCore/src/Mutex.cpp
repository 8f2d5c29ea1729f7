// Mutexes, scoped locks and time spans.
#include "Zub/Core/Mutex.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "Zub/Core/Assert.h"

namespace Zub {
namespace Core {

void Elapse::Assign(int64_t amount, int unit) {
  switch (unit) {
    case Nanoseconds: m_nanoseconds = amount; break;
    case Ticks100ns: m_nanoseconds = amount * 100; break;
    case Microseconds: m_nanoseconds = amount * 1000; break;
    case Seconds: m_nanoseconds = amount * 1000000000LL; break;
    default: m_nanoseconds = amount * 1000000LL; break;
  }
}

bool Elapse::IsUnlimited() const noexcept { return m_nanoseconds >= 0x7FFFFFFFLL * 1000000LL; }

Mutex::Mutex() = default;
Mutex::~Mutex() = default;

bool Mutex::Lock(const Elapse& timeout) {
  if (timeout.IsUnlimited()) {
    m_mutex.lock();
    return true;
  }
  if (m_mutex.try_lock()) return true;
  if (timeout.GetNanoseconds() <= 0) return false;
  // A bounded wait polls with a growing pause (capped at 1 ms): timed waits
  // are rare, and the plain lock and try-lock stay the cheapest calls.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::nanoseconds(timeout.GetNanoseconds());
  auto pause = std::chrono::microseconds(20);
  while (!m_mutex.try_lock()) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return false;
    std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(pause, deadline - now));
    pause = std::min(pause * 2, std::chrono::microseconds(1000));
  }
  return true;
}

bool Mutex::TryLock() { return m_mutex.try_lock(); }
void Mutex::Unlock() { m_mutex.unlock(); }

Lock::Lock(Mutex& mutex, const Elapse& timeout) : m_Mutex(&mutex), m_locked(mutex.Lock(timeout)) {}

Lock::Lock(Mutex* mutex, const Elapse& timeout) : m_Mutex(mutex), m_locked(false) {
  if (m_Mutex == nullptr) AssertFailed("m_Mutex != 0", ZUB_CODE_CONTEXT);
  m_locked = m_Mutex->Lock(timeout);
}

Lock::~Lock() {
  if (m_locked) m_Mutex->Unlock();
}

}  // namespace Core
}  // namespace Zub
