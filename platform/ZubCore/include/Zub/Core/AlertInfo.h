// The part every alert (error or warning) shares: its severity.
#pragma once

#include "Zub/Core/Export.h"

namespace Zub {
namespace Core {

class ZUB_API AlertInfo {
 public:
  // Severities, from the most to the least serious.
  enum Severity { Fatal = 0, Critical = 1, Major = 2, Minor = 3, Informational = 4 };

  AlertInfo() = default;
  AlertInfo(const AlertInfo&) = default;
  AlertInfo& operator=(const AlertInfo&) = default;
  virtual ~AlertInfo();

  int GetSeverity() const noexcept { return m_severity; }
  void SetSeverity(int severity) noexcept { m_severity = severity; }

 private:
  int m_severity = Major;
};

}  // namespace Core
}  // namespace Zub
