// Panel state persistence: named flag sets and the shared, counted panel-state file.
#include "PanelState.h"

#include <cstring>
#include <vector>

#include "heap.h"
#include "kvinit.h"
#include "sysman.h"

namespace {

// Flag tables: the first identifier, the names, a null entry.
char* g_panelTable[] = {reinterpret_cast<char*>(uintptr_t{100}), const_cast<char*>("Hide"),
                        const_cast<char*>("Min"), const_cast<char*>("Max"), nullptr};
char* g_checkItemTable[] = {reinterpret_cast<char*>(uintptr_t{200}), const_cast<char*>("Hide"), nullptr};
char* g_attributeTable[] = {reinterpret_cast<char*>(uintptr_t{300}), const_cast<char*>("ReadOnly"),
                            const_cast<char*>("Hidden"), nullptr};

// Untracked copies: the default saver lives before the heaps exist and after they are gone.
char* copy_text(const char* s, size_t n) {
  char* copy = static_cast<char*>(KvOperatorNew(n));
  std::memcpy(copy, s, n);
  return copy;
}

// Bytes of a double-NUL-terminated name list, both terminators included.
size_t list_bytes(const char* list) {
  const char* p = list;
  while (*p != '\0') p += std::strlen(p) + 1;
  return static_cast<size_t>(p - list) + 1;
}

}  // namespace

// ---------------------------------------------------------------------------
// FlagIOClass

FlagIOClass::FlagIOClass(char** table) : names(table + 1), bits{} {
  if (Number() > kMaxFlags) sys_abort("FlagIOClass: a flag table holds more than 64 names");
}

unsigned FlagIOClass::Number() const {
  unsigned count = 0;
  while (names[count] != nullptr) ++count;
  return count;
}

unsigned FlagIOClass::First() const { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(names[-1])); }

void FlagIOClass::Clear() { std::memset(bits, 0, (Number() + 7) / 8); }

bool FlagIOClass::Get(int id) const {
  const long k = static_cast<long>(id) - static_cast<long>(First());
  if (k < 0 || k >= static_cast<long>(Number())) return false;
  return (bits[k / 8] & (1u << (k % 8))) != 0;
}

void FlagIOClass::Set(int id, bool on) {
  const long k = static_cast<long>(id) - static_cast<long>(First());
  if (k < 0 || k >= static_cast<long>(Number())) return;
  const auto mask = static_cast<unsigned char>(1u << (k % 8));
  if (on)
    bits[k / 8] |= mask;
  else
    bits[k / 8] &= static_cast<unsigned char>(~mask);
}

int FlagIOClass::Id(const char* name) const {
  if (name == nullptr) return -1;
  for (unsigned k = 0; names[k] != nullptr; ++k)
    if (std::strcmp(names[k], name) == 0) return static_cast<int>(First() + k);
  return -1;
}

PanelState::PanelState() : PanelStateValues(), FlagIOClass(g_panelTable) {}
CheckItemState::CheckItemState() : FlagIOClass(g_checkItemTable) {}
AttributeState::AttributeState() : FlagIOClass(g_attributeTable) {}

// ---------------------------------------------------------------------------
// PanelStateHandle

PanelStateHandle::PanelStateHandle(const pathname& p) : InstrHandle(*p), refCount(1), openCount(0), dirty(false) {
  SetHeaderName("Panel state");
}

PanelStateHandle::~PanelStateHandle() = default;

void PanelStateHandle::Open() {
  if (++openCount != 1) return;
  Read(IHReadNone);
  dirty = false;
}

void PanelStateHandle::Close() {
  if (openCount <= 0) return;
  if (--openCount != 0) return;
  if (dirty) Write();
  ClearFile();
}

// ---------------------------------------------------------------------------
// PanelStateSave

PanelStateSave::PanelStateSave(const pathname& p)
    : handle(new PanelStateHandle(p)), basePath(nullptr), trackDepth(0), longName(nullptr) {}

