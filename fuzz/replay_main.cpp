// Replays a corpus through a fuzz target without the fuzzing engine: every
// file of each directory argument (in name order) goes once to
// LLVMFuzzerTestOneInput, so a compiler without libFuzzer runs the corpora as
// regression tests. A broken invariant traps; a missing or empty corpus fails.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  if (argc < 2) return std::fprintf(stderr, "usage: %s CORPUS_DIRECTORY...\n", argv[0]), 2;
  for (int i = 1; i < argc; ++i) {
    std::error_code error;
    std::set<std::filesystem::path> inputs;
    for (const auto& entry : std::filesystem::directory_iterator(argv[i], error))
      if (entry.is_regular_file()) inputs.insert(entry.path());
    if (error || inputs.empty()) {
      std::fprintf(stderr, "%s: no corpus files (%s)\n", argv[i], error ? error.message().c_str() : "empty");
      return 1;
    }
    for (const std::filesystem::path& input : inputs) {
      std::ifstream file(input, std::ios::binary);
      if (!file) return std::fprintf(stderr, "%s: cannot be read\n", input.string().c_str()), 1;
      const std::string data{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
    }
    std::printf("%s: %zu inputs replayed\n", argv[i], inputs.size());
  }
  return 0;
}
