// Panel state: the flag sets, and the shared panel-state file that is read at
// the first open and written at the last close, only when changed.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "PanelState.h"
#include "heap.h"
#include "sysman.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;

using kvtest::dos_path;

TEST(FlagSets, TablesNamesIdentifiersAndBits) {
  PanelState panel;
  CheckItemState item;
  AttributeState attribute;
  const std::tuple<FlagIOClass*, unsigned, unsigned, const char*> sets[] = {
      {&panel, 3, 100, "Hide Min Max"}, {&item, 1, 200, "Hide"}, {&attribute, 2, 300, "ReadOnly Hidden"}};
  for (const auto& [set, number, first, names] : sets) {
    EXPECT_EQ(set->Number(), number);
    EXPECT_EQ(set->First(), first);
    std::string all;
    for (unsigned id = first; id < first + number; ++id) all += std::string(all.empty() ? "" : " ") + set->String(id);
    EXPECT_EQ(all, names);
  }
  EXPECT_EQ(attribute.Id("Hidden"), 301);
  EXPECT_EQ(attribute.Id("hidden"), -1);

  const auto* byte = static_cast<const unsigned char*>(panel.Buffer());
  panel.Set(PanelState::Max, true);
  panel.Set(PanelState::Hide, true);
  EXPECT_EQ(byte[0], 0x05);
  EXPECT_TRUE(panel.Get(102));
  EXPECT_FALSE(panel.Get(101));
  panel.Set(100, false);
  panel.Set(103, true);  // outside the set: ignored
  panel.Set(99, true);
  EXPECT_EQ(byte[0], 0x04);
  EXPECT_FALSE(panel.Get(103));
  panel.Clear();
  EXPECT_EQ(byte[0], 0);

  // Ten flags from 500 take two bytes; flag 509 is bit 1 of the second.
  std::vector<char*> table(12, const_cast<char*>("f"));
  table.front() = reinterpret_cast<char*>(uintptr_t{500});
  table.back() = nullptr;
  FlagIOClass custom(table.data());
  EXPECT_EQ(custom.Number(), 10u);
  custom.Set(509, true);
  custom.Set(500, true);
  const auto* bits = static_cast<const unsigned char*>(custom.Buffer());
  EXPECT_EQ(bits[0] | bits[1] << 8, 0x0201);
  custom.Clear();
  EXPECT_EQ(bits[0] | bits[1], 0);

  std::vector<char*> big(FlagIOClass::kMaxFlags + 3, const_cast<char*>("x"));
  big.front() = nullptr;
  big.back() = nullptr;
  EXPECT_THROW(FlagIOClass tooMany(big.data()), SysManagerError);
}

// Panel-state files in a fresh directory.
class PanelStateTest : public ::testing::Test {
 protected:
  void SetUp() override { heapman_mgr::initialize(); }

  std::string host(const std::string& name) const { return dir_.file(name); }
  pathname path(const std::string& name) const { return pathname(dos_path(host(name)).c_str()); }
  void write(const std::string& name, const std::string& text) const { kvtest::write_file(host(name), text); }
  std::string read(const std::string& name) const { return kvtest::read_file(host(name)); }

  // Back-dates a file so that a later write shows in its modification time.
  void age(const std::string& name) const {
    fs::last_write_time(host(name), fs::file_time_type::clock::now() - std::chrono::hours(24));
  }
  bool written_since_aged(const std::string& name) const {
    return fs::last_write_time(host(name)) > fs::file_time_type::clock::now() - std::chrono::hours(1);
  }

  kvtest::TempDir dir_;
};

