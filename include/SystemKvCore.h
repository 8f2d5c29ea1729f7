// SystemKvCore: every exported header of the library.
#pragma once

#include "ConsoleWindow.h"
#include "DebugManager.h"
#include "KvExport.h"
#include "ProcessManager.h"
#include "TerminationManager.h"
#include "filetime.h"
#include "sysman.h"
#include "timers.h"
