// FILETIME values as the boundary's 64-bit file times. Internal to the Windows backend.
#pragma once

#include <windows.h>

#include <cstdint>

namespace kvos::win32 {

inline FILETIME to_filetime(int64_t value) {
  FILETIME ft;
  ft.dwLowDateTime = static_cast<DWORD>(static_cast<uint64_t>(value) & 0xFFFFFFFFu);
  ft.dwHighDateTime = static_cast<DWORD>(static_cast<uint64_t>(value) >> 32);
  return ft;
}

inline int64_t from_filetime(const FILETIME& ft) {
  return static_cast<int64_t>((static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime);
}

}  // namespace kvos::win32
