// The heaps before heapman_mgr::initialize, the process-attach hook, and the
// teardown at exit. This program's own process never initializes the heaps;
// the cases that need them run in a child.
#include <gtest/gtest.h>


#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Zub/Core/Assert.h"
#include "heap.h"
#include "kvos/debugger.h"
#include "kvos/module.h"
#include "sysman.h"
#include "test_support.h"

namespace {

template <typename F>
std::string assertion_text(F&& f) {
  try {
    f();
  } catch (const Zub::Core::AssertionError& e) {
    return e.what();
  }
  return "(no assertion)";
}

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

TEST(BeforeInitialize, EverythingFallsToTheRuntimeLibrary) {
  ASSERT_FALSE(heap::initialized);
  ASSERT_EQ(mainheap, nullptr);
  char* raw = static_cast<char*>(KvOperatorNew(16));
  EXPECT_EQ(heapman_mgr::find(raw), nullptr);
  int* tracked = new (mainheap, "tests/heapinit", 1) int(4);  // mainheap is null: untracked
  EXPECT_EQ(*tracked, 4);
  char* copy = sys_strdup("early");
  EXPECT_STREQ(copy, "early");
  char* nearCopy = strdup(raw, "near");
  EXPECT_STREQ(nearCopy, "near");
  char* grown = static_cast<char*>(heapman_mgr::reallocator(nullptr, 8));
  grown = static_cast<char*>(heapman_mgr::reallocator(grown, 5000));
  EXPECT_GE(heapman_mgr::get_size(grown), 5000u);
  EXPECT_NO_THROW(heapman_mgr::check()) << "nothing to check yet";
  for (void* p : {static_cast<void*>(raw), static_cast<void*>(tracked), static_cast<void*>(copy),
                  static_cast<void*>(nearCopy), static_cast<void*>(grown)})
    KvOperatorDelete(p);  // free: the sanitizers would see a leak or a bad free
}

TEST(BeforeInitialize, TakingTheHeapLockIsAFailedAssertion) {
  const std::string expected = "Assertion failed: m_Mutex != 0";
  EXPECT_EQ(assertion_text([] { heap h("early"); }), expected);
  EXPECT_EQ(assertion_text([] { HeapDump(); }), expected);
  EXPECT_EQ(assertion_text([] { HeapMark(); }), expected);
}

TEST(LibraryLoad, RecordsTheHostModule) {
  EXPECT_NE(SysManager::m_hModule, nullptr);
  EXPECT_EQ(SysManager::m_hModule, kvos::executable_module());
}

TEST(LibraryUnload, ExitFunctionTearsTheHeapsDown) {
  const int status = kvtest::run_in_child([] {
    heapman_mgr::initialize();
    heap* h = new (mainheap, "tests/heapinit", 1) heap("doomed");
    char* block = static_cast<char*>(operator new(10, h, "tests/heapinit", 2));
    char* mainBlock = sys_strdup("in main");
    kvos::set_debugger_writer(capture);
    kvExitFunc();
    if (mainheap != nullptr) return 1;
    if (g_debuggerText != "kvExitFunc: deleting mainheap\n") return 2;
    kvExitFunc();
    if (g_debuggerText != "kvExitFunc: deleting mainheap\n") return 3;  // nothing left to do
    if (heapman_mgr::find(block) != nullptr) return 4;
    // Late frees of blocks whose heaps are gone are ignored, not handed to free.
    KvOperatorDelete(block);
    KvOperatorDelete(mainBlock);
    heapman_mgr::deallocator(block);
    void* fresh = KvOperatorNew(8);  // the runtime library works on
    KvOperatorDelete(fresh);
    return 0;
  });
  EXPECT_EQ(kvtest::child_result(status), 0);
}

TEST(LibraryUnload, ExitRunsTheExitFunctionOnce) {
  kvtest::TempDir dir;
  std::snprintf(g_outputPath, sizeof g_outputPath, "%s", dir.file("exit.txt").c_str());
  int status = kvtest::run_in_child([] {
    heapman_mgr::initialize();
    new (mainheap, "tests/heapinit", 1) heap("left");
    kvos::set_debugger_writer(append_to_file);
    std::exit(0);  // atexit handlers run; the library's registered kvExitFunc
    return 1;
  });
  EXPECT_EQ(kvtest::child_result(status), 0);
  EXPECT_EQ(kvtest::read_text(g_outputPath), "kvExitFunc: deleting mainheap\n");

  std::snprintf(g_outputPath, sizeof g_outputPath, "%s", dir.file("quiet.txt").c_str());
  status = kvtest::run_in_child([] {
    kvos::set_debugger_writer(append_to_file);
    std::exit(0);
    return 1;
  });
  EXPECT_EQ(kvtest::child_result(status), 0);
  EXPECT_EQ(kvtest::read_file(g_outputPath), "") << "without heaps the exit function writes nothing";
}

}  // namespace
