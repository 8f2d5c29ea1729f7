// Construction order of the library's global objects. Every global with a
// constructor names one of these priorities (init_priority), so the order is
// defined by dependency and not by link order. Lower numbers are built first
// and destroyed last.
#pragma once

#define KV_PRIO_DEBUG 110     // the library-wide debug output mutex
#define KV_PRIO_HEAP 120      // heapman_mgr and the heap lock
#define KV_PRIO_SYSMAN 130    // SysManager's times and strings, SysMan
#define KV_PRIO_PROCESS 140   // the termination manager, processman
#define KV_PRIO_CWD 150       // cwd
#define KV_PRIO_UNITS 160     // the Unit_* constants
#define KV_PRIO_INSTR 170     // the instrument-file handle registry
#define KV_PRIO_PANEL 180     // PanelStateSaveDefault
#define KV_PRIO_LOG 190       // the log manager's three log files
#define KV_PRIO_STACK 200     // the stack dump writer's settings
#define KV_PRIO_SERIAL 210    // Rs232if
#define KV_PRIO_ATTACH 60000  // the process-attach hook, after every global above

#define KV_INIT(priority) __attribute__((init_priority(priority)))
