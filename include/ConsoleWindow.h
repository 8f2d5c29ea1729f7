// A text console on demand for programs without one, and printf-style
// messages to it.
#pragma once

#include <concepts>
#include <cstdarg>
#include <string>
#include <type_traits>

#include "KvExport.h"

namespace CSL {

// Static operations only. A program that already has its standard streams
// (a terminal, a pipe or a file) already has its console: InitializeConsole
// then leaves the class inert and every other operation does nothing.
class KVCORE_API ConsoleWindow {
 public:
  // Once per process: allocates the console and reopens standard input,
  // output and error on it.
  static void InitializeConsole();
  static bool IsInitialized();

  static void Show();
  static void Hide();
  static void SetTitle(const std::string& title);
  // Keeps the user from closing the console window.
  static void DisableClose();

  // Formats the arguments printf-style and writes the text to standard
  // output, with no line end added. A "%" that cannot start a conversion
  // ("100% done") prints as itself. Texts are cut at 16383 characters.
  static void DisplayMessage(const char* format, ...);
  template <typename Text, typename... Args>
    requires std::same_as<std::remove_cvref_t<Text>, std::string>
  static void DisplayMessage(const Text& format, Args... args) {
    DisplayMessage(format.c_str(), args...);
  }

  // The formatting DisplayMessage uses, for callers that want the text.
  static std::string EscapeFormat(const std::string& format);
  static std::string FormatText(const char* format, va_list args);

 private:
  ConsoleWindow() = delete;

  static bool m_initialized;
  static void* hwndConsole;
};

}  // namespace CSL
