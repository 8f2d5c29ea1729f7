// Reading a thread's call stack on Windows: a duplicated thread handle,
// SuspendThread and ResumeThread, GetThreadContext and ReadProcessMemory.
//
// Code built for x64 Windows keeps no frame-pointer chain: the frame pointer
// of a function (where it has one) points into its locals, and system code
// unwinds by tables. So, as on Linux, the thread records its frames when it
// makes the handle, here with the system's unwinder (RtlVirtualUnwind): one
// frame per caller, from the function that called stack_thread_open outwards.
// A frame is named by the place just below its return address (the address a
// frame pointer would hold), and while the handle lives stack_read answers
// the frame-pointer slot of each recorded frame with the next recorded frame,
// so that a frame-pointer walk from stack_thread_frame follows the chain the
// unwinder found. The stopped thread's stack pointer, read with
// GetThreadContext, shows that the frames are still live.
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <new>
#include <vector>

#include "kvos/stack.h"

namespace kvos {
namespace {

constexpr size_t kMaxFrames = 1024;

struct StackThread {
  HANDLE handle = nullptr;
  DWORD id = 0;
  std::vector<uint64_t> frames;  // innermost first
  std::atomic<int> suspensions{0};
};

// Frame-pointer slots of the recorded frames: slot -> the next frame (0 for the last).
std::mutex g_linksLock;
std::map<uint64_t, uint64_t>& links() {
  static auto* table = new std::map<uint64_t, uint64_t>();  // used until the very end
  return *table;
}

// Steps a context out to its caller; false at the end of the stack.
bool unwind(CONTEXT& context) {
  DWORD64 imageBase = 0;
  PRUNTIME_FUNCTION function = RtlLookupFunctionEntry(context.Rip, &imageBase, nullptr);
  if (function == nullptr) {
    // A leaf function: the return address is on top of the stack.
    uint64_t returnAddress = 0;
    SIZE_T done = 0;
    if (!ReadProcessMemory(GetCurrentProcess(), reinterpret_cast<const void*>(context.Rsp), &returnAddress,
                           sizeof returnAddress, &done))
      return false;
    context.Rip = returnAddress;
    context.Rsp += sizeof returnAddress;
  } else {
    void* handlerData = nullptr;
    DWORD64 establisher = 0;
    RtlVirtualUnwind(UNW_FLAG_NHANDLER, imageBase, context.Rip, function, &context, &handlerData, &establisher,
                     nullptr);
  }
  return context.Rip != 0;
}

}  // namespace

__attribute__((noinline)) stack_thread_t stack_thread_open() {
  auto* thread = new (std::nothrow) StackThread;
  if (thread == nullptr) return nullptr;
  if (!DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &thread->handle,
                       THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT | THREAD_QUERY_INFORMATION | SYNCHRONIZE, FALSE,
                       0)) {
    delete thread;
    return nullptr;
  }
  thread->id = GetCurrentThreadId();
  CONTEXT context{};
  RtlCaptureContext(&context);
  // Out of this function first; then each caller's return address lies just
  // below the stack pointer of its caller.
  if (unwind(context)) {
    while (thread->frames.size() < kMaxFrames && unwind(context)) thread->frames.push_back(context.Rsp - 16);
  }
  std::lock_guard<std::mutex> lock(g_linksLock);
  for (size_t i = 0; i < thread->frames.size(); ++i)
    links()[thread->frames[i]] = i + 1 < thread->frames.size() ? thread->frames[i + 1] : 0;
  return thread;
}

void stack_thread_close(stack_thread_t thread) {
  auto* target = static_cast<StackThread*>(thread);
  if (target == nullptr) return;
  {
    std::lock_guard<std::mutex> lock(g_linksLock);
    for (uint64_t frame : target->frames) links().erase(frame);
  }
  CloseHandle(target->handle);
  delete target;
}

bool stack_thread_suspend(stack_thread_t thread) {
  auto* target = static_cast<StackThread*>(thread);
  if (target == nullptr || target->id == GetCurrentThreadId()) return false;
  if (WaitForSingleObject(target->handle, 0) == WAIT_OBJECT_0) return false;  // it has ended
  if (SuspendThread(target->handle) == static_cast<DWORD>(-1)) return false;
  target->suspensions.fetch_add(1);
  return true;
}

bool stack_thread_resume(stack_thread_t thread) {
  auto* target = static_cast<StackThread*>(thread);
  if (target == nullptr) return false;
  int count = target->suspensions.load();
  while (count > 0 && !target->suspensions.compare_exchange_weak(count, count - 1)) {
  }
  return count > 0 && ResumeThread(target->handle) != static_cast<DWORD>(-1);
}

bool stack_thread_frame(stack_thread_t thread, uint64_t& framePointer) {
  const auto* target = static_cast<const StackThread*>(thread);
  if (target == nullptr || target->suspensions.load() <= 0 || target->frames.empty()) return false;
  CONTEXT context{};
  context.ContextFlags = CONTEXT_CONTROL;
  if (!GetThreadContext(target->handle, &context)) return false;
  if (context.Rsp > target->frames.front()) return false;  // the function that made the handle has returned
  framePointer = target->frames.front();
  return true;
}

bool stack_read(uint64_t address, void* buffer, size_t size) {
  if (size == 0) return true;
  if (buffer == nullptr || address + size < address) return false;
  if (size == sizeof(uint64_t)) {
    std::lock_guard<std::mutex> lock(g_linksLock);
    const auto link = links().find(address);
    if (link != links().end()) {
      std::copy_n(reinterpret_cast<const char*>(&link->second), size, static_cast<char*>(buffer));
      return true;
    }
  }
  SIZE_T done = 0;
  return ReadProcessMemory(GetCurrentProcess(), reinterpret_cast<const void*>(address), buffer, size, &done) &&
         done == size;
}

}  // namespace kvos
