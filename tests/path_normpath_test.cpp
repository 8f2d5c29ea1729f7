// dirname against Python's ntpath.normpath: generated absolute paths with a
// drive letter, ".", ".." and mixed case. Where we accept a path, our text
// must be normpath's (with the drive letter lower-cased); where we reject one,
// an independent check must name the rule it breaks; and no path that breaks
// a rule may be accepted.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>

#include "FILENAME.h"
#include "test_support.h"

namespace {

constexpr int kPaths = 1000;

const char kChecker[] = R"PY(
import ntpath, sys

LEGAL = set(" abcdefghijklmnopqrstuvwxyz0123456789_^$~!#%&-{}()@'`*?+,;=[]")
RESERVED = {"clock$", "con", "aux", "com1", "com2", "com3", "com4", "lpt1", "lpt2", "lpt3", "nul", "prn"}

def broken_rule(path):
    if len(path) < 3 or path[1] != ':' or path[2] != '\\':
        return "not an absolute path with a drive"
    parts = path[3:].split('\\')
    if parts and parts[-1] == '':
        parts.pop()                      # one trailing separator is allowed
    depth, length = 0, 2
    kept = []
    for p in parts:
        if p == '':
            return "empty component (doubled separator)"
        if p == '.':
            continue
        if p == '..':
            if not kept:
                return "'..' climbs above the drive root"
            kept.pop()
            continue
        if p.startswith('.'):
            return "component begins with a dot"
        for c in p:
            if c != '.' and ord(c) < 0x80 and c.lower() not in LEGAL:
                return "illegal character %r" % c
        base = p[:p.rfind('.')] if '.' in p else p
        if base in RESERVED:
            return "reserved device name"
        kept.append(p)
    if len('x:\\' + '\\'.join(kept)) > 256:
        return "longer than 256 characters"
    return None

failures, agreed, rejected = [], 0, {}
with open(sys.argv[1], encoding='latin-1', newline='\n') as f:
    for line in f:
        path, verdict, ours = line.rstrip('\n').split('\t')
        rule = broken_rule(path)
        if verdict == 'ok':
            if rule is not None:
                failures.append("accepted %r although it breaks: %s" % (path, rule))
                continue
            expected = ntpath.normpath(path)
            expected = expected[0].lower() + expected[1:]
            if ours != expected:
                failures.append("%r: ours %r, normpath %r" % (path, ours, expected))
            else:
                agreed += 1
        else:
            if rule is None:
                failures.append("rejected %r without breaking a rule" % path)
            else:
                key = rule.split(' %')[0] if rule.startswith('illegal') else rule
                rejected[key] = rejected.get(key, 0) + 1

print("agreed with normpath: %d" % agreed)
for rule, count in sorted(rejected.items()):
    print("rejected, %s: %d" % (rule, count))
for failure in failures[:40]:
    print("FAIL " + failure)
sys.exit(1 if failures else 0)
)PY";

class PathGenerator {
 public:
  std::string next() {
    for (;;) {
      std::string path;
      path += static_cast<char>(pick(2) ? 'A' + pick(26) : 'a' + pick(26));
      path += ":\\";
      const int count = pick(9);
      for (int i = 0; i < count; ++i) {
        if (i > 0) path += '\\';
        path += component();
      }
      if (count > 0 && pick(5) == 0) path += '\\';
      if (path.back() == ' ') continue;  // trailing blanks are trimmed from paths
      if (path.size() <= 256) return path;
    }
  }

 private:
  int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }

  std::string component() {
    const int kind = pick(100);
    if (kind < 12) return ".";
    if (kind < 25) return "..";
    if (kind < 27) return "...";
    if (kind < 29) return ".hidden";
    if (kind < 31) return "";
    std::string name;
    const int length = 1 + pick(12);
    static const std::string chars = "abcdefghijklmnopqrstuvwxyz0123456789_^$~!#%&-{}()@'`*?+,;=[] ";
    for (int i = 0; i < length; ++i) {
      char c = chars[static_cast<size_t>(pick(static_cast<int>(chars.size())))];
      if (pick(2)) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      if (pick(40) == 0) c = static_cast<char>(0xE9);
      name += c;
    }
    if (name[0] == ' ' && pick(2)) name[0] = 'n';
    switch (pick(6)) {
      case 0: name += ".txt"; break;
      case 1: name += "."; break;
      case 2: name.insert(name.size() / 2 + 1, ".."); break;
      case 3: name += ".a.b"; break;
      default: break;
    }
    return name;
  }

  std::mt19937 rng_{20240611};
};

}  // namespace

TEST(PathNormpath, AgreesWithPythonNtpath) {
  kvtest::TempDir tmp;
  const std::string data = tmp.file("paths.tsv");
  const std::string script = tmp.file("check.py");
  kvtest::write_file(script, kChecker);

  PathGenerator generator;
  std::string lines;
  int accepted = 0;
  for (int i = 0; i < kPaths; ++i) {
    const std::string path = generator.next();
    const dirname d(path.c_str());
    accepted += d.is_valid() ? 1 : 0;
    lines += path + (d.is_valid() ? "\tok\t" : "\trejected\t") + *d + "\n";
  }
  kvtest::write_file(data, lines);
  EXPECT_GT(accepted, kPaths / 2) << "the generator should mostly make acceptable paths";
  EXPECT_LT(accepted, kPaths) << "and some that break a rule";

  const std::string command = "python3 '" + script + "' '" + data + "' 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string output;
  char buffer[512];
  while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) output += buffer;
  const int status = pclose(pipe);
  EXPECT_EQ(status, 0) << output;
  EXPECT_NE(output.find("agreed with normpath: " + std::to_string(accepted) + "\n"), std::string::npos) << output;
  std::printf("%s", output.c_str());
}
