// The process manager.
#include "ProcessManager.h"

#include <atomic>
#include <exception>
#include <thread>

#include "kvinit.h"
#include "kvos/pump.h"
#include "timers.h"

namespace CSL {
IMessagePump::~IMessagePump() = default;
}  // namespace CSL

CSL::CAbnormalTerminationManager ProcessManager::m_terminationManager KV_INIT(KV_PRIO_PROCESS);
SystemAlertListener* ProcessManager::m_listener = nullptr;
ProcessManager processman KV_INIT(KV_PRIO_PROCESS);

namespace {

std::atomic<CSL::IMessagePump*> g_pump{nullptr};

bool pump_peek(void* context) { return static_cast<CSL::IMessagePump*>(context)->Peek(); }
int pump_get(void* context) { return static_cast<CSL::IMessagePump*>(context)->Get(); }
void pump_dispatch(void* context) { static_cast<CSL::IMessagePump*>(context)->Dispatch(); }

}  // namespace

ProcessManager::ProcessManager() = default;

ProcessManager::~ProcessManager() {
  if (m_listener == nullptr) return;
  Zub::Core::AlertManager::Instance()->RemoveAlertListener(m_listener);
  delete m_listener;
  m_listener = nullptr;
}

void ProcessManager::initialize() {
  if (m_listener != nullptr) return;
  m_listener = new SystemAlertListener();
  Zub::Core::AlertManager::Instance()->AddAlertListener(m_listener);
}

void ProcessManager::yield() {
  if (!kvos::pump_peek()) return;
  do {
    if (kvos::pump_get() == -1) std::terminate();  // the queue is broken: nothing sensible is left to do
    kvos::pump_dispatch();
  } while (kvos::pump_peek());
}

void ProcessManager::yield(double seconds) {
  if (!(seconds > 0.0)) return;  // the time is up before it started
  stopwatch watch;
  watch.start(seconds);
  while (!watch.time_up()) {
    yield();
    std::this_thread::yield();
  }
}

void ProcessManager::HandleAbnormalTermination() { m_terminationManager.HandleAbnormalTermination(); }
void ProcessManager::RegisterTerminator(CSL::ITerminationHandler* handler) { m_terminationManager.Register(handler); }
void ProcessManager::UnRegisterTerminator(CSL::ITerminationHandler* handler) {
  m_terminationManager.UnRegister(handler);
}

CSL::IMessagePump* ProcessManager::SetMessagePump(CSL::IMessagePump* pump) {
  CSL::IMessagePump* previous = g_pump.exchange(pump);
  if (pump == nullptr) {
    kvos::pump_install(nullptr);
  } else {
    kvos::MessagePumpHooks hooks;
    hooks.peek = pump_peek;
    hooks.get = pump_get;
    hooks.dispatch = pump_dispatch;
    hooks.context = pump;
    kvos::pump_install(&hooks);
  }
  return previous;
}
