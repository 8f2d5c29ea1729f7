// The process manager: keeps the user interface alive during long operations
// (message pumping) and connects the process to the fatal-error path.
#pragma once

#include "KvExport.h"
#include "TerminationManager.h"

namespace CSL {

// The host's user-interface message pump, installed with
// ProcessManager::SetMessagePump. Without one the message queue is empty.
class KVCORE_API IMessagePump {
 public:
  virtual ~IMessagePump();
  // Is a message waiting for the calling thread? Nothing is removed.
  virtual bool Peek() = 0;
  // Removes the next message: > 0 a message, 0 the quit message, -1 an error.
  virtual int Get() = 0;
  // Translates and dispatches the message last removed.
  virtual void Dispatch() = 0;
};

}  // namespace CSL

class KVCORE_API ProcessManager {
 public:
  ProcessManager();
  // Removes and deletes the process's alert listener.
  ~ProcessManager();

  // Creates the process's SystemAlertListener and adds it to the alert
  // manager; called by SysManager::Initialize. Later calls do nothing.
  static void initialize();

  // Pumps the calling thread's messages until none is left; returns at once
  // when none is waiting. A failed removal ends the process (std::terminate).
  static void yield();
  // Pumps messages for the given time; returns at once when it is not positive.
  static void yield(double seconds);

  // The process's termination manager.
  static void HandleAbnormalTermination();
  static void RegisterTerminator(CSL::ITerminationHandler* handler);
  static void UnRegisterTerminator(CSL::ITerminationHandler* handler);

  // Installs the host's pump (null removes it); returns the previous one.
  static CSL::IMessagePump* SetMessagePump(CSL::IMessagePump* pump);

  static CSL::CAbnormalTerminationManager m_terminationManager;
  static SystemAlertListener* m_listener;
};

// The one instance; its destructor runs at library exit.
KVCORE_API extern ProcessManager processman;
