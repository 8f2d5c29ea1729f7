// The nine port functions on Windows. A COM port is opened with CreateFileA
// ("\\.\COMn", exclusive, overlapped), set up with a DCB and COMMTIMEOUTS,
// whose time-outs are the ones the interface describes, and moved through
// with ReadFile and WriteFile; a wait also ends when the handle is closed.
// Every call holds a use of its port; closing takes the port out of the table,
// wakes the calls that wait and releases the device once the last use ended.
#include <windows.h>

#include <algorithm>
#include <memory>

#include "KVRS232.h"
#include "kvrs232_win32.h"

namespace kvrs232 {
namespace {

// The status of a failed call on an open COM port.
int device_error(DWORD error, std::atomic<bool>& hungUp) {
  switch (error) {
    case ERROR_DEVICE_REMOVED:
    case ERROR_BAD_COMMAND:
    case ERROR_NOT_READY:
    case ERROR_GEN_FAILURE:
    case ERROR_ACCESS_DENIED:
    case ERROR_BROKEN_PIPE:
      hungUp = true;
      return KVRS232_ERR_HANGUP;
    case ERROR_NOT_SUPPORTED:
    case ERROR_INVALID_FUNCTION: return KVRS232_ERR_NOT_SUPPORTED;
    default: return KVRS232_ERR_IO;
  }
}

int open_error(DWORD error) {
  switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_BAD_PATHNAME:
    case ERROR_INVALID_NAME:
    case ERROR_BAD_NETPATH: return KVRS232_ERR_NO_DEVICE;
    // A COM port that another handle holds answers "access denied".
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION: return KVRS232_ERR_BUSY;
    case ERROR_NOT_ENOUGH_MEMORY:
    case ERROR_OUTOFMEMORY:
    case ERROR_TOO_MANY_OPEN_FILES:
    case ERROR_NO_SYSTEM_RESOURCES: return KVRS232_ERR_RESOURCES;
    default: return KVRS232_ERR_OPEN;
  }
}

class ComLine : public Line {
 public:
  ~ComLine() override {
    if (handle_ != INVALID_HANDLE_VALUE) CloseHandle(handle_);
    if (closing_ != nullptr) CloseHandle(closing_);
  }

  // Opens the device and puts it into raw mode; a status.
  int open(const std::string& device) {
    closing_ = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (closing_ == nullptr) return KVRS232_ERR_RESOURCES;
    handle_ = CreateFileA(device.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                          FILE_FLAG_OVERLAPPED, nullptr);
    if (handle_ == INVALID_HANDLE_VALUE) return open_error(GetLastError());
    DCB dcb{};
    dcb.DCBlength = sizeof dcb;
    if (!GetCommState(handle_, &dcb)) return KVRS232_ERR_NOT_SERIAL;
    // Bytes pass unchanged, 8 data bits, no parity, no flow control, the
    // modem lines ignored; the speed stays until KvRS232CommInit.
    dcb.fBinary = TRUE;
    dcb.fParity = FALSE;
    dcb.ByteSize = 8;
    dcb.Parity = NOPARITY;
    dcb.StopBits = ONESTOPBIT;
    dcb.fOutxCtsFlow = FALSE;
    dcb.fOutxDsrFlow = FALSE;
    dcb.fDtrControl = DTR_CONTROL_ENABLE;
    dcb.fRtsControl = RTS_CONTROL_ENABLE;
    dcb.fDsrSensitivity = FALSE;
    dcb.fOutX = FALSE;
    dcb.fInX = FALSE;
    dcb.fErrorChar = FALSE;
    dcb.fNull = FALSE;
    dcb.fAbortOnError = FALSE;
    if (!SetCommState(handle_, &dcb)) return KVRS232_ERR_OPEN;
    return set_timeouts(ReadTimeouts(), WriteTimeouts()) == KVRS232_OK ? KVRS232_OK : KVRS232_ERR_OPEN;
  }

  int configure(int baud, int dataBits, int parity, int stopBits) override {
    DCB dcb{};
    dcb.DCBlength = sizeof dcb;
    if (!GetCommState(handle_, &dcb)) return device_error(GetLastError(), hungUp_);
    dcb.BaudRate = static_cast<DWORD>(baud);
    dcb.ByteSize = static_cast<BYTE>(dataBits);
    dcb.Parity = static_cast<BYTE>(parity);  // the interface's values are the DCB's
    dcb.fParity = parity != KVRS232_NOPARITY;
    dcb.StopBits = static_cast<BYTE>(stopBits);
    if (!SetCommState(handle_, &dcb)) {
      const DWORD error = GetLastError();
      return error == ERROR_INVALID_PARAMETER ? KVRS232_ERR_BAUD : device_error(error, hungUp_);
    }
    DCB applied{};
    applied.DCBlength = sizeof applied;
    if (!GetCommState(handle_, &applied)) return device_error(GetLastError(), hungUp_);
    return applied.BaudRate == dcb.BaudRate ? KVRS232_OK : KVRS232_ERR_BAUD;
  }

