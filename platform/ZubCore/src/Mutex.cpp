// Mutexes, scoped locks and time spans.
#include "Zub/Core/Mutex.h"

#include <chrono>

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
  // Trying first keeps the free mutex from paying for a clock reading; a
  // timeout of zero or less only tries.
  return m_mutex.try_lock() || m_mutex.try_lock_for(std::chrono::nanoseconds(timeout.GetNanoseconds()));
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
