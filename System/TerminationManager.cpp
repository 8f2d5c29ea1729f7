// Abnormal termination.
#include "TerminationManager.h"

#include <algorithm>

#include "DebugManager.h"
#include "ProcessManager.h"

namespace CSL {

ITerminationHandler::ITerminationHandler() : m_handlerText("Unknown ITerminationHandler") {}
ITerminationHandler::ITerminationHandler(const ITerminationHandler& other) = default;
ITerminationHandler& ITerminationHandler::operator=(const ITerminationHandler& other) = default;
ITerminationHandler::~ITerminationHandler() = default;

const char* ITerminationHandler::getHandlerText() const { return m_handlerText.c_str(); }
void ITerminationHandler::setHandlerText(std::string text) { m_handlerText = std::move(text); }

CAbnormalTerminationManager::CAbnormalTerminationManager() : m_entered(false) {}
CAbnormalTerminationManager::CAbnormalTerminationManager(const CAbnormalTerminationManager& other) = default;
CAbnormalTerminationManager& CAbnormalTerminationManager::operator=(const CAbnormalTerminationManager& other) =
    default;
CAbnormalTerminationManager::~CAbnormalTerminationManager() = default;

void CAbnormalTerminationManager::Register(ITerminationHandler* handler) {
  if (handler == nullptr) {
    Debug(dbgCSL, "\nAttempt to register a NULL ITerminationHandler.\n");
    return;
  }
  Debug(dbgCSL, "\nCAbnormalTerminationManager - Registering: %s.\n", handler->getHandlerText());
  if (std::find(m_handlers.begin(), m_handlers.end(), handler) != m_handlers.end()) {
    Debug(dbgCSL, "\nAttempt to register the same ITerminationHandler more than once.\n");
    return;
  }
  m_handlers.push_back(handler);
}

void CAbnormalTerminationManager::UnRegister(ITerminationHandler* handler) {
  if (handler == nullptr) {
    Debug(dbgCSL, "\nAttempt to unregister a NULL ITerminationHandler.\n");
    return;
  }
  Debug(dbgCSL, "\nCAbnormalTerminationManager - UnRegistering: %s.\n", handler->getHandlerText());
  m_handlers.remove(handler);
}

int CAbnormalTerminationManager::GetNumberOfRegisteredHandlers() const { return static_cast<int>(m_handlers.size()); }

void CAbnormalTerminationManager::HandleAbnormalTermination() {
  Debug("\nCSL: CAbnormalTerminationManager::HandleAbnormalTermination()\n");
  if (m_entered) {
    Debug("\nInvalid attempt to re-enter the termination manager HandleAbnormalTermination method.\n");
    return;
  }
  m_entered = true;
  const std::list<ITerminationHandler*> handlers = m_handlers;  // a handler may unregister itself
  for (ITerminationHandler* handler : handlers) {
    if (handler == nullptr) {
      Debug("\nError: CSL: CAbnormalTerminationManager::HandleAbnormalTermination() handler invalid.\n");
      continue;
    }
    try {
      handler->HandleTermination();
    } catch (...) {
      Debug("\nAn ITerminationHandler threw an exception.\n");
    }
  }
}

}  // namespace CSL

std::atomic<bool> SystemAlertListener::s_noFatalErrorYet{true};

SystemAlertListener::SystemAlertListener() = default;
SystemAlertListener::~SystemAlertListener() = default;

void SystemAlertListener::UncaughtFatalError() {
  Zub::Core::Lock lock(m_mutex, Zub::Core::Elapse(0x7FFFFFFF, Zub::Core::Elapse::Milliseconds));
  if (s_noFatalErrorYet.exchange(false)) {
    Debug("CSL: SystemAlertListener::UncaughtFatalError being processed.\n");
    ProcessManager::m_terminationManager.HandleAbnormalTermination();
    Debug("CSL: SystemAlertListener::UncaughtFatalError exit.\n");
  } else {
    Debug(dbgCSL, "Error: SystemAlertListener::UncaughtFatalError called more than once.\n");
  }
}