  int set_timeouts(const ReadTimeouts& read, const WriteTimeouts& write) override {
    COMMTIMEOUTS timeouts{};
    timeouts.ReadIntervalTimeout = read.interval;
    timeouts.ReadTotalTimeoutMultiplier = read.multiplier;
    timeouts.ReadTotalTimeoutConstant = read.constant;
    timeouts.WriteTotalTimeoutMultiplier = write.multiplier;
    timeouts.WriteTotalTimeoutConstant = write.constant;
    return SetCommTimeouts(handle_, &timeouts) ? KVRS232_OK : device_error(GetLastError(), hungUp_);
  }

  int read(char* buffer, size_t length, size_t& got, const ReadTimeouts&) override {
    return transfer(false, buffer, length, got);
  }

  int write(const char* buffer, size_t length, size_t& done, const WriteTimeouts&) override {
    return transfer(true, const_cast<char*>(buffer), length, done);
  }

  int set_out_line(int line, int state) override {
    static const DWORD kFunctions[][2] = {{CLRDTR, SETDTR}, {CLRRTS, SETRTS}, {CLRBREAK, SETBREAK}};
    if (EscapeCommFunction(handle_, kFunctions[line - KVRS232_LINE_DTR][state])) return KVRS232_OK;
    return device_error(GetLastError(), hungUp_);
  }

  int modem_status(int& bits) override {
    DWORD status = 0;
    if (!GetCommModemStatus(handle_, &status)) return device_error(GetLastError(), hungUp_);
    bits = static_cast<int>(status & (MS_CTS_ON | MS_DSR_ON | MS_RING_ON | MS_RLSD_ON));  // the interface's bits
    return KVRS232_OK;
  }

  int flush() override {
    if (PurgeComm(handle_, PURGE_RXCLEAR | PURGE_TXCLEAR)) return KVRS232_OK;
    return device_error(GetLastError(), hungUp_);
  }

  int state() override {
    if (!hungUp_) {
      DWORD errors = 0;
      COMSTAT status{};
      if (!ClearCommError(handle_, &errors, &status)) device_error(GetLastError(), hungUp_);
    }
    return hungUp_ ? KVRS232_ERR_HANGUP : KVRS232_OK;
  }

  void wake() override { SetEvent(closing_); }

 private:
  // One overlapped read or write, its time-outs those of the port; a close
  // cancels it.
  int transfer(bool writing, char* buffer, size_t length, size_t& moved) {
    OVERLAPPED overlapped{};
    overlapped.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (overlapped.hEvent == nullptr) return KVRS232_ERR_RESOURCES;
    const DWORD count = static_cast<DWORD>(std::min<size_t>(length, 0xFFFFFFFFu));
    const BOOL started = writing ? WriteFile(handle_, buffer, count, nullptr, &overlapped)
                                 : ReadFile(handle_, buffer, count, nullptr, &overlapped);
    int status = KVRS232_OK;
    if (!started && GetLastError() != ERROR_IO_PENDING) {
      status = device_error(GetLastError(), hungUp_);
    } else {
      const HANDLE waits[2] = {overlapped.hEvent, closing_};
      if (WaitForMultipleObjects(2, waits, FALSE, INFINITE) != WAIT_OBJECT_0) {
        CancelIoEx(handle_, &overlapped);
        status = KVRS232_ERR_CLOSED;
      }
      DWORD n = 0;
      if (!GetOverlappedResult(handle_, &overlapped, &n, TRUE) && status == KVRS232_OK)
        status = device_error(GetLastError(), hungUp_);
      moved = n;
    }
    CloseHandle(overlapped.hEvent);
    return status;
  }

  HANDLE handle_ = INVALID_HANDLE_VALUE;
  HANDLE closing_ = nullptr;  // set when the handle is closed
  std::atomic<bool> hungUp_{false};
};

struct Port : PortUses {
  std::unique_ptr<Line> line;
};

using PortUse = kvrs232::Use<Port>;

int line_state(Port& port) {
  if (port.line->state() != KVRS232_OK) port.hungUp = true;
  return port.hungUp ? KVRS232_ERR_HANGUP : KVRS232_OK;
}

int set_timeouts(Port& port, const ReadTimeouts* read, const WriteTimeouts* write) {
  if (const int state = line_state(port); state != KVRS232_OK) return state;
  std::lock_guard<std::mutex> lock(port.mutex);
  const ReadTimeouts r = read != nullptr ? *read : port.readTimeouts;
  const WriteTimeouts w = write != nullptr ? *write : port.writeTimeouts;
  if (const int status = port.line->set_timeouts(r, w); status != KVRS232_OK) return status;
  port.readTimeouts = r;
  port.writeTimeouts = w;
  return KVRS232_OK;
}

}  // namespace
}  // namespace kvrs232

