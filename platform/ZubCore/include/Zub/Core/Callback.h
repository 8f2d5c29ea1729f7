// A callable object handed to services that call back later (timers).
#pragma once

#include <functional>

#include "Zub/Core/Export.h"

namespace Zub {
namespace Core {

class ZUB_API Callback {
 public:
  virtual ~Callback();
  virtual void Invoke() = 0;
};

// A callback that runs a function object.
class ZUB_API FunctionCallback : public Callback {
 public:
  explicit FunctionCallback(std::function<void()> function);
  ~FunctionCallback() override;
  void Invoke() override;

 private:
  std::function<void()> m_function;
};

}  // namespace Core
}  // namespace Zub
