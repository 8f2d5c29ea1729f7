// Whole-file loading: a named data file loaded into one tracked heap block,
// either from the resources embedded in the library (and those a host
// registers) or from a file on disk. The block's allocated size is the data's
// length; the data is not NUL-terminated.
//
//   TackHand file("c:\\data\\setup.ini");
//   if (void* bytes = *file.TackOpen()) use(bytes, file.Size());
//
// A bare name ("example.ini") is a resource; a name with a directory is a
// file. A name beginning with "&" is looked up as a resource under its last
// component. Bare names listed by SetLocal are read from the working
// directory instead of the resources.
#pragma once

#include <cstddef>

#include "KvExport.h"

class KVCORE_API TackHand {
 public:
  TackHand();
  explicit TackHand(const char* name);
  ~TackHand();
  TackHand(const TackHand&) = delete;
  TackHand& operator=(const TackHand&) = delete;

  // Replaces the name with a lower-cased copy (null: no name). Loaded data stays.
  TackHand& operator<<(const char* name);

  // Loads the data unless it is loaded already; failure leaves no data.
  TackHand& TackOpen();
  // The loaded block, or null.
  void* operator*() const { return data; }
  // Frees the data.
  TackHand& TackClose();

  // The lower-cased name, or null.
  const char* Name() const { return name; }
  // Length of the loaded data (the block's allocated size); 0 without data.
  size_t Size() const;

  // The class-wide list of bare names read from disk rather than from the
  // resources: a lower-cased copy of list; null clears it.
  static void SetLocal(const char* list);
  static void FreeLocal();
  // The current list (lower-cased), or null.
  static const char* Local() { return localFiles; }

 private:
  bool LoadResource(const char* resourceName);
  bool LoadFile(const char* path);

  char* name;
  void* data;
  static char* localFiles;
};

// Resources a host adds at run time, next to the ones built into the library.
// Names are compared ignoring case. A host resource hides a built-in one of the
// same name. The bytes are copied. False for a null or empty name, or null data
// with a non-zero size.
KVCORE_API bool TackResourceAdd(const char* name, const void* data, size_t size);
// Removes a resource a host added; false when there is none of that name.
// Built-in resources cannot be removed.
KVCORE_API bool TackResourceRemove(const char* name);
// Whether a resource of that name exists (host-added or built-in), and its size.
KVCORE_API bool TackResourceExists(const char* name, size_t* size = nullptr);
// Names of the built-in resources (lower-cased), as a null-terminated array.
KVCORE_API const char* const* TackResourceBuiltinNames();
