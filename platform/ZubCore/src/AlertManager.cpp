// Notification sources and listeners, and the process's alert manager.
#include "Zub/Core/AlertManager.h"

#include <algorithm>

#include "Zub/Core/Error.h"

namespace Zub {
namespace Core {

NotificationSupport::NotificationSupport() = default;

NotificationSupport::~NotificationSupport() {
  for (NotificationListener* listener : Listeners()) listener->NotificationSourceIsRemoved(*this);
}

void NotificationSupport::AttachListener(NotificationListener* listener) {
  std::lock_guard<std::recursive_mutex> lock(m_mutex);
  if (std::find(m_listeners.begin(), m_listeners.end(), listener) == m_listeners.end())
    m_listeners.push_back(listener);
}

void NotificationSupport::DetachListener(NotificationListener* listener) { ForgetListener(listener); }

void NotificationSupport::ForgetListener(NotificationListener* listener) {
  std::lock_guard<std::recursive_mutex> lock(m_mutex);
  m_listeners.erase(std::remove(m_listeners.begin(), m_listeners.end(), listener), m_listeners.end());
}

std::vector<NotificationListener*> NotificationSupport::Listeners() const {
  std::lock_guard<std::recursive_mutex> lock(m_mutex);
  return m_listeners;
}

NotificationListener::NotificationListener() = default;

void NotificationListener::AddNotificationSource(NotificationSupport& source) {
  std::lock_guard<std::mutex> lock(m_sourcesMutex);
  if (std::find(m_sources.begin(), m_sources.end(), &source) == m_sources.end())
    m_sources.push_back(&source);
}

void NotificationListener::RemoveNotificationSource(NotificationSupport& source) {
  std::lock_guard<std::mutex> lock(m_sourcesMutex);
  m_sources.erase(std::remove(m_sources.begin(), m_sources.end(), &source), m_sources.end());
}

NotificationListener::~NotificationListener() {
  std::vector<NotificationSupport*> sources;
  {
    std::lock_guard<std::mutex> lock(m_sourcesMutex);
    sources.swap(m_sources);
  }
  for (NotificationSupport* source : sources) source->ForgetListener(this);
}

void NotificationListener::NotificationSourceIsRemoved(const NotificationSupport& source) {
  std::lock_guard<std::mutex> lock(m_sourcesMutex);
  m_sources.erase(std::remove(m_sources.begin(), m_sources.end(), &source), m_sources.end());
}

AlertListener::AlertListener() = default;
AlertListener::~AlertListener() = default;
bool AlertListener::IsInterestedIn(AlertInfo&) const { return true; }
void AlertListener::ErrorRaised(Error&) {}
void AlertListener::ErrorHandled(Error&) {}
void AlertListener::UncaughtFatalError() {}
void AlertListener::WarningRaised(Warning&) {}

AlertManager::AlertManager() = default;
AlertManager::~AlertManager() = default;

AlertManager* AlertManager::Instance() {
  // Never destroyed: alerts can be raised during static destruction.
  static AlertManager* const instance = new AlertManager();
  return instance;
}

void AlertManager::AddAlertListener(AlertListener* listener) {
  if (listener == nullptr) return;
  AttachListener(listener);
  listener->AddNotificationSource(*this);
}

void AlertManager::RemoveAlertListener(AlertListener* listener) {
  if (listener == nullptr) return;
  DetachListener(listener);
  listener->RemoveNotificationSource(*this);
}

namespace {

template <typename Notify>
void for_each_alert_listener(const std::vector<NotificationListener*>& listeners, Notify notify) {
  for (NotificationListener* l : listeners)
    if (auto* alertListener = dynamic_cast<AlertListener*>(l)) notify(*alertListener);
}

}  // namespace

void AlertManager::NotifyErrorRaised(Error& error) {
  for_each_alert_listener(Listeners(), [&](AlertListener& l) {
    if (l.IsInterestedIn(error)) l.ErrorRaised(error);
  });
}

void AlertManager::NotifyErrorHandled(Error& error) {
  for_each_alert_listener(Listeners(), [&](AlertListener& l) {
    if (l.IsInterestedIn(error)) l.ErrorHandled(error);
  });
}

void AlertManager::NotifyUncaughtFatalError() {
  for_each_alert_listener(Listeners(), [](AlertListener& l) { l.UncaughtFatalError(); });
}

void AlertManager::NotifyWarningRaised(Warning& warning) {
  for_each_alert_listener(Listeners(), [&](AlertListener& l) {
    if (l.IsInterestedIn(warning)) l.WarningRaised(warning);
  });
}

}  // namespace Core
}  // namespace Zub
