// Host paths.
#include "Zub/Core/PathName.h"

#include <filesystem>
#include <system_error>

namespace Zub {
namespace Core {

namespace fs = std::filesystem;

PathName::PathName(const std::string& path) : m_path(path) {}

bool PathName::Exists() const {
  std::error_code ec;
  return !m_path.empty() && fs::exists(fs::path(m_path), ec);
}

bool PathName::IsDirectory() const {
  std::error_code ec;
  return !m_path.empty() && fs::is_directory(fs::path(m_path), ec);
}

bool PathName::CreateDirectory() const {
  std::error_code ec;
  return !m_path.empty() && fs::create_directory(fs::path(m_path), ec) && !ec;
}

std::string PathName::GetBase() const {
  fs::path p(m_path);
  if (p.has_filename()) return p.filename().string();
  return p.parent_path().filename().string();
}

PathName PathName::GetBranch() const {
  fs::path p(m_path);
  if (!p.has_filename()) p = p.parent_path();
  return PathName(p.parent_path().string());
}

PathName PathName::operator/(const std::string& component) const {
  return PathName((fs::path(m_path) / component).string());
}

}  // namespace Core
}  // namespace Zub
