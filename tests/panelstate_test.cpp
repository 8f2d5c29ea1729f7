// Panel state: the flag sets, and the shared panel-state file that is read at
// the first open and written at the last close, only when changed.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "PanelState.h"
#include "heap.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;

TEST(FlagSets, TablesNamesIdentifiersAndBits) {
  PanelState panel;
  CheckItemState item;
  AttributeState attribute;
  const std::tuple<FlagIOClass*, unsigned, const char*> sets[] = {
      {&panel, 100, "Hide Min Max"}, {&item, 200, "Hide"}, {&attribute, 300, "ReadOnly Hidden"}};
  for (const auto& [set, first, names] : sets) {
    EXPECT_EQ(set->First(), first);
    std::string all;
    for (unsigned id = first; id < first + set->Number(); ++id)
      all += (all.empty() ? "" : " ") + std::string(set->String(id));
    EXPECT_EQ(all, names);
  }
  EXPECT_EQ((std::vector<int>{panel.Id("Hide"), panel.Id("Min"), panel.Id("Max"), item.Id("Hide"),
                              attribute.Id("ReadOnly"), attribute.Id("Hidden"), attribute.Id("hidden")}),
            (std::vector<int>{PanelState::Hide, PanelState::Min, PanelState::Max, CheckItemState::Hide,
                              AttributeState::ReadOnly, AttributeState::Hidden, -1}));

  // At most 64 names.
  std::vector<char*> table(FlagIOClass::kMaxFlags + 3, const_cast<char*>("f"));  // the first id, 65 names, null
  table.front() = reinterpret_cast<char*>(uintptr_t{500});
  table.back() = nullptr;
  EXPECT_EQ(kvtest::abort_text([&] { FlagIOClass tooMany(table.data()); }),
            "FlagIOClass: a flag table holds more than 64 names");
  table[65] = nullptr;
  EXPECT_EQ(FlagIOClass(table.data()).Number(), 64u);

  // Ten flags from 500 take two bytes; flag 509 is bit 1 of the second.
  table[11] = nullptr;
  FlagIOClass custom(table.data());
  const auto* bits = static_cast<const unsigned char*>(custom.Buffer());
  for (int id : {509, 500, 502, 510, 499}) custom.Set(id, true);  // 510 and 499 lie outside: ignored
  EXPECT_EQ(bits[0] | bits[1] << 8, 0x0205);
  custom.Set(500, false);
  EXPECT_EQ(bits[0] | bits[1] << 8, 0x0204);
  EXPECT_EQ((std::vector<bool>{custom.Get(499), custom.Get(500), custom.Get(502), custom.Get(509), custom.Get(510)}),
            (std::vector<bool>{false, false, true, true, false}));
  custom.Clear();
  EXPECT_EQ(bits[0] | bits[1] << 8, 0);
}

// Panel-state files in a fresh directory.
class PanelStateTest : public ::testing::Test {
 protected:
  void SetUp() override { heapman_mgr::initialize(); }

  pathname path(const std::string& name) const { return pathname(kvtest::dos_path(dir_.file(name)).c_str()); }
  std::string read(const std::string& name) const { return kvtest::read_file(dir_.file(name)); }

  // Writes a file back-dated by a day, so that a later write shows in its modification time.
  void write_aged(const std::string& name, const std::string& text) const {
    kvtest::write_file(dir_.file(name), text);
    fs::last_write_time(dir_.file(name), fs::file_time_type::clock::now() - std::chrono::hours(24));
  }
  // The text of a file written since write_aged, or what else it is.
  std::string result(const std::string& name) const {
    if (!fs::exists(dir_.file(name))) return "(absent)";
    const bool written = fs::last_write_time(dir_.file(name)) > fs::file_time_type::clock::now() - std::chrono::hours(1);
    return written ? read(name) : "(not written)";
  }

  kvtest::TempDir dir_;
};

