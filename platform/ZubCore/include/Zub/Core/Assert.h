// Failed assertions: raised as AssertionError through the error service.
#pragma once

#include "Zub/Core/CodeContext.h"
#include "Zub/Core/Error.h"
#include "Zub/Core/Export.h"

namespace Zub {
namespace Core {

class ZUB_API AssertionError : public LogicError {
 public:
  explicit AssertionError(const std::string& message = std::string());
  ~AssertionError() override;
  std::string GetCategory() const override;
  ZUB_ERROR_COPY_OPERATIONS(AssertionError)
};

// Raises an AssertionError with the message "Assertion failed: <expression>".
[[noreturn]] ZUB_API void AssertFailed(const char* expression, const CodeContext& context);

}  // namespace Core
}  // namespace Zub

#define ZUB_ASSERT(expression) \
  ((expression) ? static_cast<void>(0) : ::Zub::Core::AssertFailed(#expression, ZUB_CODE_CONTEXT))
