// A small host of SystemKvCore: captures the library's debug output through
// the logging service, converts a measurement, steps a numbered file name and
// reads a parameter from an instrument file held in memory. Prints what it
// got and exits with 1 when anything differs from what it expects.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "SystemKvCore.h"

namespace {

struct Capture : Zub::Core::LogSink {
  std::vector<std::string> lines;
  void Write(const std::string& logger, int, const std::string& text) override {
    lines.push_back(logger + ": " + text.substr(0, text.find('\n')));
  }
};

int failures = 0;

void expect(const std::string& what, const std::string& got, const std::string& wanted) {
  std::printf("%-12s %s\n", what.c_str(), got.c_str());
  if (got != wanted) {
    std::fprintf(stderr, "%s: expected \"%s\"\n", what.c_str(), wanted.c_str());
    ++failures;
  }
}

}  // namespace

int main() {
  heapman_mgr::initialize();
  Capture capture;
  Zub::Core::LogManager::Instance()->AddSink(&capture);
  CSL::DebugManager::DebugFlagSet(dbgA, true);
  Debug("host started\n");
  Zub::Core::LogManager::Instance()->RemoveSink(&capture);
  expect("debug", capture.lines.empty() ? "" : capture.lines[0], "Korvalis.A: host started");

  char text[64];
  Meas(5000, "nm").AutoScale().sprintf(text);
  expect("measurement", text, "5.000 um");

  pathname run("c:\\data\\run.007");
  ++run;
  expect("path", *run, "c:\\data\\run.008");

  // A text to read is a block of the library's allocator, as a file loader would give.
  const char file[] = "Korvalis Data File\r\nStage\r\n{\r\n\tSpeed = 12.5\r\n}\r\n";
  char* block = static_cast<char*>(KvOperatorNew(sizeof file));
  std::memcpy(block, file, sizeof file);
  float speed = 0;
  {
    InstrHandle instrument(static_cast<void*>(block));
    const bool found = instrument.Read() && instrument.FindSection("Stage", nullptr) && instrument.EnterSection() &&
                       instrument.FirstFloat("Speed", speed);
    std::snprintf(text, sizeof text, "%s %g", found ? "found" : "missing", speed);
  }
  KvOperatorDelete(block);
  expect("parameter", text, "found 12.5");
  return failures == 0 ? 0 : 1;
}