// One tracking session on a file (absent for a null text): what it leaves on disk.
TEST_F(PanelStateTest, ASessionWritesOnlyWhenSomethingChanged) {
  using Body = std::function<void(PanelStateSave&)>;
  char* value = nullptr;
  const std::tuple<const char*, Body, const char*> cases[] = {
      {"Panel state\nKeep = 1\nDrop = 2\n",
       [&](PanelStateSave& s) {  // an empty or null value removes the record
         EXPECT_TRUE(s.StringWrite("Drop", ""));
         s.StringWrite("Keep", nullptr);
         s.StringWrite("New", "a");
         s.StringWrite("New", "b");  // changes the record in place
       },
       "Panel state\r\n\r\nNew = b\r\n"},
      {"Panel state\nKeep = 1\n", [](PanelStateSave& s) { s.StringWrite("Absent", ""); },  // still a change
       "Panel state\r\n\r\nKeep = 1\r\n"},
      {"Panel state\nStage\n{\n\tSpeed = 7\n}\n",
       [&](PanelStateSave& s) {  // reading, entering and leaving a section with items change nothing
         EXPECT_TRUE(s.Seek("Stage") && s.StringRead("Speed", value) && std::string(value) == "7");
         EXPECT_TRUE(s.Seek(nullptr));
       },
       "(not written)"},
      {"Panel state\nHold = 1\n",
       [](PanelStateSave& s) {  // leaving an empty section removes it
         EXPECT_FALSE(s.Seek(nullptr)) << "nothing to leave at the top";
         EXPECT_TRUE(s.Seek("Visited"));
         EXPECT_FALSE(s.Handle()->Changed()) << "adding a section is no change by itself";
         EXPECT_TRUE(s.Seek("Inner") && s.Seek(nullptr));
         EXPECT_TRUE(s.Handle()->Changed());
         EXPECT_TRUE(s.Seek(nullptr) && s.Seek("Kept") && s.StringWrite("Value", "3") && s.Seek(nullptr));
       },
       "Panel state\r\n\r\nHold = 1\r\nKept\r\n{\r\n\tValue = 3\r\n}\r\n"},
      {nullptr, [&](PanelStateSave& s) { EXPECT_FALSE(s.StringRead("Speed", value)); }, "(absent)"},
  };
  for (const auto& [before, body, after] : cases) {
    SCOPED_TRACE(before != nullptr ? before : "(absent)");
    fs::remove(dir_.file("s.pan"));
    if (before != nullptr) write_aged("s.pan", before);
    PanelStateSave save(path("s.pan"));
    save.TrackOpen();
    body(save);
    save.TrackClose();
    EXPECT_EQ(result("s.pan"), after);
  }
}

TEST_F(PanelStateTest, SharersReadOnceWriteAtTheLastCloseAndDropTheHandle) {
  write_aged("p.pan", "Panel state\nStage\n{\n\tSpeed = 5\n}\n");
  auto* first = new PanelStateSave(path("p.pan"));
  first->BaseName("Stage");
  PanelStateSave second(*first);
  EXPECT_EQ(first->Handle()->RefCount(), 2);
  EXPECT_STREQ(second.BasePath(), "Stage");
  first->TrackOpen();
  first->TrackOpen();
  // Changed on disk after the first open: the sharer must not read it again.
  write_aged("p.pan", "Panel state\nStage\n{\n\tSpeed = 9\n}\n");
  second.TrackOpen();
  second.TrackOpen();
  EXPECT_EQ(second.TrackDepth(), 2);
  EXPECT_EQ(first->Handle()->OpenCount(), 2) << "a saver opens the handle once however deep it tracks";
  char* value = nullptr;
  EXPECT_TRUE(second.StringRead("Speed", value) && std::string(value) == "5");
  EXPECT_TRUE(second.StringWrite("Accel", "12"));
  second.TrackClose();
  second.TrackClose();
  EXPECT_EQ(result("p.pan"), "(not written)") << "not before the last close";
  delete first;  // closes its tracking: the last close writes
  EXPECT_EQ(read("p.pan"), "Panel state\r\n\r\nStage\r\n{\r\n\tSpeed = 5\r\n\tAccel = 12\r\n}\r\n");
  EXPECT_EQ(std::make_pair(second.Handle()->RefCount(), second.Handle()->OpenCount()), std::make_pair(1, 0));
  EXPECT_EQ(second.Handle()->TreeRoot()->Count(), 0) << "the tree is freed between uses";
  second.TrackClose();  // not tracking: nothing happens
  EXPECT_EQ(second.TrackDepth(), 0);

  // Outside tracking nothing is read or written.
  value = reinterpret_cast<char*>(1);
  EXPECT_FALSE(second.StringRead("Speed", value) || second.StringWrite("Left", "x") || second.Seek("Any"));
  EXPECT_EQ(value, nullptr);
}