PanelStateSave::PanelStateSave(PanelStateSave& other)
    : handle(other.handle), basePath(nullptr), trackDepth(0), longName(nullptr) {
  ++handle->refCount;
  BasePath(other.basePath);
}

PanelStateSave::~PanelStateSave() {
  while (trackDepth > 0) TrackClose();
  if (--handle->refCount == 0) delete handle;
  KvOperatorDelete(basePath);
  KvOperatorDelete(longName);
}

void PanelStateSave::BasePath(const char* list) {
  char* copy = list != nullptr ? copy_text(list, list_bytes(list)) : nullptr;
  KvOperatorDelete(basePath);
  basePath = copy;
}

void PanelStateSave::BaseName(const char* name) {
  if (name == nullptr) {
    BasePath(nullptr);
    return;
  }
  const size_t n = std::strlen(name);
  std::vector<char> list(n + 2, '\0');
  std::memcpy(list.data(), name, n);
  BasePath(list.data());
}

void PanelStateSave::BaseHere() {
  if (trackDepth > 0) BasePathSave(handle);
}

const pathname& PanelStateSave::Path() const { return handle->Path(); }

void PanelStateSave::Path(const pathname& p) { handle->Path(p); }

void PanelStateSave::TrackOpen() {
  if (++trackDepth != 1) return;
  handle->Open();
  BasePathRestore();
}

void PanelStateSave::TrackClose() {
  if (trackDepth <= 0) return;
  if (--trackDepth != 0) return;
  handle->Close();
}

bool PanelStateSave::Seek(const char* name) {
  if (trackDepth <= 0) return false;
  if (name != nullptr) {
    handle->SetSection(name, nullptr);
    return handle->EnterSection();
  }
  if (handle->CurrentSection() == handle->TreeRoot()) return false;
  const bool empty = handle->IsSectionEmpty();
  if (!handle->ExitSection()) return false;
  if (empty) {
    handle->DeleteItem();
    handle->MarkChanged();
  }
  return true;
}

bool PanelStateSave::StringWrite(const char* tag, const char* value) {
  if (trackDepth <= 0) return false;
  if (value != nullptr && value[0] != '\0') {
    handle->SetStr(tag, value);
  } else if (handle->FirstRecord(tag)) {
    handle->DeleteItem();
  }
  handle->MarkChanged();
  return true;
}

bool PanelStateSave::StringRead(const char* tag, char*& value) {
  if (trackDepth > 0 && handle->FirstStr(tag, value)) return true;
  value = nullptr;
  return false;
}

void PanelStateSave::SetLongName(const char* name) {
  if (name == nullptr) name = "";
  char* copy = copy_text(name, std::strlen(name) + 1);
  KvOperatorDelete(longName);
  longName = copy;
  TrackOpen();
  Seek("Profiles:");
  StringWrite("Name", longName);
  Seek(nullptr);
  TrackClose();
}

void PanelStateSave::BasePathRestore() {
  handle->Seek(InstrTypeBOF);
  if (basePath == nullptr) return;
  for (const char* name = basePath; *name != '\0'; name += std::strlen(name) + 1) {
    handle->SetSection(name, nullptr);
    handle->EnterSection();
  }
}

void PanelStateSave::BasePathSave(PanelStateHandle* h) {
  // The names from the current section up to (not including) the root.
  std::vector<const char*> chain;
  for (InstrSection* s = h->CurrentSection(); s != nullptr && s != h->TreeRoot(); s = s->Parent())
    chain.push_back(s->Tag());
  if (chain.empty()) {
    BasePath(nullptr);
    return;
  }
  std::vector<char> list;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) list.insert(list.end(), *it, *it + std::strlen(*it) + 1);
  list.push_back('\0');
  BasePath(list.data());
}

PanelStateSave PanelStateSaveDefault KV_INIT(KV_PRIO_PANEL)(pathname("default.pan"));
