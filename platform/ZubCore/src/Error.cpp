// Errors, warnings and code contexts.
#include "Zub/Core/Error.h"

#include <cstdlib>

#include "Zub/Core/AlertManager.h"

namespace Zub {
namespace Core {

CodeContext::CodeContext() : m_line(0) {}

CodeContext::CodeContext(const std::string& file, int line, const std::string& function,
                         const std::string& signature, const std::string& buildDate)
    : m_file(file), m_line(line), m_function(function), m_signature(signature), m_buildDate(buildDate) {}

std::string CodeContext::ToString() const {
  return m_file + "(" + std::to_string(m_line) + "): " + m_function;
}

AlertInfo::~AlertInfo() = default;

Error::Error(const std::string& message) : m_message(message) {}
Error::~Error() = default;

const char* Error::what() const noexcept { return m_message.c_str(); }

std::string Error::GetCategory() const { return "Error"; }

void Error::RaiseError(Error& error, const CodeContext& context, const std::string& message, int) {
  error.SetCodeContext(context);
  error.SetMessage(message);
  if (AlertManager* manager = AlertManager::Instance()) manager->NotifyErrorRaised(error);
  error.Throw();
  std::abort();  // Throw never returns; a concrete error that did would be a fault
}

LogicError::LogicError(const std::string& message) : Error(message) {}
LogicError::~LogicError() = default;
std::string LogicError::GetCategory() const { return "Logic Error"; }

Warning::Warning(const std::string& message) : m_message(message) {}
Warning::~Warning() = default;

void Warning::RaiseWarning(Warning& warning, const CodeContext& context, const std::string& message) {
  warning.m_context = context;
  warning.m_message = message;
  if (AlertManager* manager = AlertManager::Instance()) manager->NotifyWarningRaised(warning);
}

}  // namespace Core
}  // namespace Zub
