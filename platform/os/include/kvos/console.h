// The console: a text terminal for the process's standard streams.
//
// A process that already has usable standard streams (a terminal, a pipe or
// a file) already has its console, so console_allocate fails and the caller
// stays inert, as a console program's request for a second console would.
// Only a process whose standard output is closed or the null device, and
// which has a controlling terminal, gets a console: that terminal.
#pragma once

#include <string>

#include "kvos/export.h"

namespace kvos {

// Allocates the console. On success the device names to reopen standard
// input and standard output/error on are returned.
[[nodiscard]] KVOS_API bool console_allocate(std::string& inputDevice, std::string& outputDevice);

// A handle of the console's window: non-null while an allocated console is
// shown in a terminal whose title can be set.
KVOS_API void* console_window();

// Sets the terminal's title (an escape sequence to the console; control
// characters in the title are dropped). False without an allocated console.
[[nodiscard]] KVOS_API bool console_set_title(const std::string& title);

// Window operations. A terminal window belongs to the terminal program, so
// these do nothing here and answer whether a console window exists.
[[nodiscard]] KVOS_API bool console_show_window(bool show);
[[nodiscard]] KVOS_API bool console_disable_close();

// Console control events.
enum ConsoleEvent {
  kConsoleCtrlC = 0,      // interrupt (SIGINT)
  kConsoleCtrlBreak = 1,  // quit (SIGQUIT)
  kConsoleClose = 2,      // the terminal went away (SIGHUP)
};

// A handler answers true when it has handled the event; false lets the
// event's default action (ending the process) take place. It runs in signal
// context, so it may do only what is safe there.
using ConsoleCtrlHandler = bool (*)(int event);

// Installs (add true) or removes a handler for the three events; the last
// handler installed is asked first. False without an allocated console.
[[nodiscard]] KVOS_API bool console_set_ctrl_handler(ConsoleCtrlHandler handler, bool add);

// Restores the default processing of the interrupt event when the process
// inherited it as ignored. False without an allocated console.
[[nodiscard]] KVOS_API bool console_restore_ctrl_c();

}  // namespace kvos
