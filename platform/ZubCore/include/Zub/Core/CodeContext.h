// Where an error was raised: source name, line, function, signature and the
// build date text of the module that raised it.
#pragma once

#include <string>

#include "Zub/Core/Export.h"

namespace Zub {
namespace Core {

class ZUB_API CodeContext {
 public:
  CodeContext();
  CodeContext(const std::string& file, int line, const std::string& function,
              const std::string& signature, const std::string& buildDate);

  const std::string& GetFile() const noexcept { return m_file; }
  int GetLine() const noexcept { return m_line; }
  const std::string& GetFunction() const noexcept { return m_function; }
  const std::string& GetSignature() const noexcept { return m_signature; }
  const std::string& GetBuildDate() const noexcept { return m_buildDate; }

  // "file(line): function" for messages.
  std::string ToString() const;

 private:
  std::string m_file;
  int m_line;
  std::string m_function;
  std::string m_signature;
  std::string m_buildDate;
};

}  // namespace Core
}  // namespace Zub

// The code context of the place where the macro is written.
#define ZUB_CODE_CONTEXT \
  ::Zub::Core::CodeContext(__FILE__, __LINE__, __func__, __PRETTY_FUNCTION__, __DATE__ " " __TIME__)
