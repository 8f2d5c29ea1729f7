// The library's exceptions, the abort service and sys_abort.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Zub/Core/AlertManager.h"
#include "sysman.h"
#include "test_support.h"

TEST(Exceptions, WhatIsMessageSeparatorStackAndIsBuiltOnce) {
  Exception e("a");
  e.Stack("f");
  EXPECT_STREQ(e.Stack("g"), "f\ng");
  EXPECT_STREQ(e.Stack(nullptr), "f\ng");
  EXPECT_STREQ(e.what(), "a\nf\ng");
  e.Stack("h");
  EXPECT_STREQ(e.what(), "a\nf\ng") << "built on the first call and kept";
  EXPECT_STREQ(e.Message(), "a");

  Exception bare("a");
  EXPECT_STREQ(bare.what(), "a\n") << "the separator follows even an empty stack";
}

TEST(Exceptions, CopiesCarryAllThreeTextsAndTheSeparatorIsShared) {
  Exception original("msg");
  original.Stack("one");
  Exception copy(original);
  EXPECT_STREQ(copy.Message(), "msg");
  EXPECT_STREQ(copy.Stack(nullptr), "one");
  Exception assigned("other");
  assigned = original;
  assigned = assigned;
  EXPECT_STREQ(assigned.what(), "msg\none");

  const char old = Exception::Separator();
  Exception::Separator('|');
  Exception piped("x");
  piped.Stack("y");
  piped.Stack("z");
  EXPECT_STREQ(piped.what(), "x|y|z");
  Exception::Separator(old);
  EXPECT_EQ(Exception::Separator(), '\n');
}

TEST(Exceptions, MemoryAndFormattedMessages) {
  EXPECT_STREQ(MemoryException("Buffer", 1024).Message(), "Buffer: out of memory. Asked for 1024 bytes.");
  EXPECT_STREQ(MemoryException("Big", 4294967295u).Message(), "Big: out of memory. Asked for 4294967295 bytes.");
  VarArgsException v("code %d in %s", 17, "stage");
  EXPECT_STREQ(v.Message(), "code 17 in stage");
  try {
    throw VarArgsException("%s", "thrown");
  } catch (const Exception& e) {
    EXPECT_STREQ(e.what(), "thrown\n");
  }
  const std::string huge(5000, 'q');
  VarArgsException cut("%s", huge.c_str());
  EXPECT_EQ(std::string(cut.Message()).size(), 2047u) << "a formatted message keeps at most 2047 characters";
}

namespace {

// Records what the abort service asks of it.
class Member : public AbortSyst {
 public:
  Member(std::vector<std::string>& log, std::string name) : log_(log), name_(std::move(name)) {}
  bool available = true;
  bool succeeds = true;
  bool leaveOnExecute = false;
  void Pause() override { log_.push_back(name_ + ".pause"); }
  bool Available(int code) override {
    log_.push_back(name_ + ".available" + std::to_string(code));
    return available;
  }
  bool Execute(int code) override {
    log_.push_back(name_ + ".execute" + std::to_string(code));
    const bool result = succeeds;
    if (leaveOnExecute) delete this;
    return result;
  }

 private:
  std::vector<std::string>& log_;
  std::string name_;
};

}  // namespace

TEST(AbortService, CodesAndNames) {
  const char* names[] = {"Resume", "Restart", "Recover", "Put Away Wafer", "Abort", nullptr, nullptr};
  for (int code = -1; code <= 6; ++code) {
    const char* name = AbortManager::Name(code);
    EXPECT_STREQ(name != nullptr ? name : "", code >= 0 && names[code] != nullptr ? names[code] : "") << code;
    EXPECT_EQ(AbortManager::Available(code), code >= 0 && code <= 5) << "no members: every valid code is available";
  }
  EXPECT_FALSE(AbortManager::Execute(9));
  EXPECT_FALSE(AbortManager::PauseAndExecute(-3));
}

