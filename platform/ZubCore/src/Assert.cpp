// Failed assertions.
#include "Zub/Core/Assert.h"

namespace Zub {
namespace Core {

AssertionError::AssertionError(const std::string& message) : LogicError(message) {}
AssertionError::~AssertionError() = default;
std::string AssertionError::GetCategory() const { return "Assertion Error"; }

void AssertFailed(const char* expression, const CodeContext& context) {
  AssertionError error;
  Error::RaiseError(error, context, std::string("Assertion failed: ") + (expression ? expression : ""));
}

}  // namespace Core
}  // namespace Zub