TEST_F(PanelStateTest, SharedFileIsReadOnceAndWrittenOnceWhenChanged) {
  write("panels.pan", "Panel state\nStage\n{\n\tSpeed = 5\n}\n");
  PanelStateSave first(path("panels.pan"));
  first.BaseName("Stage");
  PanelStateSave second(first);
  EXPECT_EQ(first.Handle()->RefCount(), 2);
  EXPECT_STREQ(second.BasePath(), "Stage");

  first.TrackOpen();
  EXPECT_EQ(first.Handle()->OpenCount(), 1);
  // Changed on disk after the first open: the sharer must not read it again.
  write("panels.pan", "Panel state\nStage\n{\n\tSpeed = 9\n}\n");
  age("panels.pan");
  second.TrackOpen();
  second.TrackOpen();
  EXPECT_EQ(second.TrackDepth(), 2);
  EXPECT_EQ(first.Handle()->OpenCount(), 2) << "a saver opens the handle once however deep it tracks";
  char* value = nullptr;
  ASSERT_TRUE(second.StringRead("Speed", value));
  EXPECT_STREQ(value, "5");
  EXPECT_TRUE(second.StringWrite("Accel", "12"));
  second.TrackClose();
  second.TrackClose();
  EXPECT_FALSE(written_since_aged("panels.pan")) << "not written before the last close";
  EXPECT_TRUE(first.Handle()->Changed());
  first.TrackClose();
  EXPECT_EQ(read("panels.pan"), "Panel state\r\n\r\nStage\r\n{\r\n\tSpeed = 5\r\n\tAccel = 12\r\n}\r\n");

  // The tree is freed between uses; the next first open reads the file again.
  EXPECT_TRUE(first.Handle()->TreeRoot() == nullptr || first.Handle()->TreeRoot()->Count() == 0);
  write("panels.pan", "Panel state\nStage\n{\n\tSpeed = 7\n}\n");
  age("panels.pan");
  first.TrackOpen();
  EXPECT_FALSE(first.Handle()->Changed());
  ASSERT_TRUE(first.StringRead("Speed", value));
  EXPECT_STREQ(value, "7");
  first.TrackClose();
  EXPECT_FALSE(written_since_aged("panels.pan")) << "reading alone does not write";

  // A missing file reads as empty and is not created when nothing changed.
  PanelStateSave fresh(path("missing.pan"));
  fresh.TrackOpen();
  EXPECT_FALSE(fresh.StringRead("Speed", value));
  fresh.TrackClose();
  EXPECT_FALSE(fs::exists(host("missing.pan")));
}

TEST_F(PanelStateTest, DestructionClosesTrackingAndDropsTheSharedHandle) {
  {
    PanelStateSave owner(path("d.pan"));
    {
      PanelStateSave sharer(owner);
      sharer.TrackOpen();
      sharer.TrackOpen();
      sharer.StringWrite("Left", "open");
    }
    EXPECT_EQ(owner.Handle()->RefCount(), 1);
    EXPECT_EQ(owner.Handle()->OpenCount(), 0);
    EXPECT_EQ(read("d.pan"), "Panel state\r\n\r\nLeft = open\r\n");
    owner.TrackClose();  // not tracking: nothing happens
    EXPECT_EQ(owner.TrackDepth(), 0);
  }
  // Outside tracking nothing is read or written.
  PanelStateSave idle(path("d.pan"));
  char* value = reinterpret_cast<char*>(1);
  EXPECT_FALSE(idle.StringRead("Left", value));
  EXPECT_EQ(value, nullptr);
  EXPECT_FALSE(idle.StringWrite("Left", "x"));
  EXPECT_FALSE(idle.Seek("Any"));
}

TEST_F(PanelStateTest, EmptyValueRemovesTheRecordAndAlwaysMarksChanged) {
  write("s.pan", "Panel state\nKeep = 1\nDrop = 2\n");
  age("s.pan");
  PanelStateSave save(path("s.pan"));
  save.TrackOpen();
  EXPECT_TRUE(save.StringWrite("Drop", ""));
  char* value = reinterpret_cast<char*>(1);
  EXPECT_FALSE(save.StringRead("Drop", value));
  EXPECT_EQ(value, nullptr);
  save.StringWrite("Keep", nullptr);
  EXPECT_FALSE(save.StringRead("Keep", value));
  save.StringWrite("New", "a");
  save.StringWrite("New", "b");  // changes the record in place
  ASSERT_TRUE(save.StringRead("New", value));
  EXPECT_STREQ(value, "b");
  save.TrackClose();
  EXPECT_EQ(read("s.pan"), "Panel state\r\n\r\nNew = b\r\n");

  // Removing a record that is not there still counts as a change.
  write("t.pan", "Panel state\nKeep = 1\n");
  age("t.pan");
  PanelStateSave other(path("t.pan"));
  other.TrackOpen();
  other.StringWrite("Absent", "");
  other.TrackClose();
  EXPECT_TRUE(written_since_aged("t.pan"));
  EXPECT_EQ(read("t.pan"), "Panel state\r\n\r\nKeep = 1\r\n");
}

TEST_F(PanelStateTest, LeavingAnEmptySectionRemovesIt) {
  write("x.pan", "Panel state\nHold = 1\n");
  age("x.pan");
  PanelStateSave save(path("x.pan"));
  save.TrackOpen();
  EXPECT_FALSE(save.Seek(nullptr)) << "nothing to leave at the top";
  EXPECT_TRUE(save.Seek("Visited"));
  EXPECT_STREQ(save.Handle()->CurrentSection()->Tag(), "Visited");
  EXPECT_FALSE(save.Handle()->Changed()) << "adding a section is no change by itself";
  EXPECT_TRUE(save.Seek("Inner"));
  EXPECT_TRUE(save.Seek(nullptr));
  EXPECT_TRUE(save.Handle()->Changed());
  EXPECT_TRUE(save.Seek(nullptr));
  EXPECT_EQ(save.Handle()->CurrentSection(), save.Handle()->TreeRoot());
  EXPECT_TRUE(save.Seek("Kept"));
  save.StringWrite("Value", "3");
  EXPECT_TRUE(save.Seek(nullptr));
  save.TrackClose();
  EXPECT_EQ(read("x.pan"), "Panel state\r\n\r\nHold = 1\r\nKept\r\n{\r\n\tValue = 3\r\n}\r\n");

  // Entering and leaving a section that has items changes nothing.
  age("x.pan");
  save.TrackOpen();
  EXPECT_TRUE(save.Seek("Kept"));
  EXPECT_TRUE(save.Seek(nullptr));
  EXPECT_FALSE(save.Handle()->Changed());
  save.TrackClose();
  EXPECT_FALSE(written_since_aged("x.pan"));
}

