// Debugger presence, breaking into an attached debugger, and the debugger
// output stream (the equivalent of OutputDebugString).
#pragma once

#include "kvos/export.h"

namespace kvos {

// True while a debugger (any tracer) is attached to this process.
[[nodiscard]] KVOS_API bool debugger_present();

// Stops in the attached debugger; does nothing when no debugger is attached.
KVOS_API void debugger_break();

// A host-installed receiver of the debugger output stream.
using DebuggerWriter = void (*)(const char* text);

// Writes text to the debugger output stream. With a writer installed the text
// goes to it; otherwise to standard error while a debugger is attached, and it
// is dropped when none is (as on a system with no listener). A null text is ignored.
KVOS_API void debugger_output(const char* text);

// Installs (or, with null, removes) the host's writer; returns the previous one.
KVOS_API DebuggerWriter set_debugger_writer(DebuggerWriter writer);

}  // namespace kvos
