// SystemKvCore: every exported header of the library, and the logging
// service's sink interface (Zub::Core::LogSink, LogManager::AddSink and
// RemoveSink) through which a host captures the library's debug output.
#pragma once

#include "ConsoleWindow.h"
#include "Coord.h"
#include "DebugManager.h"
#include "FILENAME.h"
#include "INSTRFIL.h"
#include "KvExport.h"
#include "LIST.h"
#include "LogMan.h"
#include "MEASURE.h"
#include "PanelState.h"
#include "ProcessManager.h"
#include "Rs232if.h"
#include "StackWriter.h"
#include "TackHand.h"
#include "TerminationManager.h"
#include "debuglog.h"
#include "filetime.h"
#include "heap.h"
#include "sysman.h"
#include "timers.h"

#include "Zub/Core/LogManager.h"
