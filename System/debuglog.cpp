// Rotating debug log files.
#include "debuglog.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "kvos/drives.h"
#include "kvos/file.h"
#include "kvos/fileattr.h"
#include "kvos/thread.h"
#include "kvos/time.h"

namespace CSL {
namespace {

// Tracing of this class's every step; nothing in the library turns it on.
bool g_traceDebugLogFile = false;

// Notices and errors go to standard output, one line each.
void message(const std::string& text) { std::cout << text << std::endl; }

void trace(const std::string& text) {
  if (g_traceDebugLogFile) message(text);
}

char* duplicate(const char* text) {
  const size_t size = std::strlen(text) + 1;
  char* copy = static_cast<char*>(std::malloc(size));
  if (copy != nullptr) std::memcpy(copy, text, size);
  return copy;
}

std::string time_text(const kvos::CalendarTime& t) {
  char text[32];
  std::snprintf(text, sizeof text, "%02d/%02d/%04d %02d:%02d:%02d", t.month, t.day, t.year, t.hour, t.minute,
                t.second);
  return text;
}

std::string local_time_text(int64_t utc) {
  int64_t local = 0;
  kvos::CalendarTime t;
  if (!kvos::file_time_to_local(utc, local) || !kvos::file_time_to_calendar(local, t)) return "?";
  return time_text(t);
}

// Text that a printf format shows as it is.
std::string literal(const char* text) {
  std::string out;
  for (const char* c = text; *c != '\0'; ++c) {
    if (*c == '%') out += '%';
    out += *c;
  }
  return out;
}

// The text printf writes for the format `text` when no argument follows: each
// conversion takes the zero value of its type, and "%n" stores nothing.
std::string expand_without_arguments(const char* text) {
  std::string out;
  const char* c = text;
  while (*c != '\0') {
    if (*c != '%') {
      out += *c++;
      continue;
    }
    const char* start = c++;
    if (*c == '%') {
      out += '%';
      ++c;
      continue;
    }
    std::string directive = "%";
    while (*c != '\0' && std::strchr("-+ #0", *c) != nullptr) directive += *c++;
    if (*c == '*') {
      ++c;  // a width argument of 0 is no width
    } else {
      while (*c >= '0' && *c <= '9') directive += *c++;
    }
    if (*c == '.') {
      directive += *c++;
      if (*c == '*') {
        directive += '0';
        ++c;
      } else {
        while (*c >= '0' && *c <= '9') directive += *c++;
      }
    }
    while (*c != '\0' && std::strchr("hlLqjzt", *c) != nullptr) ++c;  // sizes do not matter for zero
    const char conversion = *c;
    if (conversion == '\0' || std::strchr("diouxXeEfFgGaAcspn", conversion) == nullptr) {
      out.append(start, static_cast<size_t>(c - start));  // not a conversion: written as it stands
      continue;
    }
    ++c;
    directive += conversion;
    char piece[512];
    int n = 0;
    switch (conversion) {
      case 'd': case 'i': case 'c':
        n = std::snprintf(piece, sizeof piece, directive.c_str(), 0);
        break;
      case 'o': case 'u': case 'x': case 'X':
        n = std::snprintf(piece, sizeof piece, directive.c_str(), 0u);
        break;
      case 's':
        n = std::snprintf(piece, sizeof piece, directive.c_str(), "(null)");
        break;
      case 'p':
        n = std::snprintf(piece, sizeof piece, directive.c_str(), static_cast<void*>(nullptr));
        break;
      case 'n':
        break;
      default:
        n = std::snprintf(piece, sizeof piece, directive.c_str(), 0.0);
        break;
    }
    if (n > 0) out.append(piece, static_cast<size_t>(n) < sizeof piece ? static_cast<size_t>(n) : sizeof piece - 1);
  }
  return out;
}

bool last_write_time(const char* path, int64_t& time) {
  kvos::FindData found;
  if (!kvos::file_find_first(path, found) || (found.attributes & kvos::kFileAttributeDirectory) != 0) return false;
  time = found.lastWriteUtc;
  return true;
}

// Waits until a file created in the directory of `path` would carry a later
// last-write time than `previous`, the time of the file written before it.
// Where the file system's clock is coarse, or hands a new file the time last
// read from another, both would otherwise carry the same time, and the choice
// of the newest file at the next start could go to the older one. A probe
// file tells the file system's own time; it lives for microseconds.
void wait_until_later_than(const char* path, int64_t previous) {
  const char* separator = std::strrchr(path, '\\');
  const std::string dir = separator != nullptr ? std::string(path, static_cast<size_t>(separator - path)) : ".";
  std::string probe;
  if (!kvos::file_temp_name(dir, "kvl", 0, probe)) return;
  for (int attempt = 0; attempt < 100; ++attempt) {
    int64_t now = 0;
    if (!last_write_time(probe.c_str(), now) || now > previous) break;
    if (attempt > 0) kvos::sleep_ms(1, false);
    if (!kvos::file_touch(probe)) break;
  }
  (void)kvos::file_delete(probe);  // an empty scratch file; nothing depends on its removal
}

}  // namespace

DebugLogFile::DebugLogFile()
    : path{},
      stream(nullptr),
      on(true),
      header(nullptr),
      append(true),
      stamp(false),
      maxSize(0),
      maxFileNum(999),
      curFileNum(1),
      firstFileNum(1),
      rotating(false) {}

DebugLogFile::~DebugLogFile() {
  Close();
  std::free(header);
  header = nullptr;
}

DebugLogFile::DebugLogFile(const DebugLogFile& other) : stream(nullptr), header(nullptr), rotating(false) {
  CopyFrom(other);
}

DebugLogFile& DebugLogFile::operator=(const DebugLogFile& other) {
  if (this != &other) {
    Close();
    std::free(header);
    header = nullptr;
    CopyFrom(other);
  }
  return *this;
}

void DebugLogFile::CopyFrom(const DebugLogFile& other) {
  std::memcpy(path, other.path, sizeof path);
  on = other.on;
  header = other.header != nullptr ? duplicate(other.header) : nullptr;
  append = other.append;
  stamp = other.stamp;
  maxSize = other.maxSize;
  maxFileNum = other.maxFileNum;
  curFileNum = other.curFileNum;
  firstFileNum = other.firstFileNum;
}

bool DebugLogFile::Open(const char* newPath, bool newAppend, const char* newHeader, bool newStamp) {
  trace("DebugLogFile::Open(...) called");
  if (newPath == nullptr) {
    message("Error: _path is NULL in DebugLogFile::Open(...)");
    return false;
  }
  if (!PathFits(newPath)) return false;
  Path(newPath);
  return Open(newAppend, newHeader, newStamp);
}

bool DebugLogFile::Open(bool newAppend, const char* newHeader, bool newStamp) {
  append = newAppend;
  stamp = newStamp;
  if (newHeader != nullptr) {
    std::free(header);
    header = duplicate(newHeader);
  }
  return OpenLow();
}

bool DebugLogFile::Close() {
  if (stream == nullptr) return true;
  const bool closed = std::fclose(stream) == 0;
  stream = nullptr;
  return closed;
}

bool DebugLogFile::PathFits(const char* text) {
  const size_t length = std::strlen(text);
  if (length < sizeof path) return true;
  message("Error: _path is too long in DebugLogFile::Path(const char* _path): " + std::to_string(length) +
          " characters, at most " + std::to_string(sizeof path - 1));
  return false;
}

void DebugLogFile::Path(const char* newPath) {
  if (newPath == nullptr) {
    message("Error: _path is NULL in DebugLogFile::Path(const char* _path)");
    return;
  }
  if (!PathFits(newPath)) return;
  std::strcpy(path, newPath);
  DetermineCurrentFileName();
}

char* DebugLogFile::Path() { return path; }

void DebugLogFile::SetFileRotation(int newMaxSize, int newMaxFileNum) {
  trace("DebugLogFile::SetFileRotation(...) called");
  maxSize = newMaxSize;
  maxFileNum = newMaxFileNum;
}

void DebugLogFile::Write(const std::string& text) {
  trace("DebugLogFile::Write(...) called.");
  if (!on || stream == nullptr) return;
  // The text is a format without arguments; most texts have no conversion.
  bool written;
  if (text.find('%') == std::string::npos) {
    written = std::fputs(text.c_str(), stream) >= 0;
  } else {
    const std::string expanded = expand_without_arguments(text.c_str());
    written = std::fwrite(expanded.data(), 1, expanded.size(), stream) == expanded.size();
  }
  written = std::fflush(stream) == 0 && written;
  if (!written) {
    const int error = errno;
    message(std::string("DebugLogFile::Write() failed to write to ") + path + ": " + std::strerror(error) +
            "; the log is closed");
    Close();
    return;
  }
  if (maxSize != 0 && !rotating) {
    const long position = std::ftell(stream);
    if (position >= 0 && position >= maxSize) IncrementFileName();
  }
}

bool DebugLogFile::IsOn() { return on; }
void DebugLogFile::On(bool newOn) { on = newOn; }
bool DebugLogFile::IsOpen() { return stream != nullptr; }

bool DebugLogFile::OpenLow() {
  trace("DebugLogFile::OpenLow() called");
  Close();
  const bool existed = FileExists(path);
  std::string host;
  if (kvos::dos_to_host(path, host)) stream = std::fopen(host.c_str(), append ? "a" : "w");
  if (stream == nullptr) {
    message("DebugLogFile::OpenLow() failed to open file");
    return false;
  }
  const std::string now = time_text(kvos::local_time_now());
  if (header != nullptr && (!existed || !append)) {
    Write(header);
    Write("\nDebug log " + literal(path) + " started:  " + now + "\n");
  }
  if (stamp && existed) Write("\n\nZ.exe Started:  " + now + "\n");
  return stream != nullptr;
}

void DebugLogFile::DetermineCurrentFileName() {
  trace("DebugLogFile::DetermineCurrentFileName() called");
  if (maxSize == 0) return;
  char candidate[kPathSize];
  char newestName[kPathSize];
  std::memcpy(candidate, path, sizeof candidate);
  bool found = false;
  int newestNum = 0;
  int64_t newestTime = 0;
  for (int num = firstFileNum; num <= maxFileNum; ++num) {
    SetFileNumber(candidate, num);
    int64_t written = 0;
    if (!last_write_time(candidate, written)) continue;
    if (!found || written >= newestTime) {  // equal times: the higher number
      found = true;
      newestNum = num;
      newestTime = written;
      std::memcpy(newestName, candidate, sizeof newestName);
    }
  }
  if (found) {
    trace(std::string("DetermineCurrentFileName() Found newest: ") + newestName);
    trace("  written: " + local_time_text(newestTime));
    trace("  FileNum: " + std::to_string(newestNum));
    std::memcpy(path, newestName, sizeof path);
    curFileNum = newestNum;
  } else if (curFileNum == 0 || curFileNum > maxFileNum) {
    curFileNum = firstFileNum;
    SetFileNumber(path, curFileNum);
    trace(std::string("DetermineCurrentFileName() Forcing logfile to: ") + path);
  }
}

void DebugLogFile::IncrementFileName() {
  trace("DebugLogFile::IncrementFileName() called");
  Close();
  int64_t previousTime = 0;
  const bool timed = last_write_time(path, previousTime);
  curFileNum = curFileNum < maxFileNum ? curFileNum + 1 : 1;
  SetFileNumber(path, curFileNum);
  message(std::string("new log name: ") + path);
  if (FileExists(path) && !kvos::file_delete(path))
    message(std::string("Error in DebugLogFile::IncrementFileName() DeleteFile failed. path: ") + path);
  if (timed) wait_until_later_than(path, previousTime);
  rotating = true;
  OpenLow();
  rotating = false;
}

const char* DebugLogFile::GetPathExtension(const char* text) {
  if (text == nullptr) {
    message("Error: path is NULL in GetPathExtension(const char* _path)");
    return nullptr;
  }
  const char* dot = std::strrchr(text, '.');
  const char* separator = std::strrchr(text, '\\');
  if (const char* slash = std::strrchr(text, '/'); slash != nullptr && (separator == nullptr || slash > separator))
    separator = slash;
  if (dot == nullptr || (separator != nullptr && dot < separator)) return nullptr;
  return dot + 1;
}

void DebugLogFile::SetFileNumber(char* text, int num) {
  if (num < 0 || num > maxFileNum) {
    message("Program error: Debug log file extension number is invalid. _num: " + std::to_string(num));
    return;
  }
  char number[16];
  std::snprintf(number, sizeof number, "%03d", num);
  SetFileNumberStr(text, number);
}

void DebugLogFile::SetFileNumberStr(char* text, const char* numStr) {
  std::string renamed(text);
  if (const char* extension = GetPathExtension(text)) renamed.resize(static_cast<size_t>(extension - text) - 1);
  renamed.resize(renamed.size() >= 3 ? renamed.size() - 3 : 0);  // the old number, digits or not
  trace("SetFileNumberStr(..., char* numStr) intermed. path: " + renamed);
  renamed += numStr;
  renamed += ".log";
  if (renamed.size() >= static_cast<size_t>(kPathSize)) {
    message("Error: the numbered log file name is too long: " + renamed);
    return;
  }
  std::memcpy(text, renamed.c_str(), renamed.size() + 1);
}

bool DebugLogFile::FileExists(const char* text) {
  const uint32_t attributes = kvos::file_attributes(text);
  const bool exists =
      attributes != kvos::kInvalidFileAttributes && (attributes & kvos::kFileAttributeDirectory) == 0;
  trace(exists ? "File exists already in log directory!" : "No such file in log directory!");
  return exists;
}

}  // namespace CSL
