// A host file-system path with the few queries the library needs.
#pragma once

#include <string>

#include "Zub/Core/Export.h"

namespace Zub {
namespace Core {

class ZUB_API PathName {
 public:
  PathName() = default;
  explicit PathName(const std::string& path);

  const std::string& ToString() const noexcept { return m_path; }
  bool Empty() const noexcept { return m_path.empty(); }

  bool Exists() const;
  bool IsDirectory() const;
  // Creates this directory (its parent must exist); true on success.
  bool CreateDirectory() const;

  // The last component ("b.txt" of "/a/b.txt") and everything before it ("/a").
  std::string GetBase() const;
  PathName GetBranch() const;

  // This path with another component appended.
  PathName operator/(const std::string& component) const;

 private:
  std::string m_path;
};

}  // namespace Core
}  // namespace Zub
