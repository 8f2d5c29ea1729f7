// The debug console.
#include "ConsoleWindow.h"

#include <cstdio>
#include <cstring>
#include <iostream>

#include "kvos/console.h"
#include "kvtext/text.h"

namespace CSL {

bool ConsoleWindow::m_initialized = false;
void* ConsoleWindow::hwndConsole = nullptr;

namespace {

// Characters that may follow "%" in a conversion: flags, width, precision and
// conversion letters.
constexpr const char* kConversionCharacters = "cCdiouxXeEfFgGaAnpPsS.+-*%";

// The console's window: the handle the window operations act on.
void* find_console_window() { return kvos::console_window(); }

bool active() { return ConsoleWindow::IsInitialized() && kvos::console_window() != nullptr; }

}  // namespace

void ConsoleWindow::InitializeConsole() {
  if (m_initialized) return;
  try {
    std::string inputDevice, outputDevice;
    if (!kvos::console_allocate(inputDevice, outputDevice)) return;
    hwndConsole = find_console_window();
    std::freopen(inputDevice.c_str(), "r", stdin);
    std::freopen(outputDevice.c_str(), "w", stdout);
    std::freopen(outputDevice.c_str(), "w", stderr);
    std::ios_base::sync_with_stdio(true);
    m_initialized = true;
  } catch (...) {
    std::cout << "Exception: Error in ConsoleWindow::InitializeConsole()" << std::endl;
    throw;
  }
}

bool ConsoleWindow::IsInitialized() { return m_initialized && hwndConsole != nullptr; }

// The window calls below have no result to give: a terminal that does not
// offer the control simply keeps its state.
void ConsoleWindow::Show() {
  if (active()) (void)kvos::console_show_window(true);
}

void ConsoleWindow::Hide() {
  if (active()) (void)kvos::console_show_window(false);
}

void ConsoleWindow::SetTitle(const std::string& title) {
  if (active()) (void)kvos::console_set_title(title);
}

void ConsoleWindow::DisableClose() {
  if (active()) (void)kvos::console_disable_close();
}

std::string ConsoleWindow::EscapeFormat(const std::string& format) {
  std::string escaped;
  escaped.reserve(format.size() + 8);
  for (size_t i = 0; i < format.size(); ++i) {
    const char c = format[i];
    escaped += c;
    if (c != '%' || i + 1 == format.size()) continue;
    const char next = format[i + 1];
    const bool digit = next >= '0' && next <= '9';
    if (next == '%') {
      escaped += next;  // an escaped "%" stays as it is
      ++i;
    } else if (!digit && (next == '\0' || std::strchr(kConversionCharacters, next) == nullptr)) {
      escaped += '%';
    }
  }
  return escaped;
}

std::string ConsoleWindow::FormatText(const char* format, va_list args) {
  if (format == nullptr) return std::string();
  const std::string escaped = EscapeFormat(format);
  // At most 16383 characters (the largest buffer is 16384), up to a first NUL.
  return kvtext::format_string(escaped.c_str(), args, 16383).c_str();
}

void ConsoleWindow::DisplayMessage(const char* format, ...) {
  if (!active() || format == nullptr) return;
  std::string text;
  va_list args;
  va_start(args, format);
  try {
    text = FormatText(format, args);
  } catch (...) {
    std::cerr << "Failed to format string due to exception!" << std::endl;
  }
  va_end(args);
  std::cout << text << std::flush;
}

}  // namespace CSL
