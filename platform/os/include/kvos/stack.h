// Reading a thread's call stack from another thread of the process: a handle
// on the thread, holding it still, its frame-pointer register, and guarded
// reads of memory that may not be mapped.
//
// The handle is made by the thread itself and handed to the reader, which
// suspends the thread, takes its frame pointer, walks the chain with
// stack_read and resumes it. On Windows these are a duplicated thread handle,
// SuspendThread, GetThreadContext (Rbp), ReadProcessMemory and ResumeThread.
//
// On Linux no thread of a process can stop another one without signals, and
// at the moment of such a signal the frame-pointer register may hold anything
// (the C library and the C++ runtime are built without frame pointers). So
// here the thread records its frame when it makes the handle: the frame of the
// function that calls stack_thread_open is the newest frame of the chain. That
// function must not return while the handle is read; it blocks until the
// reader is done (the stack-dump writer waits on an event), which is what
// holds the chain still. Suspending here checks that the thread is another
// one and still alive, and marks it held.
//
// x64 Windows code keeps no frame-pointer chain either, so there the thread
// records its frames with the system's unwinder when it makes the handle, and
// stack_read presents them as a frame-pointer chain while the handle lives
// (SuspendThread holds the thread, GetThreadContext checks that the recorded
// frames are still live).
#pragma once

#include <cstddef>
#include <cstdint>

#include "kvos/export.h"

namespace kvos {

// A handle on a thread whose stack is to be read; null is no thread.
using stack_thread_t = void*;

// A handle on the calling thread (see above for the frame it records); null
// when it cannot be made. Close it with stack_thread_close.
KVOS_API stack_thread_t stack_thread_open();
KVOS_API void stack_thread_close(stack_thread_t thread);

// Holds the thread still (counted, as nested suspensions are). False for a
// null handle, for the calling thread itself (it could not read its own
// stack while held) and for a thread that has ended.
[[nodiscard]] KVOS_API bool stack_thread_suspend(stack_thread_t thread);
// Undoes one suspension; false when the thread is not suspended.
[[nodiscard]] KVOS_API bool stack_thread_resume(stack_thread_t thread);

// The frame-pointer register of a suspended thread; false when the thread is
// not suspended.
[[nodiscard]] KVOS_API bool stack_thread_frame(stack_thread_t thread, uint64_t& framePointer);

// Copies size bytes at address into buffer; false, with nothing promised in
// buffer, when any of them is not readable. Never faults.
[[nodiscard]] KVOS_API bool stack_read(uint64_t address, void* buffer, size_t size);

}  // namespace kvos
