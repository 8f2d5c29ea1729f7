// Files on Windows: CreateFileA handles, FILETIME times, FindFirstFileA
// directory listings, and the crash-safe replace through MoveFileExA with
// MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH.
#include <windows.h>

#include <algorithm>

#include "../common/file_system.h"
#include "filetime.h"
#include "kvos/drives.h"
#include "kvos/fault.h"
#include "kvos/file.h"
#include "kvos/fileattr.h"

namespace kvos {
namespace {

HANDLE handle_of(file_t file) { return reinterpret_cast<HANDLE>(file); }

// The system error code of the last failed operation of this thread (file_last_error).
thread_local DWORD t_lastError = 0;

bool fail(DWORD code) {
  t_lastError = code;
  return false;
}

// The thread's last system error, kept for file_last_error.
bool fail_system() { return fail(GetLastError()); }

file_t fail_open(DWORD code) {
  t_lastError = code;
  return kInvalidFile;
}

bool map(const std::string& dos, std::string& host) { return !dos.empty() && dos_to_host(dos, host); }

// Attributes that a replacement takes over from the file it replaces.
constexpr DWORD kKeptAttributes =
    FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;

// How long a replacement that another program's open handle refuses is retried.
constexpr DWORD kReplaceRetryMs = 2000;

// Every open lets other openers read, write, rename and delete the file, as
// files behave elsewhere (a log can be rotated, a file replaced while read).
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// The classic bits of kvos/fileattr.h; a file with none of them is "normal"
// (the system's other marks, such as archive, are left out).
uint32_t classic_attributes(DWORD native) {
  const uint32_t kept = native & (kFileAttributeReadOnly | kFileAttributeHidden | kFileAttributeDirectory);
  return kept == 0 ? kFileAttributeNormal : kept;
}

HANDLE open_handle(const std::string& host, DWORD access, DWORD disposition) {
  return CreateFileA(host.c_str(), access, kShareAll, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
}

}  // namespace

namespace file_system {

bool is_directory(const std::string& host) {
  const DWORD attributes = GetFileAttributesA(host.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

int create_new(const std::string& host) {
  HANDLE h = open_handle(host, GENERIC_WRITE, CREATE_NEW);
  if (h != INVALID_HANDLE_VALUE) {
    CloseHandle(h);
    return 1;
  }
  const DWORD error = GetLastError();
  return error == ERROR_FILE_EXISTS || error == ERROR_ALREADY_EXISTS ? 0 : -1;
}

bool list_directory(const std::string& hostDir, std::vector<std::string>& names) {
  WIN32_FIND_DATAA data;
  const std::string pattern = hostDir + (hostDir.back() == '\\' ? "*" : "\\*");
  HANDLE find = FindFirstFileExA(pattern.c_str(), FindExInfoBasic, &data, FindExSearchNameMatch, nullptr, 0);
  if (find == INVALID_HANDLE_VALUE) return GetLastError() == ERROR_FILE_NOT_FOUND;  // an empty volume root
  do {
    const std::string name = data.cFileName;
    if (name != "." && name != "..") names.push_back(name);
  } while (FindNextFileA(find, &data));
  FindClose(find);
  return true;
}

bool describe(const std::string& host, FindData& found) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!GetFileAttributesExA(host.c_str(), GetFileExInfoStandard, &data)) return false;
  // The name as the directory stores it (its case may differ from the path's).
  WIN32_FIND_DATAA entry;
  HANDLE find = FindFirstFileExA(host.c_str(), FindExInfoBasic, &entry, FindExSearchNameMatch, nullptr, 0);
  if (find != INVALID_HANDLE_VALUE) {
    found.name = entry.cFileName;
    FindClose(find);
  } else {
    const size_t cut = host.find_last_of("\\/");
    found.name = cut == std::string::npos ? host : host.substr(cut + 1);
  }
  found.attributes = classic_attributes(data.dwFileAttributes);
  const bool directory = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  found.size = directory ? 0 : (static_cast<uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
  found.lastWriteUtc = win32::from_filetime(data.ftLastWriteTime);
  return true;
}

unsigned process_number() { return static_cast<unsigned>(GetCurrentProcessId()); }

}  // namespace file_system

uint32_t file_attributes(const std::string& dosPath) {
  std::string host;
  if (!dos_to_host(dosPath, host)) return kInvalidFileAttributes;
  const DWORD attributes = GetFileAttributesA(host.c_str());
  return attributes == INVALID_FILE_ATTRIBUTES ? kInvalidFileAttributes : classic_attributes(attributes);
}

file_t file_open(const std::string& dosPath, FileOpenMode mode) {
  std::string host;
  if (fault_check(FaultPoint::FileOpen)) return fail_open(ERROR_IO_DEVICE);
  if (!map(dosPath, host)) return fail_open(ERROR_PATH_NOT_FOUND);
  HANDLE h = INVALID_HANDLE_VALUE;
  switch (mode) {
    case kFileReadExisting:
      // With the right to set times where the file allows it (file_set_time on a reading handle).
      h = open_handle(host, GENERIC_READ | FILE_WRITE_ATTRIBUTES, OPEN_EXISTING);
      if (h == INVALID_HANDLE_VALUE && GetLastError() == ERROR_ACCESS_DENIED)
        h = open_handle(host, GENERIC_READ, OPEN_EXISTING);
      break;
    case kFileWriteExisting: h = open_handle(host, GENERIC_WRITE | FILE_READ_ATTRIBUTES, OPEN_EXISTING); break;
    case kFileCreateAlways: h = open_handle(host, GENERIC_WRITE | FILE_READ_ATTRIBUTES, CREATE_ALWAYS); break;
    case kFileCreateNew: h = open_handle(host, GENERIC_WRITE | FILE_READ_ATTRIBUTES, CREATE_NEW); break;
    default: return fail_open(ERROR_INVALID_PARAMETER);
  }
  return h == INVALID_HANDLE_VALUE ? fail_open(GetLastError()) : reinterpret_cast<file_t>(h);
}

bool file_close(file_t file) {
  if (file == kInvalidFile) return false;
  const bool injected = fault_check(FaultPoint::FileClose);
  const bool closed = CloseHandle(handle_of(file)) != 0;
  return closed && !injected;
}

bool file_seek(file_t file, uint64_t offset) {
  if (file == kInvalidFile) return fail(ERROR_INVALID_HANDLE);
  if (fault_check(FaultPoint::FileSeek)) return fail(ERROR_IO_DEVICE);
  if (offset > static_cast<uint64_t>(INT64_MAX)) return fail(ERROR_INVALID_PARAMETER);
  LARGE_INTEGER distance;
  distance.QuadPart = static_cast<LONGLONG>(offset);
  return SetFilePointerEx(handle_of(file), distance, nullptr, FILE_BEGIN) != 0 || fail_system();
}

bool file_read(file_t file, void* buffer, uint64_t size, uint64_t& done) {
  done = 0;
  if (file == kInvalidFile || (size > 0 && buffer == nullptr)) return fail(ERROR_INVALID_PARAMETER);
  if (fault_check(FaultPoint::FileRead)) return fail(ERROR_IO_DEVICE);
  char* out = static_cast<char*>(buffer);
  while (done < size) {
    const DWORD chunk = static_cast<DWORD>(std::min<uint64_t>(size - done, 1u << 30));
    DWORD n = 0;
    if (!ReadFile(handle_of(file), out + done, chunk, &n, nullptr)) return fail_system();
    if (n == 0) break;
    done += n;
  }
  return true;
}

bool file_write(file_t file, const void* buffer, uint64_t size, uint64_t& done) {
  done = 0;
  if (file == kInvalidFile || (size > 0 && buffer == nullptr)) return fail(ERROR_INVALID_PARAMETER);
  uint64_t limit = size;
  const bool injected = fault_check(FaultPoint::FileWrite);
  if (injected) limit = size / 2;  // a disk that fills up half-way
  const char* in = static_cast<const char*>(buffer);
  while (done < limit) {
    const DWORD chunk = static_cast<DWORD>(std::min<uint64_t>(limit - done, 1u << 30));
    DWORD n = 0;
    if (!WriteFile(handle_of(file), in + done, chunk, &n, nullptr)) return fail_system();
    if (n == 0) return fail(ERROR_DISK_FULL);
    done += n;
  }
  return !injected || fail(ERROR_DISK_FULL);
}

bool file_sync(file_t file) {
  if (file == kInvalidFile) return fail(ERROR_INVALID_HANDLE);
  if (fault_check(FaultPoint::FileSync)) return fail(ERROR_IO_DEVICE);
  return FlushFileBuffers(handle_of(file)) != 0 || fail_system();
}

bool file_get_size(file_t file, uint64_t& size) {
  LARGE_INTEGER value;
  if (file == kInvalidFile) return fail(ERROR_INVALID_HANDLE);
  if (!GetFileSizeEx(handle_of(file), &value)) return fail_system();
  size = static_cast<uint64_t>(value.QuadPart);
  return true;
}

bool file_get_time(file_t file, int64_t& lastWriteUtc) {
  FILETIME write;
  if (file == kInvalidFile || fault_check(FaultPoint::FileGetTime)) return false;
  if (!GetFileTime(handle_of(file), nullptr, nullptr, &write)) return false;
  lastWriteUtc = win32::from_filetime(write);
  return true;
}

bool file_set_time(file_t file, int64_t lastWriteUtc) {
  if (file == kInvalidFile || lastWriteUtc < 0 || fault_check(FaultPoint::FileSetTime)) return false;
  const FILETIME write = win32::to_filetime(lastWriteUtc);
  return SetFileTime(handle_of(file), nullptr, nullptr, &write) != 0;
}

bool file_touch(const std::string& dosPath) {
  std::string host;
  if (fault_check(FaultPoint::FileSetTime) || !map(dosPath, host)) return false;
  HANDLE h = CreateFileA(host.c_str(), FILE_WRITE_ATTRIBUTES, kShareAll, nullptr, OPEN_EXISTING,
                         FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  // The file system's own clock is the system time as a write would read it.
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  const bool set = SetFileTime(h, nullptr, nullptr, &now) != 0;
  CloseHandle(h);
  return set;
}

bool file_delete(const std::string& dosPath) {
  std::string host;
  if (fault_check(FaultPoint::FileDelete) || !map(dosPath, host)) return false;
  return DeleteFileA(host.c_str()) != 0;
}

bool file_replace(const std::string& dosFrom, const std::string& dosTo) {
  std::string from, to;
  if (fault_check(FaultPoint::FileReplace) || !map(dosFrom, from) || !map(dosTo, to)) return false;
  const DWORD target = GetFileAttributesA(to.c_str());
  const bool readOnly = target != INVALID_FILE_ATTRIBUTES && (target & FILE_ATTRIBUTE_READONLY) != 0;
  if (target != INVALID_FILE_ATTRIBUTES) {
    if ((target & FILE_ATTRIBUTE_DIRECTORY) != 0) return false;
    // Best effort: the new file keeps the old one's hidden, system and archive marks.
    const DWORD source = GetFileAttributesA(from.c_str());
    if (source != INVALID_FILE_ATTRIBUTES && (target & kKeptAttributes) != 0)
      SetFileAttributesA(from.c_str(), (source & ~kKeptAttributes & ~FILE_ATTRIBUTE_NORMAL) | (target & kKeptAttributes));
    // A read-only file is replaced as well (the new one is read-only in its turn).
    if (readOnly) SetFileAttributesA(to.c_str(), target & ~FILE_ATTRIBUTE_READONLY);
  }
  // Write-through: the call returns once the new name is on the disk. A file
  // that another program holds open (even one that lets others delete it)
  // cannot be replaced at that moment: such refusals are retried for a while.
  bool moved = false;
  for (DWORD pause = 1, waited = 0;; waited += pause, pause = pause < 32 ? pause * 2 : pause) {
    moved = MoveFileExA(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
    const DWORD error = moved ? ERROR_SUCCESS : GetLastError();
    if (moved || (error != ERROR_ACCESS_DENIED && error != ERROR_SHARING_VIOLATION) || waited >= kReplaceRetryMs) break;
    Sleep(pause);
  }
  if (readOnly) {
    const DWORD now = GetFileAttributesA(to.c_str());
    if (now != INVALID_FILE_ATTRIBUTES) SetFileAttributesA(to.c_str(), now | FILE_ATTRIBUTE_READONLY);
  }
  return moved;
}

bool disk_free_space(const std::string& dosPath, uint64_t& freeToCaller, uint64_t* total, uint64_t* totalFree) {
  std::string host;
  if (!map(dosPath, host)) return false;
  const DWORD attributes = GetFileAttributesA(host.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) return false;
  if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    const size_t cut = host.find_last_of("\\/");
    if (cut != std::string::npos) host = host.substr(0, cut + 1);
  }
  ULARGE_INTEGER available, all, free;
  if (!GetDiskFreeSpaceExA(host.c_str(), &available, &all, &free)) return false;
  freeToCaller = available.QuadPart;
  if (total != nullptr) *total = all.QuadPart;
  if (totalFree != nullptr) *totalFree = free.QuadPart;
  return true;
}

int file_last_error() { return static_cast<int>(t_lastError); }

}  // namespace kvos
