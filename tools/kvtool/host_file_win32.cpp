// Host files on Windows: GetFinalPathNameByHandleA to follow links, reads that
// refuse anything but a disk file, and a named mutex per directory as the
// update lock.
#include <windows.h>

#include <vector>

#include "host_file.h"
#include "kvtext/text.h"

namespace kvtool {
namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// The system's text for code ("Access is denied"), without the trailing period and line end.
bool fail(std::string& error, DWORD code) {
  char* text = nullptr;
  const DWORD n = FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                 nullptr, code, 0, reinterpret_cast<char*>(&text), 0, nullptr);
  error = n != 0 && text != nullptr ? std::string(text, n) : "system error " + std::to_string(code);
  if (text != nullptr) LocalFree(text);
  while (!error.empty() && (error.back() == '\n' || error.back() == '\r' || error.back() == ' ' || error.back() == '.'))
    error.pop_back();
  return false;
}

std::string full_path(const std::string& path) {
  char buffer[MAX_PATH * 4];
  const DWORD n = GetFullPathNameA(path.c_str(), sizeof buffer, buffer, nullptr);
  return n == 0 || n >= sizeof buffer ? std::string() : std::string(buffer, n);
}

std::string directory_of(const std::string& path) {
  const size_t cut = path.find_last_of("\\/");
  if (cut == std::string::npos) return ".";
  return cut == 2 && path[1] == ':' ? path.substr(0, 3) : path.substr(0, cut);
}

std::string name_of(const std::string& path) {
  const size_t cut = path.find_last_of("\\/");
  return cut == std::string::npos ? path : path.substr(cut + 1);
}

