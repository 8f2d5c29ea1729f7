// The text of a Windows system error code. Internal to the Windows backend.
#pragma once

#include <windows.h>

#include <string>

namespace kvos::win32 {

// "Access is denied", without the trailing period and line end.
inline std::string error_text(DWORD code) {
  char* text = nullptr;
  const DWORD n = FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                 nullptr, code, 0, reinterpret_cast<char*>(&text), 0, nullptr);
  std::string out = n != 0 && text != nullptr ? std::string(text, n) : "system error " + std::to_string(code);
  if (text != nullptr) LocalFree(text);
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r' || out.back() == ' ' || out.back() == '.'))
    out.pop_back();
  return out;
}

}  // namespace kvos::win32
