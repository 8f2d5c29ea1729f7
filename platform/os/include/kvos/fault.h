// Fault injection: a test facility of the boundary.
//
// Some failures cannot be produced on demand: root writes into read-only
// directories, a full disk or a refused rename is rarely at hand, and the
// clock and timer calls practically never fail. A test arms a fault point;
// the boundary operation behind it then fails as the real call would (the
// operation answers false, a write stores part of its bytes first, as on a
// full disk), so that the failure paths above the boundary can be exercised.
//
// Nothing is armed unless a program arms it; an unarmed point costs one
// relaxed atomic load. Points are process-wide and may be armed from any thread.
#pragma once

#include "kvos/export.h"

namespace kvos {

enum class FaultPoint : unsigned {
  FileTempName,  // file_temp_name: no temporary name can be made
  FileOpen,      // file_open
  FileSeek,      // file_seek
  FileRead,      // file_read: fails after no bytes
  FileWrite,     // file_write: stores half of the bytes, then fails (disk full)
  FileSync,      // file_sync
  FileGetTime,   // file_get_time
  FileSetTime,   // file_set_time, file_touch
  FileClose,     // file_close: the handle is closed all the same
  FileReplace,   // file_replace: the rename is refused
  FileDelete,    // file_delete
  TimerCreate,   // WaitableTimer construction: the timer is unusable
  TimerArm,      // WaitableTimer::arm
  TimerCancel,   // WaitableTimer::cancel
  TimerWait,     // WaitableTimer::wait
  Count
};

// After `skip` calls at the point have passed, the next `count` calls fail;
// a count of 0 makes every later call fail until the point is disarmed.
// Arming again restarts the counts.
KVOS_API void fault_arm(FaultPoint point, unsigned skip = 0, unsigned count = 1);
KVOS_API void fault_disarm(FaultPoint point);
KVOS_API void fault_disarm_all();

// Failures injected at the point since it was last armed.
KVOS_API unsigned fault_hits(FaultPoint point);

// For the boundary's own operations: true when this call is to fail.
[[nodiscard]] KVOS_API bool fault_check(FaultPoint point);

// Disarms every point at construction and at destruction (for test scopes).
class FaultScope {
 public:
  FaultScope() { fault_disarm_all(); }
  ~FaultScope() { fault_disarm_all(); }
  FaultScope(const FaultScope&) = delete;
  FaultScope& operator=(const FaultScope&) = delete;
};

}  // namespace kvos
