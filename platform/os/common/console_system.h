// The system side of the console. Internal to the boundary.
#pragma once

#include <string>

namespace kvos::console_system {

// Gets the process a console when it has none; the devices that standard
// input and output are to be reopened on.
bool allocate(std::string& inputDevice, std::string& outputDevice);

// The console's window, null when it has none (only asked once allocated).
void* window();

// Sets the title (control characters already dropped).
bool set_title(const std::string& title);

bool show_window(bool show);
bool disable_close();

// Routes the console's interrupt, break and close events to
// dispatch_console_event (once; later calls do nothing).
void route_events();

// Restores the default processing of the interrupt event when it is ignored.
bool restore_ctrl_c();

}  // namespace kvos::console_system

namespace kvos {

// Asks the installed handlers, newest first, whether they handle the event.
// Safe in a signal handler.
bool dispatch_console_event(int event);

}  // namespace kvos
