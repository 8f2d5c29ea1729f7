// The error family: errors carry a message, a code context and a severity,
// notify the alert listeners when raised, and can copy and throw themselves
// as their concrete type.
#pragma once

#include <exception>
#include <string>

#include <boost/shared_ptr.hpp>

#include "Zub/Core/AlertInfo.h"
#include "Zub/Core/CodeContext.h"
#include "Zub/Core/Export.h"

namespace Zub {
namespace Core {

class ZUB_API Error : public std::exception, public AlertInfo {
 public:
  explicit Error(const std::string& message = std::string());
  Error(const Error&) = default;
  Error& operator=(const Error&) = default;
  ~Error() override;

  // The message given when the error was raised.
  const char* what() const noexcept override;
  const std::string& GetMessage() const noexcept { return m_message; }
  void SetMessage(const std::string& message) { m_message = message; }

  const CodeContext& GetCodeContext() const noexcept { return m_context; }
  void SetCodeContext(const CodeContext& context) { m_context = context; }

  // The kind of error as text ("CSL Heap Error", ...).
  virtual std::string GetCategory() const;

  // A heap copy of the concrete error, held by a shared pointer.
  virtual boost::shared_ptr<Error> Copy() const = 0;
  // Throws a copy of the concrete error.
  [[noreturn]] virtual void Throw() const = 0;

  // Records the context and message in error, notifies the alert listeners
  // (ErrorRaised), then throws a copy of the concrete error. flags is reserved.
  [[noreturn]] static void RaiseError(Error& error, const CodeContext& context,
                                      const std::string& message, int flags = 0);

 private:
  std::string m_message;
  CodeContext m_context;
};

// Implements Copy and Throw for a concrete error class.
#define ZUB_ERROR_COPY_OPERATIONS(Type)                                  \
  boost::shared_ptr<::Zub::Core::Error> Copy() const override {          \
    return boost::shared_ptr<::Zub::Core::Error>(new Type(*this));       \
  }                                                                      \
  [[noreturn]] void Throw() const override { throw Type(*this); }

// An error in the program's logic: a broken invariant or a misuse.
class ZUB_API LogicError : public Error {
 public:
  explicit LogicError(const std::string& message = std::string());
  ~LogicError() override;
  std::string GetCategory() const override;
  ZUB_ERROR_COPY_OPERATIONS(LogicError)
};

// A condition worth reporting that does not stop the operation.
class ZUB_API Warning : public AlertInfo {
 public:
  explicit Warning(const std::string& message = std::string());
  ~Warning() override;

  const std::string& GetMessage() const noexcept { return m_message; }
  const CodeContext& GetCodeContext() const noexcept { return m_context; }

  // Records context and message and notifies the alert listeners (WarningRaised).
  static void RaiseWarning(Warning& warning, const CodeContext& context, const std::string& message);

 private:
  std::string m_message;
  CodeContext m_context;
};

}  // namespace Core
}  // namespace Zub
