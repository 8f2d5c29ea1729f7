// File attributes of a DOS path, with the classic attribute bits.
#pragma once

#include <cstdint>
#include <string>

#include "kvos/export.h"

namespace kvos {

constexpr uint32_t kFileAttributeReadOnly = 0x01;
constexpr uint32_t kFileAttributeHidden = 0x02;
constexpr uint32_t kFileAttributeDirectory = 0x10;
constexpr uint32_t kFileAttributeNormal = 0x80;
constexpr uint32_t kInvalidFileAttributes = 0xFFFFFFFF;

// The attributes of the file or directory a DOS path names (mapped through
// the drive table); kInvalidFileAttributes when it does not exist or cannot
// be mapped. Only the bits above are reported; a file with none of them is
// normal. On Linux a name beginning with "." counts as hidden and a file that
// this process may not write is read-only; on Windows they are the file's own marks.
KVOS_API uint32_t file_attributes(const std::string& dosPath);

}  // namespace kvos
