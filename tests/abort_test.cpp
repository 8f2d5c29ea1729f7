// The library's exceptions, the abort service and sys_abort.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Zub/Core/AlertManager.h"
#include "sysman.h"
#include "test_support.h"

TEST(Exceptions, TextsOfPlainMemoryAndFormattedExceptions) {
  Exception e("a");
  e.Stack("f");
  EXPECT_STREQ(e.Stack("g"), "f\ng");
  EXPECT_STREQ(e.what(), "a\nf\ng");
  e.Stack("h");
  EXPECT_STREQ(e.what(), "a\nf\ng") << "built on the first call and kept";
  EXPECT_STREQ(Exception("a").what(), "a\n") << "the separator follows even an empty stack";
  Exception copy(e), assigned("other");
  assigned = e;
  assigned = assigned;  // a self-assignment keeps everything
  for (Exception* c : {&copy, &assigned}) {
    EXPECT_STREQ(c->Message(), "a");
    EXPECT_STREQ(c->Stack(nullptr), "f\ng\nh");
    EXPECT_STREQ(c->what(), "a\nf\ng") << "the built text comes along";
  }
  const char old = Exception::Separator();
  Exception::Separator('|');
  Exception piped("x");
  piped.Stack("y");
  piped.Stack("z");
  EXPECT_STREQ(piped.what(), "x|y|z");
  Exception::Separator(old);
  const std::string huge(5000, 'q');
  const std::pair<std::string, std::string> rows[] = {
      {MemoryException("Buffer", 1024).Message(), "Buffer: out of memory. Asked for 1024 bytes."},
      {MemoryException("Big", 4294967295u).Message(), "Big: out of memory. Asked for 4294967295 bytes."},
      {VarArgsException("code %d in %s", 17, "stage").what(), "code 17 in stage\n"},
      {VarArgsException("%s", huge.c_str()).Message(), huge.substr(0, 2047)},  // at most 2047 characters
  };
  for (const auto& [got, expected] : rows) EXPECT_EQ(got, expected);
}

namespace {

using Log = std::vector<std::string>;

// Records what the abort service asks of it.
struct Member : AbortSyst {
  Member(Log& log, std::string name) : log(log), name(std::move(name)) {}
  bool note(const std::string& what) { return log.push_back(name + "." + what), true; }
  void Pause() override { note("pause"); }
  bool Available(int code) override { return note("available" + std::to_string(code)) && available; }
  bool Execute(int code) override {
    const bool result = note("execute" + std::to_string(code)) && succeeds;
    if (leaveOnExecute) delete this;
    return result;
  }
  Log& log;
  std::string name;
  bool available = true, succeeds = true, leaveOnExecute = false;
};

}  // namespace

TEST(AbortService, CodesNamesAndMembersAskedInOrderUpToTheFirstRefusal) {
  const char* names[] = {"Resume", "Restart", "Recover", "Put Away Wafer", "Abort", nullptr, nullptr};
  for (int code = -1; code <= 6; ++code) {
    const char* name = AbortManager::Name(code);
    EXPECT_STREQ(name != nullptr ? name : "", code >= 0 && names[code] != nullptr ? names[code] : "") << code;
    EXPECT_EQ(AbortManager::Available(code), code >= 0 && code <= 5) << "no members: every valid code is available";
  }
  EXPECT_FALSE(AbortManager::Execute(9));
  EXPECT_FALSE(AbortManager::PauseAndExecute(-3));

  Log log;
  auto expect = [&log](bool expected, bool result, const Log& asked) {
    EXPECT_EQ(result, expected);
    EXPECT_EQ(log, asked);
    log.clear();
  };
  Member a(log, "a");
  {
    Member gone(log, "gone");
    Member copy(gone);  // a copy does not join
  }
  auto* b = new Member(log, "b");
  Member c(log, "c");
  expect(true, AbortManager::Execute(1),
         {"a.available1", "b.available1", "c.available1", "a.execute1", "b.execute1", "c.execute1"});
  b->succeeds = false;
  expect(false, AbortManager::Execute(2), {"a.available2", "b.available2", "c.available2", "a.execute2", "b.execute2"});
  b->available = false;
  expect(false, AbortManager::PauseAndExecute(0), {"a.available0", "b.available0"});
  b->available = true;
  expect(true, AbortManager::PauseAndExecute(4),  // true although b's Execute fails
         {"a.available4", "b.available4", "c.available4", "a.pause", "b.pause", "c.pause", "a.available4",
          "b.available4", "c.available4", "a.execute4", "b.execute4"});
  b->succeeds = b->leaveOnExecute = true;  // b leaves inside its Execute; c is still called
  expect(true, AbortManager::Execute(3),
         {"a.available3", "b.available3", "c.available3", "a.execute3", "b.execute3", "c.execute3"});
  AbortManager::Pause();
  EXPECT_EQ(log, (Log{"a.pause", "c.pause"}));
}

TEST(SysAbort, RaisesSysManagerErrorWithTheVerbatimTextAndContext) {
  kvtest::CategoryScope a(dbgA);
  kvtest::CaptureSink sink;
  struct Listener : Zub::Core::AlertListener {
    std::string seen;
    void ErrorRaised(Zub::Core::Error& e) override { seen = e.GetCategory() + ": " + e.GetMessage(); }
  } listener;
  Zub::Core::AlertManager::Instance()->AddAlertListener(&listener);
  try {
    sys_abort("list broken 100% %s %n");
    ADD_FAILURE() << "sys_abort returned";
  } catch (const SysManagerError& e) {
    EXPECT_STREQ(e.what(), "list broken 100% %s %n");
    EXPECT_EQ(e.GetSeverity(), 2);
    const Zub::Core::CodeContext& c = e.GetCodeContext();
    EXPECT_EQ(c.GetFile() + ":" + std::to_string(c.GetLine()) + " " + c.GetSignature(),
              "System/sysman:323 void __cdecl sys_abort(const char *)");
  }
  Zub::Core::AlertManager::Instance()->RemoveAlertListener(&listener);
  EXPECT_EQ(listener.seen, "CSL SysManager Error: list broken 100% %s %n");
  EXPECT_EQ(kvtest::abort_text([] { sys_abort(nullptr); }), "");
  EXPECT_EQ(sink.entries().at(0).logger, "Korvalis.A");
  EXPECT_EQ(sink.text(), "sys_abort called: list broken 100% %s %n\nsys_abort called: \n");
  boost::shared_ptr<Zub::Core::Error> copy = SysManagerError().Copy();
  EXPECT_NE(dynamic_cast<SysManagerError*>(copy.get()), nullptr);
}
