// Abnormal termination: handlers that run once when the process meets an
// error that nothing handles, and the alert listener that triggers them.
#pragma once

#include <atomic>
#include <list>
#include <string>

#include "KvExport.h"
#include "Zub/Core/AlertManager.h"
#include "Zub/Core/Mutex.h"

namespace CSL {

// Something to do when the process ends abnormally: save state, write
// diagnostics, put hardware into a safe condition.
class KVCORE_API ITerminationHandler {
 public:
  ITerminationHandler();
  ITerminationHandler(const ITerminationHandler& other);
  ITerminationHandler& operator=(const ITerminationHandler& other);

  virtual void HandleTermination() = 0;
  virtual ~ITerminationHandler();

  // The text naming the handler in diagnostics; "Unknown ITerminationHandler" by default.
  const char* getHandlerText() const;
  void setHandlerText(std::string text);

 private:
  std::string m_handlerText;
};

// The registered handlers, run at most once per process. The manager does
// not own them.
class KVCORE_API CAbnormalTerminationManager {
 public:
  CAbnormalTerminationManager();
  CAbnormalTerminationManager(const CAbnormalTerminationManager& other);
  CAbnormalTerminationManager& operator=(const CAbnormalTerminationManager& other);
  ~CAbnormalTerminationManager();

  // Appends a handler; null and duplicates are reported and ignored.
  void Register(ITerminationHandler* handler);
  // Removes every occurrence of a handler.
  void UnRegister(ITerminationHandler* handler);
  int GetNumberOfRegisteredHandlers() const;

  // Runs every handler in registration order, once per process: a handler
  // that throws is reported and the next one runs; later calls run nothing.
  void HandleAbnormalTermination();

 private:
  bool m_entered;
  std::list<ITerminationHandler*> m_handlers;
};

}  // namespace CSL

// The process's listener on the alert system: an uncaught fatal error runs
// the termination handlers of ProcessManager, once.
class KVCORE_API SystemAlertListener : public Zub::Core::AlertListener {
 public:
  SystemAlertListener();
  ~SystemAlertListener() override;
  void UncaughtFatalError() override;

 private:
  Zub::Core::Mutex m_mutex;
  static std::atomic<bool> s_noFatalErrorYet;  // process-wide
};