TEST_F(PanelStateTest, LongNameLivesInProfilesBelowTheBasePath) {
  PanelStateSave save(path("l.pan"));
  save.BasePath("Panels\0Stage\0");  // the literal adds the second NUL
  save.SetLongName("Operator A");
  EXPECT_STREQ(save.LongName(), "Operator A");
  EXPECT_EQ(save.TrackDepth(), 0);
  EXPECT_EQ(read("l.pan"),
            "Panel state\r\n\r\nPanels\r\n{\r\n\tStage\r\n\t{\r\n\t\tProfiles:\r\n\t\t{\r\n\t\t\tName = Operator A"
            "\r\n\t\t}\r\n\t}\r\n}\r\n");
  save.SetLongName(nullptr);
  EXPECT_STREQ(save.LongName(), "");
  // Profiles: went with its last record; the base sections stay.
  EXPECT_EQ(read("l.pan"), "Panel state\r\n\r\nPanels\r\n{\r\n\tStage\r\n\t{\r\n\t}\r\n}\r\n");

  // With another record beside it, only Name goes.
  write_aged("m.pan", "Panel state\nProfiles:\n{\n\tName = Old\n\tColour = red\n}\n");
  PanelStateSave other(path("m.pan"));
  other.SetLongName(nullptr);
  EXPECT_EQ(read("m.pan"), "Panel state\r\n\r\nProfiles:\r\n{\r\n\tColour = red\r\n}\r\n");
}

TEST_F(PanelStateTest, BasePathsAreRestoredAndCanBeTakenFromTheCursor) {
  write_aged("b.pan", "Panel state\nPanels\n{\n\tStage\n\t{\n\t\tX = 1\n\t}\n}\n");
  PanelStateSave save(path("b.pan"));
  save.TrackOpen();
  EXPECT_TRUE(save.Seek("Panels") && save.Seek("Stage"));
  save.BaseHere();
  save.TrackClose();
  save.BaseHere();  // not tracking: kept
  ASSERT_NE(save.BasePath(), nullptr);
  EXPECT_EQ(std::string(save.BasePath(), 14), std::string("Panels\0Stage\0\0", 14));

  PanelStateSave copy(save);
  copy.TrackOpen();
  char* value = nullptr;
  EXPECT_TRUE(copy.StringRead("X", value) && std::string(value) == "1");
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
  // A process that never uses the default file leaves no file behind at exit;
  // one that leaves it open with a change gets it written.
  const std::string file = kvtest::dos_path(dir_.file("used.pan"));
  for (const bool use : {false, true}) {
    const int status = kvtest::run_in_child([&] {
      PanelStateSaveDefault.Path(pathname(file.c_str()));
      PanelStateSaveDefault.TrackOpen();
      if (use) PanelStateSaveDefault.StringWrite("Exit", "written");
      std::exit(0);
      return 0;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(result("used.pan"), use ? "Panel state\r\n\r\nExit = written\r\n" : "(absent)");
  }
}

}  // namespace
