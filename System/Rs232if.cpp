// The serial line manager: forwards to the serial-port module, loaded once at
// the first call through the operating-system boundary.
#include "Rs232if.h"

#include <string>
#include <vector>

#include "DebugManager.h"
#include "kvinit.h"
#include "kvos/env.h"
#include "kvos/module.h"

namespace {

// The module's functions; all set, or none when it is not available.
struct SerialModule {
  int (*open)(void**, int) = nullptr;
  int (*init)(void*, int, int, int, int) = nullptr;
  int (*io)(void*, int, void*, size_t, size_t*) = nullptr;
  int (*setOutLine)(void*, int, int) = nullptr;
  int (*getModemStatus)(void*, int*) = nullptr;
  int (*setReadTimeout)(void*, int, int, int) = nullptr;
  int (*setWriteTimeout)(void*, int, int) = nullptr;
  int (*flush)(void*) = nullptr;
  int (*close)(void**) = nullptr;
  const char* (*statusText)(int) = nullptr;
  bool loaded = false;
};

template <typename Function>
bool bind(void* module, const char* name, Function& function) {
  function = reinterpret_cast<Function>(kvos::module_symbol(module, name));
  return function != nullptr;
}

// Where this library itself was loaded from.
const char kAnchor = 0;

SerialModule load_module() {
  SerialModule m;
  std::string name;
  if (!kvos::env_get("KVCORE_SERIAL_MODULE", &name) || name.empty()) name = kvos::module_file_name("KVRS232");
  std::string reason;
  // Kept for the life of the process: ports may be open until its very end.
  void* module = kvos::module_load(name, {kvos::module_directory(&kAnchor)}, &reason);
  if (module == nullptr) {
    Debug(dbgCSL, "CSL: serial module %s not available: %s\n", name.c_str(), reason.c_str());
    return m;
  }
  const bool complete =
      bind(module, "KvRS232CommOpen", m.open) && bind(module, "KvRS232CommInit", m.init) &&
      bind(module, "KvRS232CommIo", m.io) && bind(module, "KvRS232CommSetOutLine", m.setOutLine) &&
      bind(module, "KvRS232CommGetModemStatus", m.getModemStatus) &&
      bind(module, "KvRS232CommSetReadTimeout", m.setReadTimeout) &&
      bind(module, "KvRS232CommSetWriteTimeout", m.setWriteTimeout) && bind(module, "KvRS232CommFlush", m.flush) &&
      bind(module, "KvRS232CommClose", m.close) && bind(module, "KvRS232StatusText", m.statusText);
  if (!complete) {
    Debug(dbgCSL, "CSL: serial module %s not available: it lacks a KvRS232 function\n", name.c_str());
    kvos::module_unload(module);
    return SerialModule();
  }
  m.loaded = true;
  return m;
}

const SerialModule& serial_module() {
  static const SerialModule module = load_module();
  return module;
}

}  // namespace

int Rs232ifMan::CommOpen(void** handle, int port) {
  const SerialModule& m = serial_module();
  return m.loaded ? m.open(handle, port) : KVRS232_ERR_MODULE;
}

int Rs232ifMan::CommInit(void* handle, int baud, int dataBits, int parity, int stopBits) {
  const SerialModule& m = serial_module();
  return m.loaded ? m.init(handle, baud, dataBits, parity, stopBits) : KVRS232_ERR_MODULE;
}

int Rs232ifMan::CommIo(void* handle, int operation, void* buffer, size_t length, size_t* transferred) {
  const SerialModule& m = serial_module();
  return m.loaded ? m.io(handle, operation, buffer, length, transferred) : KVRS232_ERR_MODULE;
}

int Rs232ifMan::CommSetOutLine(void* handle, int line, int state) {
  const SerialModule& m = serial_module();
  return m.loaded ? m.setOutLine(handle, line, state) : KVRS232_ERR_MODULE;
}

int Rs232ifMan::CommGetModemStatus(void* handle, int* status) {
  const SerialModule& m = serial_module();
  return m.loaded ? m.getModemStatus(handle, status) : KVRS232_ERR_MODULE;
}

int Rs232ifMan::CommSetReadTimeout(void* handle, int interval, int multiplier, int constant) {
  const SerialModule& m = serial_module();
  return m.loaded ? m.setReadTimeout(handle, interval, multiplier, constant) : KVRS232_ERR_MODULE;
}

int Rs232ifMan::CommSetWriteTimeout(void* handle, int multiplier, int constant) {
  const SerialModule& m = serial_module();
  return m.loaded ? m.setWriteTimeout(handle, multiplier, constant) : KVRS232_ERR_MODULE;
}

int Rs232ifMan::CommFlush(void* handle) {
  const SerialModule& m = serial_module();
  return m.loaded ? m.flush(handle) : KVRS232_ERR_MODULE;
}

int Rs232ifMan::CommClose(void** handle) {
  const SerialModule& m = serial_module();
  return m.loaded ? m.close(handle) : KVRS232_ERR_MODULE;
}

const char* Rs232ifMan::StatusText(int status) {
  const SerialModule& m = serial_module();
  if (m.loaded) return m.statusText(status);
  if (status == KVRS232_OK) return "success";
  return status == KVRS232_ERR_MODULE ? "module not available" : "unknown status";
}

Rs232ifMan Rs232if KV_INIT(KV_PRIO_SERIAL);
