// The alert system: listeners are told when errors are raised or handled,
// when warnings are raised, and when a fatal error was not caught.
#pragma once

#include <mutex>
#include <vector>

#include "Zub/Core/Export.h"

namespace Zub {
namespace Core {

class AlertInfo;
class Error;
class Warning;
class NotificationListener;

// A source of notifications that keeps its listeners.
class ZUB_API NotificationSupport {
 public:
  NotificationSupport();
  NotificationSupport(const NotificationSupport&) = delete;
  NotificationSupport& operator=(const NotificationSupport&) = delete;
  // Tells every remaining listener that this source is gone.
  virtual ~NotificationSupport();

 protected:
  void AttachListener(NotificationListener* listener);
  void DetachListener(NotificationListener* listener);
  // A snapshot of the listeners, so that notifications may add or remove some.
  std::vector<NotificationListener*> Listeners() const;

 private:
  friend class NotificationListener;
  void ForgetListener(NotificationListener* listener);

  mutable std::recursive_mutex m_mutex;
  std::vector<NotificationListener*> m_listeners;
};

// Something that listens to notification sources; it leaves every source
// it still listens to when it is destroyed.
class ZUB_API NotificationListener {
 public:
  NotificationListener();
  NotificationListener(const NotificationListener&) = delete;
  NotificationListener& operator=(const NotificationListener&) = delete;

  virtual void AddNotificationSource(NotificationSupport& source);
  virtual void RemoveNotificationSource(NotificationSupport& source);
  virtual ~NotificationListener();
  virtual void NotificationSourceIsRemoved(const NotificationSupport& source);

 private:
  std::mutex m_sourcesMutex;
  std::vector<NotificationSupport*> m_sources;
};

// A listener to alerts. Every notification does nothing by default.
class ZUB_API AlertListener : public NotificationListener {
 public:
  AlertListener();
  ~AlertListener() override;

  virtual bool IsInterestedIn(AlertInfo& info) const;
  virtual void ErrorRaised(Error& error);
  virtual void ErrorHandled(Error& error);
  virtual void UncaughtFatalError();
  virtual void WarningRaised(Warning& warning);
};

// The process's alert manager.
class ZUB_API AlertManager : public NotificationSupport {
 public:
  // The one instance; it lives until the process ends.
  static AlertManager* Instance();

  void AddAlertListener(AlertListener* listener);
  void RemoveAlertListener(AlertListener* listener);

  // Notifications, delivered to the listeners in the order they were added.
  void NotifyErrorRaised(Error& error);
  void NotifyErrorHandled(Error& error);
  void NotifyUncaughtFatalError();
  void NotifyWarningRaised(Warning& warning);

 private:
  AlertManager();
  ~AlertManager() override;
};

}  // namespace Core
}  // namespace Zub
