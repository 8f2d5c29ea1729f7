// Whole-file loading from the library's resources or from disk.
#include "TackHand.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "DebugManager.h"
#include "TackResources.h"
#include "heap.h"
#include "kvos/file.h"
#include "kvtext/text.h"

namespace {

constexpr const char* kSource = "System/TackHand";

std::string lowered(const char* text) { return kvtext::ascii_lower(std::string(text)); }

// A lower-cased copy from the runtime library (no heap needed), or null for null.
char* lowered_copy(const char* text) {
  if (text == nullptr) return nullptr;
  const size_t length = std::strlen(text);
  char* copy = static_cast<char*>(KvOperatorNew(length + 1));
  for (size_t i = 0; i < length; ++i) copy[i] = kvtext::ascii_lower(text[i]);
  copy[length] = '\0';
  return copy;
}

// The resources a host registered, by lower-cased name.
struct HostResources {
  std::mutex mutex;
  std::map<std::string, std::vector<unsigned char>> table;
};

HostResources& host_resources() {
  static HostResources* resources = new HostResources;  // never destroyed: usable at exit
  return *resources;
}

const TackEmbeddedResource* find_embedded(const std::string& name) {
  for (const TackEmbeddedResource* r = kTackEmbeddedResources; r->name != nullptr; ++r)
    if (name == r->name) return r;
  return nullptr;
}

// A block of exactly size bytes in mainheap, so that its allocated size is the
// data's length; null when there is no heap to hold it.
void* allocate_block(size_t size) {
  if (mainheap == nullptr) heapman_mgr::initialize();
  if (mainheap == nullptr) return nullptr;  // after the heaps were destroyed at exit
  return new (mainheap, kSource, __LINE__) char[size];
}

bool exit_release_arranged = false;

}  // namespace

char* TackHand::localFiles = nullptr;

TackHand::TackHand() : name(nullptr), data(nullptr) {}

TackHand::TackHand(const char* n) : name(nullptr), data(nullptr) { *this << n; }

TackHand::~TackHand() {
  TackClose();
  KvOperatorDelete(name);
}

TackHand& TackHand::operator<<(const char* n) {
  char* copy = lowered_copy(n);
  KvOperatorDelete(name);
  name = copy;
  return *this;
}

size_t TackHand::Size() const { return data == nullptr ? 0 : heapman_mgr::get_size(data); }

TackHand& TackHand::TackOpen() {
  if (data != nullptr || name == nullptr) return *this;
  const char* use = name;
  if (use[0] == '&') {
    const char* last = std::strrchr(use + 1, '\\');
    use = last != nullptr ? last + 1 : use + 1;
  }
  if (std::strchr(use, '\\') == nullptr) {
    if (localFiles == nullptr || std::strstr(localFiles, use) == nullptr) {
      LoadResource(use);
      return *this;
    }
    Debug(dbgCSL, "Local bin files in use\n");
  }
  LoadFile(use);
  return *this;
}

TackHand& TackHand::TackClose() {
  KvOperatorDelete(data);
  data = nullptr;
  return *this;
}

bool TackHand::LoadResource(const char* resourceName) {
  const std::string key(resourceName);  // name is lower-cased already
  {
    HostResources& host = host_resources();
    std::lock_guard<std::mutex> lock(host.mutex);
    auto found = host.table.find(key);
    if (found != host.table.end()) {
      if (found->second.empty()) return false;
      void* block = allocate_block(found->second.size());
      if (block == nullptr) return false;
      std::memcpy(block, found->second.data(), found->second.size());
      data = block;
      return true;
    }
  }
  const TackEmbeddedResource* r = find_embedded(key);
  if (r == nullptr || r->size == 0) return false;
  void* block = allocate_block(r->size);
  if (block == nullptr) return false;
  std::memcpy(block, r->data, r->size);
  data = block;
  return true;
}

bool TackHand::LoadFile(const char* path) {
  const kvos::file_t file = kvos::file_open(path, kvos::kFileReadExisting);
  if (file == kvos::kInvalidFile) return false;
  uint64_t length = 0;
  void* block = nullptr;
  bool complete = false;
  if (kvos::file_get_size(file, length) && length <= SIZE_MAX && (block = allocate_block(length)) != nullptr) {
    uint64_t done = 0;
    complete = kvos::file_seek(file, 0) && kvos::file_read(file, block, length, done) && done == length;
  }
  (void)kvos::file_close(file);  // opened for reading: the data is in memory or the load fails anyway
  if (!complete) {
    KvOperatorDelete(block);
    return false;
  }
  data = block;
  return true;
}

void TackHand::SetLocal(const char* list) {
  char* copy = lowered_copy(list);
  KvOperatorDelete(localFiles);
  localFiles = copy;
  if (copy != nullptr && !exit_release_arranged) {
    exit_release_arranged = true;
    std::atexit(&TackHand::FreeLocal);
  }
}

void TackHand::FreeLocal() {
  KvOperatorDelete(localFiles);
  localFiles = nullptr;
}

bool TackResourceAdd(const char* name, const void* bytes, size_t size) {
  if (name == nullptr || name[0] == '\0' || (bytes == nullptr && size != 0)) return false;
  const auto* first = static_cast<const unsigned char*>(bytes);
  std::vector<unsigned char> copy(first, first + size);
  HostResources& host = host_resources();
  std::lock_guard<std::mutex> lock(host.mutex);
  host.table[lowered(name)] = std::move(copy);
  return true;
}

bool TackResourceRemove(const char* name) {
  if (name == nullptr) return false;
  HostResources& host = host_resources();
  std::lock_guard<std::mutex> lock(host.mutex);
  return host.table.erase(lowered(name)) != 0;
}

bool TackResourceExists(const char* name, size_t* size) {
  if (name == nullptr) return false;
  const std::string key = lowered(name);
  {
    HostResources& host = host_resources();
    std::lock_guard<std::mutex> lock(host.mutex);
    auto found = host.table.find(key);
    if (found != host.table.end()) {
      if (size != nullptr) *size = found->second.size();
      return true;
    }
  }
  const TackEmbeddedResource* r = find_embedded(key);
  if (r == nullptr) return false;
  if (size != nullptr) *size = r->size;
  return true;
}

const char* const* TackResourceBuiltinNames() {
  static const std::vector<const char*> names = [] {
    std::vector<const char*> list;
    for (const TackEmbeddedResource* r = kTackEmbeddedResources; r->name != nullptr; ++r) list.push_back(r->name);
    list.push_back(nullptr);
    return list;
  }();
  return names.data();
}
