// Callbacks.
#include "Zub/Core/Callback.h"

#include <utility>

namespace Zub {
namespace Core {

Callback::~Callback() = default;

FunctionCallback::FunctionCallback(std::function<void()> function) : m_function(std::move(function)) {}
FunctionCallback::~FunctionCallback() = default;

void FunctionCallback::Invoke() {
  if (m_function) m_function();
}

}  // namespace Core
}  // namespace Zub
