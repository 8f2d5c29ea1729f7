// Reading a thread's call stack on Linux: the thread records its own frame
// when it makes its handle, and memory is read through the kernel, which
// answers EFAULT for an unmapped address instead of faulting.
#include "kvos/stack.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <new>

namespace kvos {
namespace {

struct StackThread {
  pid_t tid;
  uint64_t frame;  // the frame of the function that made the handle
  std::atomic<int> suspensions{0};
};

pid_t current_tid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

bool thread_alive(pid_t tid) { return syscall(SYS_tgkill, getpid(), tid, 0) == 0; }

// Where a filter refuses process_vm_readv, the kernel copies the bytes into a
// pipe instead: a write from an unmapped address fails with EFAULT as well.
bool read_through_pipe(uint64_t address, void* buffer, size_t size) {
  static std::mutex lock;
  static int ends[2] = {-1, -1};
  std::lock_guard<std::mutex> guard(lock);
  if (ends[0] < 0 && pipe2(ends, O_CLOEXEC) != 0) return false;
  char* out = static_cast<char*>(buffer);
  for (size_t done = 0; done < size;) {
    // Up to the pipe's atomic size, so that a write is all or nothing.
    const size_t chunk = std::min<size_t>(size - done, 4096);
    ssize_t n;
    do {
      n = write(ends[1], reinterpret_cast<const void*>(address + done), chunk);
    } while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(chunk)) return false;
    for (size_t got = 0; got < chunk;) {
      const ssize_t r = read(ends[0], out + done + got, chunk - got);
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) return false;
      got += static_cast<size_t>(r);
    }
    done += chunk;
  }
  return true;
}

std::atomic<bool> g_useVmRead{true};

}  // namespace

__attribute__((noinline)) stack_thread_t stack_thread_open() {
  // The slot at this function's own frame holds its caller's frame pointer.
  const auto* own = static_cast<const uint64_t*>(__builtin_frame_address(0));
  return new (std::nothrow) StackThread{current_tid(), own[0]};
}

void stack_thread_close(stack_thread_t thread) { delete static_cast<StackThread*>(thread); }

bool stack_thread_suspend(stack_thread_t thread) {
  auto* target = static_cast<StackThread*>(thread);
  if (target == nullptr || target->tid == current_tid() || !thread_alive(target->tid)) return false;
  target->suspensions.fetch_add(1);
  return true;
}

bool stack_thread_resume(stack_thread_t thread) {
  auto* target = static_cast<StackThread*>(thread);
  if (target == nullptr) return false;
  int count = target->suspensions.load();
  while (count > 0 && !target->suspensions.compare_exchange_weak(count, count - 1)) {
  }
  return count > 0;
}

bool stack_thread_frame(stack_thread_t thread, uint64_t& framePointer) {
  const auto* target = static_cast<const StackThread*>(thread);
  if (target == nullptr || target->suspensions.load() <= 0) return false;
  framePointer = target->frame;
  return true;
}

bool stack_read(uint64_t address, void* buffer, size_t size) {
  if (size == 0) return true;
  if (buffer == nullptr || address + size < address) return false;
  if (g_useVmRead.load(std::memory_order_relaxed)) {
    iovec local{buffer, size};
    iovec remote{reinterpret_cast<void*>(address), size};
    const ssize_t n = process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
    if (n == static_cast<ssize_t>(size)) return true;
    if (n >= 0 || (errno != ENOSYS && errno != EPERM)) return false;
    g_useVmRead.store(false, std::memory_order_relaxed);
  }
  return read_through_pipe(address, buffer, size);
}

}  // namespace kvos
