// The serial line manager: the library's one entry to serial (RS-232) ports.
// Each operation forwards its arguments to the serial-port library KVRS232 and
// returns that library's status unchanged (KVRS232.h defines the statuses,
// selectors, line numbers and time-out meanings). KVRS232 is a separate module,
// libKVRS232, loaded at the first call: from the file KVCORE_SERIAL_MODULE
// names when that is set, otherwise from beside this library, then by the
// system's normal search. When it cannot be loaded, every operation returns
// KVRS232_ERR_MODULE ("module not available").
//
//   void* port = nullptr;
//   if (Rs232ifMan::CommOpen(&port, 2) == KVRS232_OK) {
//     Rs232ifMan::CommInit(port, 115200, 8, KVRS232_NOPARITY, KVRS232_ONESTOPBIT);
//     ...
//     Rs232ifMan::CommClose(&port);
//   }
#pragma once

#include <cstddef>

#include "KVRS232.h"
#include "KvExport.h"

class KVCORE_API Rs232ifMan {
 public:
  static int CommOpen(void** handle, int port);
  static int CommInit(void* handle, int baud, int dataBits, int parity, int stopBits);
  static int CommIo(void* handle, int operation, void* buffer, size_t length, size_t* transferred);
  static int CommSetOutLine(void* handle, int line, int state);
  static int CommGetModemStatus(void* handle, int* status);
  static int CommSetReadTimeout(void* handle, int interval, int multiplier, int constant);
  static int CommSetWriteTimeout(void* handle, int multiplier, int constant);
  static int CommFlush(void* handle);
  static int CommClose(void** handle);

  // The text of a status: the serial library's own, or "module not available"
  // when it cannot be loaded.
  static const char* StatusText(int status);
};

// The manager as an object, for callers that prefer one to static calls.
extern KVCORE_API Rs232ifMan Rs232if;