using namespace kvrs232;

extern "C" {

int KvRS232CommOpen(void** handle, int port) {
  if (handle == nullptr) return KVRS232_ERR_ARGUMENT;
  *handle = nullptr;
  if (port < 1) return KVRS232_ERR_PORT;
  auto opened = std::make_shared<Port>();
  const std::string device = port_device(port);
  int status = KVRS232_OK;
  if (is_cable_device(device)) {
    opened->line = open_cable_end(device, status);
  } else {
    auto com = std::make_unique<ComLine>();
    status = com->open(device);
    opened->line = std::move(com);
  }
  if (status != KVRS232_OK) return status;
  *handle = HandleTable<Port>::instance().add(std::move(opened));
  return KVRS232_OK;
}

int KvRS232CommInit(void* handle, int baud, int dataBits, int parity, int stopBits) {
  PortUse port(handle);
  if (!port) return KVRS232_ERR_HANDLE;
  if (const int refused = check_line_settings(baud, dataBits, parity, stopBits); refused != KVRS232_OK) return refused;
  if (const int state = line_state(*port); state != KVRS232_OK) return state;
  return port->line->configure(baud, dataBits, parity, stopBits);
}

int KvRS232CommIo(void* handle, int operation, void* buffer, size_t length, size_t* transferred) {
  if (transferred != nullptr) *transferred = 0;
  PortUse port(handle);
  if (!port) return KVRS232_ERR_HANDLE;
  if (transferred == nullptr || (buffer == nullptr && length != 0) ||
      (operation != KVRS232_IO_READ && operation != KVRS232_IO_WRITE))
    return KVRS232_ERR_ARGUMENT;
  if (port->hungUp) return KVRS232_ERR_HANGUP;
  if (length == 0) return line_state(*port);
  ReadTimeouts read;
  WriteTimeouts write;
  {
    std::lock_guard<std::mutex> lock(port->mutex);
    read = port->readTimeouts;
    write = port->writeTimeouts;
  }
  size_t moved = 0;
  const int status = operation == KVRS232_IO_READ
                         ? port->line->read(static_cast<char*>(buffer), length, moved, read)
                         : port->line->write(static_cast<const char*>(buffer), length, moved, write);
  if (status == KVRS232_ERR_HANGUP) port->hungUp = true;
  *transferred = moved;
  return status;
}

int KvRS232CommSetOutLine(void* handle, int line, int state) {
  PortUse port(handle);
  if (!port) return KVRS232_ERR_HANDLE;
  if (line < KVRS232_LINE_DTR || line > KVRS232_LINE_BREAK || (state != 0 && state != 1))
    return KVRS232_ERR_ARGUMENT;
  if (const int status = line_state(*port); status != KVRS232_OK) return status;
  return port->line->set_out_line(line, state);
}

int KvRS232CommGetModemStatus(void* handle, int* status) {
  if (status != nullptr) *status = 0;
  PortUse port(handle);
  if (!port) return KVRS232_ERR_HANDLE;
  if (status == nullptr) return KVRS232_ERR_ARGUMENT;
  if (const int state = line_state(*port); state != KVRS232_OK) return state;
  int bits = 0;
  const int result = port->line->modem_status(bits);
  if (result == KVRS232_OK) *status = bits;
  return result;
}

int KvRS232CommSetReadTimeout(void* handle, int interval, int multiplier, int constant) {
  PortUse port(handle);
  if (!port) return KVRS232_ERR_HANDLE;
  ReadTimeouts t;
  if (!timeout_value(interval, t.interval) || !timeout_value(multiplier, t.multiplier) ||
      !timeout_value(constant, t.constant))
    return KVRS232_ERR_ARGUMENT;
  return set_timeouts(*port, &t, nullptr);
}

int KvRS232CommSetWriteTimeout(void* handle, int multiplier, int constant) {
  PortUse port(handle);
  if (!port) return KVRS232_ERR_HANDLE;
  WriteTimeouts t;
  if (!timeout_value(multiplier, t.multiplier) || !timeout_value(constant, t.constant)) return KVRS232_ERR_ARGUMENT;
  return set_timeouts(*port, nullptr, &t);
}

int KvRS232CommFlush(void* handle) {
  PortUse port(handle);
  if (!port) return KVRS232_ERR_HANDLE;
  if (const int state = line_state(*port); state != KVRS232_OK) return state;
  return port->line->flush();
}

int KvRS232CommClose(void** handle) {
  if (handle == nullptr) return KVRS232_ERR_ARGUMENT;
  std::shared_ptr<Port> port = HandleTable<Port>::instance().take(*handle);
  if (!port) return KVRS232_ERR_HANDLE;
  *handle = nullptr;
  // Wake the calls that wait on the port, then let them leave before the
  // device is released.
  port->line->wake();
  port->wait_idle();
  port.reset();
  return KVRS232_OK;
}

}  // extern "C"