HANDLE open_any(const std::string& path, DWORD access) {
  return CreateFileA(path.c_str(), access, kShareAll, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
}

// The path an open handle leads to, links followed, without the "\\?\" prefix.
bool final_path(HANDLE handle, std::string& out) {
  char buffer[MAX_PATH * 4];
  const DWORD n = GetFinalPathNameByHandleA(handle, buffer, sizeof buffer, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
  if (n == 0 || n >= sizeof buffer) return false;
  out.assign(buffer, n);
  if (out.rfind("\\\\?\\UNC\\", 0) == 0)
    out = "\\\\" + out.substr(8);
  else if (out.rfind("\\\\?\\", 0) == 0)
    out = out.substr(4);
  return true;
}

// Whether the handle's file could be opened with the given access (the check opens and closes it).
bool may_open(const std::string& path, DWORD access) {
  HANDLE h = open_any(path, access);
  if (h == INVALID_HANDLE_VALUE) return false;
  CloseHandle(h);
  return true;
}

}  // namespace

bool host_file_info(const std::string& path, HostFileInfo& info, std::string& error) {
  info = HostFileInfo();
  if (path.empty()) return fail(error, ERROR_FILE_NOT_FOUND);
  const std::string absolute = full_path(path);
  if (absolute.empty()) return fail(error, GetLastError());
  HANDLE h = open_any(absolute, FILE_READ_ATTRIBUTES);
  if (h == INVALID_HANDLE_VALUE) {
    const DWORD code = GetLastError();
    if (code != ERROR_FILE_NOT_FOUND) return fail(error, code);
    // Missing: it would be created in its directory, which must exist.
    HANDLE dir = open_any(directory_of(absolute), FILE_READ_ATTRIBUTES);
    if (dir == INVALID_HANDLE_VALUE) return fail(error, GetLastError());
    std::string directory;
    const bool found = final_path(dir, directory);
    CloseHandle(dir);
    if (!found) return fail(error, GetLastError());
    info.target = directory + (directory.back() == '\\' ? "" : "\\") + name_of(absolute);
    info.writable = may_open(directory, FILE_ADD_FILE);
    return true;
  }
  BY_HANDLE_FILE_INFORMATION data;
  const bool described = GetFileInformationByHandle(h, &data) != 0;
  const DWORD type = GetFileType(h);
  const bool found = described && final_path(h, info.target);
  const DWORD code = GetLastError();
  CloseHandle(h);
  if (type != FILE_TYPE_DISK) {
    info.kind = HostFileKind::kOther;  // a device or a pipe
    if (info.target.empty()) info.target = absolute;
    return true;
  }
  if (!found) return fail(error, code);
  info.size = (static_cast<uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
  if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    info.kind = HostFileKind::kDirectory;
    info.size = 0;
    info.writable = may_open(info.target, FILE_ADD_FILE);
  } else {
    info.kind = HostFileKind::kRegular;
    info.writable = (data.dwFileAttributes & FILE_ATTRIBUTE_READONLY) == 0 && may_open(info.target, FILE_WRITE_DATA);
  }
  return true;
}

bool host_file_read(const std::string& path, std::string& data, std::string& error,
                    const std::function<void(uint64_t, uint64_t)>& progress) {
  data.clear();
  const DWORD attributes = GetFileAttributesA(path.c_str());
  if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    error = "Is a directory";
    return false;
  }
  HANDLE h = CreateFileA(path.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return fail(error, GetLastError());
  bool ok = true;
  LARGE_INTEGER size{};
  if (GetFileType(h) != FILE_TYPE_DISK) {
    error = "not a regular file";
    ok = false;
  } else if (!GetFileSizeEx(h, &size)) {
    ok = fail(error, GetLastError());
  }
  const uint64_t total = ok ? static_cast<uint64_t>(size.QuadPart) : 0;
  if (ok) data.reserve(static_cast<size_t>(total));
  std::vector<char> piece(ok ? 1 << 20 : 0);
  while (ok) {
    DWORD got = 0;
    if (!ReadFile(h, piece.data(), static_cast<DWORD>(piece.size()), &got, nullptr)) {
      ok = fail(error, GetLastError());
      break;
    }
    if (got == 0) break;
    data.append(piece.data(), got);
    if (progress) progress(data.size(), total);
  }
  CloseHandle(h);
  if (!ok) data.clear();
  return ok;
}

bool host_stderr_is_terminal() {
  DWORD mode = 0;
  return GetConsoleMode(GetStdHandle(STD_ERROR_HANDLE), &mode) != 0;
}

HostUpdateLock::~HostUpdateLock() { release(); }

// The lock is a mutex named after the directory (its full path, ignoring
// case): every program that takes it for a file of that directory waits for
// the others. The system releases it when its holder ends.
bool HostUpdateLock::acquire(const std::string& target, std::string& error) {
  release();
  std::string directory = full_path(directory_of(target));
  if (directory.empty()) return fail(error, GetLastError());
  std::string name = "Local\\kvcore-update-";
  for (char c : directory) name += c == '\\' ? '/' : kvtext::ascii_lower(c);
  if (name.size() >= MAX_PATH) {
    uint64_t hash = 14695981039346656037ull;  // FNV-1a of the long name
    for (char c : name) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
    name = "Local\\kvcore-update-" + std::to_string(hash);
  }
  HANDLE mutex = CreateMutexA(nullptr, FALSE, name.c_str());
  if (mutex == nullptr) return fail(error, GetLastError());
  const DWORD waited = WaitForSingleObject(mutex, INFINITE);
  if (waited != WAIT_OBJECT_0 && waited != WAIT_ABANDONED) {
    const DWORD code = GetLastError();
    CloseHandle(mutex);
    return fail(error, code);
  }
  handle_ = reinterpret_cast<intptr_t>(mutex);
  return true;
}

void HostUpdateLock::release() {
  if (handle_ == -1) return;
  HANDLE mutex = reinterpret_cast<HANDLE>(handle_);
  ReleaseMutex(mutex);
  CloseHandle(mutex);
  handle_ = -1;
}

}  // namespace kvtool