TEST(AbortService, MembersAreAskedInRegistrationOrderAndStopAtTheFirstRefusal) {
  std::vector<std::string> log;
  Member a(log, "a"), b(log, "b"), c(log, "c");
  EXPECT_TRUE(AbortManager::Execute(1));
  EXPECT_EQ(log, (std::vector<std::string>{"a.available1", "b.available1", "c.available1", "a.execute1",
                                           "b.execute1", "c.execute1"}));
  log.clear();
  b.succeeds = false;
  EXPECT_FALSE(AbortManager::Execute(2));
  EXPECT_EQ(log.back(), "b.execute2") << "c is not called after b fails";
  log.clear();
  b.available = false;
  EXPECT_FALSE(AbortManager::Available(0));
  EXPECT_EQ(log, (std::vector<std::string>{"a.available0", "b.available0"}));
  log.clear();
  EXPECT_FALSE(AbortManager::PauseAndExecute(0));
  EXPECT_EQ(std::count(log.begin(), log.end(), "a.pause"), 0);
  b.available = true;
  log.clear();
  EXPECT_TRUE(AbortManager::PauseAndExecute(4)) << "true although b's Execute fails";
  EXPECT_EQ(log, (std::vector<std::string>{"a.available4", "b.available4", "c.available4", "a.pause", "b.pause",
                                           "c.pause", "a.available4", "b.available4", "c.available4",
                                           "a.execute4", "b.execute4"}));
}

TEST(AbortService, MembersLeaveOnDestructionAndMayLeaveWhileExecuting) {
  std::vector<std::string> log;
  Member a(log, "a");
  {
    Member gone(log, "gone");
    Member copy(gone);  // a copy does not join
    (void)copy;
  }
  auto* leaving = new Member(log, "leaving");
  leaving->leaveOnExecute = true;
  Member last(log, "last");
  log.clear();
  EXPECT_TRUE(AbortManager::Execute(0));
  EXPECT_EQ(log, (std::vector<std::string>{"a.available0", "leaving.available0", "last.available0", "a.execute0",
                                           "leaving.execute0", "last.execute0"}));
  log.clear();
  AbortManager::Pause();
  EXPECT_EQ(log, (std::vector<std::string>{"a.pause", "last.pause"}));
}

TEST(SysAbort, RaisesSysManagerErrorWithTheTextAndContext) {
  kvtest::CategoryScope a(dbgA);
  kvtest::CaptureSink sink;
  struct Listener : Zub::Core::AlertListener {
    std::string seen;
    void ErrorRaised(Zub::Core::Error& e) override { seen = e.GetCategory() + ": " + e.GetMessage(); }
  } listener;
  Zub::Core::AlertManager::Instance()->AddAlertListener(&listener);
  try {
    sys_abort("list broken");
    FAIL() << "sys_abort returned";
  } catch (const SysManagerError& e) {
    EXPECT_STREQ(e.what(), "list broken");
    EXPECT_EQ(e.GetCategory(), "CSL SysManager Error");
    EXPECT_EQ(e.GetSeverity(), 2);
    const Zub::Core::CodeContext& c = e.GetCodeContext();
    EXPECT_EQ(c.GetFile() + ":" + std::to_string(c.GetLine()), "System/sysman:323");
    EXPECT_EQ(c.GetSignature(), "void __cdecl sys_abort(const char *)");
  }
  Zub::Core::AlertManager::Instance()->RemoveAlertListener(&listener);
  EXPECT_EQ(listener.seen, "CSL SysManager Error: list broken");
  ASSERT_EQ(sink.entries().size(), 1u);
  EXPECT_EQ(sink.entries()[0].logger, "Korvalis.A");
  EXPECT_EQ(sink.entries()[0].text, "sys_abort called: list broken\n");
}

TEST(SysAbort, TextsAreNeverFormatsAndNullIsEmpty) {
  kvtest::CategoryScope a(dbgA);
  kvtest::CaptureSink sink;
  try {
    sys_abort("100% %s %n");
  } catch (const SysManagerError& e) {
    EXPECT_STREQ(e.what(), "100% %s %n");
  }
  EXPECT_THROW(sys_abort(nullptr), SysManagerError);
  EXPECT_EQ(sink.text(), "sys_abort called: 100% %s %n\nsys_abort called: \n");
  boost::shared_ptr<Zub::Core::Error> copy = SysManagerError().Copy();
  EXPECT_NE(dynamic_cast<SysManagerError*>(copy.get()), nullptr);
}