TEST_F(PanelStateTest, LongNameLivesInProfilesBelowTheBasePath) {
  PanelStateSave save(path("l.pan"));
  const char base[] = "Panels\0Stage\0";  // the literal adds the second NUL
  save.BasePath(base);
  save.SetLongName("Operator A");
  EXPECT_STREQ(save.LongName(), "Operator A");
  EXPECT_EQ(save.TrackDepth(), 0);
  EXPECT_EQ(read("l.pan"),
            "Panel state\r\n\r\nPanels\r\n{\r\n\tStage\r\n\t{\r\n\t\tProfiles:\r\n\t\t{\r\n\t\t\tName = Operator A"
            "\r\n\t\t}\r\n\t}\r\n}\r\n");

  save.SetLongName(nullptr);
  ASSERT_NE(save.LongName(), nullptr);
  EXPECT_STREQ(save.LongName(), "");
  // Profiles: went with its last record; the base sections stay.
  EXPECT_EQ(read("l.pan"), "Panel state\r\n\r\nPanels\r\n{\r\n\tStage\r\n\t{\r\n\t}\r\n}\r\n");

  // With another record beside it, only Name goes.
  write("m.pan", "Panel state\nProfiles:\n{\n\tName = Old\n\tColour = red\n}\n");
  PanelStateSave other(path("m.pan"));
  other.SetLongName(nullptr);
  EXPECT_EQ(read("m.pan"), "Panel state\r\n\r\nProfiles:\r\n{\r\n\tColour = red\r\n}\r\n");
}

TEST_F(PanelStateTest, BasePathsAreRestoredAndCanBeTakenFromTheCursor) {
  write("b.pan", "Panel state\nPanels\n{\n\tStage\n\t{\n\t\tX = 1\n\t}\n}\n");
  PanelStateSave save(path("b.pan"));
  save.TrackOpen();
  EXPECT_TRUE(save.Seek("Panels"));
  EXPECT_TRUE(save.Seek("Stage"));
  save.BaseHere();
  save.TrackClose();
  const char* base = save.BasePath();
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(std::string(base, 13), std::string("Panels\0Stage\0\0", 13));

  PanelStateSave copy(save);
  copy.TrackOpen();
  char* value = nullptr;
  ASSERT_TRUE(copy.StringRead("X", value));
  EXPECT_STREQ(value, "1");
  copy.BaseHere();
  copy.TrackClose();
  EXPECT_EQ(std::string(copy.BasePath(), 13), std::string(base, 13));

  save.BaseName(nullptr);
  EXPECT_EQ(save.BasePath(), nullptr);
  save.TrackOpen();
  save.BaseHere();
  EXPECT_EQ(save.BasePath(), nullptr) << "the top level is the null base path";
  EXPECT_FALSE(save.StringRead("X", value));
  save.TrackClose();
}

TEST_F(PanelStateTest, DefaultFileIsTouchedOnlyWhenUsed) {
  EXPECT_STREQ(PanelStateSaveDefault.Path().file().operator char*(), "default.pan");

  // A process that never uses the default file leaves no file behind at exit.
  const std::string unused = dos_path(host("unused.pan"));
  const int quiet = kvtest::run_in_child([&] {
    PanelStateSaveDefault.Path(pathname(unused.c_str()));
    std::exit(0);
    return 0;
  });
  EXPECT_EQ(quiet, 0);
  EXPECT_FALSE(fs::exists(host("unused.pan")));

  // One that leaves it open with a change gets it written at exit.
  const std::string used = dos_path(host("used.pan"));
  const int busy = kvtest::run_in_child([&] {
    PanelStateSaveDefault.Path(pathname(used.c_str()));
    PanelStateSaveDefault.TrackOpen();
    PanelStateSaveDefault.StringWrite("Exit", "written");
    std::exit(0);
    return 0;
  });
  EXPECT_EQ(busy, 0);
  EXPECT_EQ(read("used.pan"), "Panel state\r\n\r\nExit = written\r\n");
}

}  // namespace
