// The system side of the console on Windows: AllocConsole, the console
// window, its title and the console control handler.
#include <windows.h>

#include <mutex>

#include "../common/console_system.h"

namespace kvos::console_system {
namespace {

std::once_flag g_routed;

BOOL WINAPI on_console_event(DWORD event) {
  return event <= CTRL_CLOSE_EVENT && dispatch_console_event(static_cast<int>(event)) ? TRUE : FALSE;
}

}  // namespace

// A console program already has its console, so AllocConsole fails for it;
// a program without one gets a new console window.
bool allocate(std::string& inputDevice, std::string& outputDevice) {
  if (!AllocConsole()) return false;
  inputDevice = "CONIN$";
  outputDevice = "CONOUT$";
  return true;
}

void* window() { return GetConsoleWindow(); }

bool set_title(const std::string& title) { return SetConsoleTitleA(title.c_str()) != 0; }

bool show_window(bool show) {
  ShowWindow(GetConsoleWindow(), show ? SW_SHOW : SW_HIDE);
  return true;
}

bool disable_close() {
  HWND hwnd = GetConsoleWindow();
  HMENU menu = GetSystemMenu(hwnd, FALSE);
  if (menu == nullptr || !RemoveMenu(menu, SC_CLOSE, MF_BYCOMMAND)) return false;
  DrawMenuBar(hwnd);
  return true;
}

void route_events() {
  std::call_once(g_routed, [] { SetConsoleCtrlHandler(on_console_event, TRUE); });
}

bool restore_ctrl_c() { return SetConsoleCtrlHandler(nullptr, FALSE) != 0; }

}  // namespace kvos::console_system
