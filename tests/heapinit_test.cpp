// The heaps before heapman_mgr::initialize, the process-attach hook, and the
// teardown at exit. This program's own process never initializes the heaps;
// the cases that need them run in a child.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "heap.h"
#include "kvos/debugger.h"
#include "kvos/module.h"
#include "sysman.h"
#include "test_support.h"

namespace {

const char* const kFile = "tests/heapinit";

std::string g_debuggerText;
void capture(const char* text) { g_debuggerText += text; }

// A plain array: the exit function runs after this program's own globals are destroyed.
char g_outputPath[512];
void append_to_file(const char* text) {
  if (FILE* f = std::fopen(g_outputPath, "a")) {
    std::fputs(text, f);
    std::fclose(f);
  }
}

TEST(BeforeInitialize, EverythingFallsToTheRuntimeLibraryAndTheHeapLockIsAFailedAssertion) {
  ASSERT_FALSE(heap::initialized);
  ASSERT_EQ(mainheap, nullptr);
  EXPECT_EQ(SysManager::m_hModule, kvos::executable_module()) << "the library's load recorded the host module";
  char* raw = static_cast<char*>(KvOperatorNew(16));
  EXPECT_EQ(heapman_mgr::find(raw), nullptr);
  int* tracked = new (mainheap, kFile, 1) int(4);  // mainheap is null: untracked
  EXPECT_EQ(*tracked, 4);
  char* copy = sys_strdup("early");
  EXPECT_STREQ(copy, "early");
  char* nearCopy = strdup(raw, "near");
  EXPECT_STREQ(nearCopy, "near");
  char* grown = static_cast<char*>(heapman_mgr::reallocator(heapman_mgr::reallocator(nullptr, 8), 5000));
  EXPECT_GE(heapman_mgr::get_size(grown), 5000u);
  EXPECT_NO_THROW(heapman_mgr::check()) << "nothing to check yet";
  for (void* p : {static_cast<void*>(raw), static_cast<void*>(tracked), static_cast<void*>(copy),
                  static_cast<void*>(nearCopy), static_cast<void*>(grown)})
    KvOperatorDelete(p);  // free: the sanitizers would see a leak or a bad free
  for (const std::function<void()>& locking :
       std::initializer_list<std::function<void()>>{[] { heap h("early"); }, HeapDump, HeapMark}) {
    const std::string text = kvtest::raised(locking);
    EXPECT_EQ(text.substr(0, text.find(" @ ")), "Assertion failed: m_Mutex != 0");
  }
}

TEST(LibraryUnload, TheExitFunctionTearsTheHeapsDownOnceAndLateFreesAreIgnored) {
  const int status = kvtest::run_in_child([] {
    heapman_mgr::initialize();
    heap* h = new (mainheap, kFile, 1) heap("doomed");
    char* block = static_cast<char*>(operator new(10, h, kFile, 2));
    char* mainBlock = sys_strdup("in main");
    kvos::set_debugger_writer(capture);
    kvExitFunc();
    kvExitFunc();  // nothing left to do
    if (mainheap != nullptr || heapman_mgr::find(block) != nullptr) return 1;
    // Late frees of blocks whose heaps are gone are ignored, not handed to free.
    KvOperatorDelete(block);
    KvOperatorDelete(mainBlock);
    heapman_mgr::deallocator(block);
    KvOperatorDelete(KvOperatorNew(8));  // the runtime library works on
    return g_debuggerText == "kvExitFunc: deleting mainheap\n" ? 0 : 2;
  });
  EXPECT_EQ(kvtest::child_result(status), 0);

  // A normal exit runs the library's registered exit function; without heaps it writes nothing.
  kvtest::TempDir dir;
  for (const bool heaps : {true, false}) {
    std::snprintf(g_outputPath, sizeof g_outputPath, "%s", dir.file(heaps ? "exit.txt" : "quiet.txt").c_str());
    const int exited = kvtest::run_in_child([heaps] {
      if (heaps) heapman_mgr::initialize();
      if (heaps) new (mainheap, kFile, 1) heap("left");
      kvos::set_debugger_writer(append_to_file);
      std::exit(0);
      return 1;
    });
    EXPECT_EQ(kvtest::child_result(exited), 0);
    EXPECT_EQ(kvtest::read_text(g_outputPath), heaps ? "kvExitFunc: deleting mainheap\n" : "");
  }
}

}  // namespace
