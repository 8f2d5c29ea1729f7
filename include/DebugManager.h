// Categorised debug output. Each category is a logger named "Korvalis." plus
// the category's name in the logging service; switching a category on sets the
// debug bit (16) in that logger's severity filter.
#pragma once

#include <string>

#include "KvExport.h"

enum DebugType {
  dbgNever = 0,  // never written
  dbgA,          // default category of the untyped Debug()
  dbg6811,
  dbgAirtable,
  dbgAutoProg,
  dbgAutoRt,
  dbgAutoTune,
  dbgAutoStatus,
  dbgBrowse,
  dbgCIAO,
  dbgCOM,
  dbgCSL,  // the library's own output
  dbgDataSource,
  dbgDLL,
  dbgDSP,
  dbgEFEM,
  dbgEngage,
  dbgFacilityMonitor,
  dbgFan,
  dbgFeedforward,
  dbgFileInt,
  dbgFileMan,
  dbgFR,
  dbgForce,
  dbgGar,
  dbgGarTarget,
  dbgGem,
  dbgGemDriver,
  dbgGui,
  dbgHeapDump,
  dbgHelp,
  dbgIlluminator,
  dbgLithography,
  dbgMotion,
  dbgMouse,
  dbgPelmar,
  dbgPC,
  dbgProfiler,
  dbgQControl,
  dbgSayError,
  dbgSerial,
  dbgSMIF,
  dbgStage,
  dbgTCPIP,
  dbgThruput_dbg,
  dbgTimer,
  dbgTipQual,
  dbgTipX,
  dbgTipXMonitor,
  dbgUniversalCoordinate,
  dbgVision,
  dbgZoom,  // last output category (51)
  dbgTimeStamp,  // 52..56 are switches, never output categories
  dbgVerbose,
  dbgLogAllChecked,
  dbgLogDLL,
  dbgLogDebugAll,
  DebugTypeCount  // 57
};

namespace CSL {

class KVCORE_API DebugManager {
 public:
  DebugManager& operator=(const DebugManager&) { return *this; }

  // Sets or clears the category's debug bit, keeping the other filter bits.
  static void DebugFlagSet(DebugType type, bool on);
  static bool DebugFlagTest(DebugType type);
  // The category's name; empty for an unknown type.
  static std::string DebugFlagString(DebugType type);

  // Writes one line of an output category (1..51) through its logger, under
  // the library-wide output mutex. args points to the caller's va_list (see
  // Zub::Core::Logger::WriteLogVarArgs). Always -1.
  static int DebugOutput(DebugType type, const std::string& format, const void* args);

  // Whether output to the category would be written now; lets callers skip
  // formatting for categories that are off.
  static bool IsOutputOn(DebugType type);
};

}  // namespace CSL

// printf-style output in category "A"; always -1.
KVCORE_API int Debug(const char* format, ...) KVCORE_PRINTF(1, 2);
// printf-style output in a category; always -1.
KVCORE_API int Debug(DebugType type, const char* format, ...) KVCORE_PRINTF(2, 3);
// As above, written only when "Verbose" is on and condition is non-zero.
KVCORE_API int Debug(DebugType type, int condition, const char* format, ...)
    KVCORE_PRINTF(3, 4);
