// kvtool: what every system's executable reader shares: the function lookup,
// the map file and readable names.
#include <cxxabi.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "kvtool_image.h"

namespace kvtool {

bool ExecutableImage::keep(std::vector<Candidate>& candidates) {
  std::stable_sort(candidates.begin(), candidates.end(), [](const Candidate& a, const Candidate& b) {
    return a.function.address != b.function.address ? a.function.address < b.function.address : a.rank < b.rank;
  });
  for (Candidate& candidate : candidates)
    if (functions_.empty() || functions_.back().address != candidate.function.address)
      functions_.push_back(std::move(candidate.function));
  return !functions_.empty();
}

const ImageFunction* ExecutableImage::function_at(uint64_t address) const {
  auto above = std::upper_bound(functions_.begin(), functions_.end(), address,
                                [](uint64_t value, const ImageFunction& f) { return value < f.address; });
  if (above == functions_.begin()) return nullptr;
  const ImageFunction& found = *(above - 1);
  const uint64_t end = found.size != 0 ? found.address + found.size
                                       : (above != functions_.end() ? above->address : found.address + 1);
  return address < end ? &found : nullptr;
}

std::string map_text(const ExecutableImage& image, const std::string& title) {
  std::string text;
  char line[512];
  std::snprintf(line, sizeof line,
                " %s\r\n\r\n Preferred load address is %016" PRIX64 "\r\n\r\n"
                "  Address         Publics by Value              Rva+Base               Lib:Object\r\n\r\n",
                title.c_str(), image.load_address());
  text += line;
  for (const ImageFunction& function : image.functions()) {
    std::snprintf(line, sizeof line, " 0001:%08" PRIX64 "       ", function.address - image.code_start());
    text += line;
    text += function.name;
    const size_t pad = function.name.size() < 26 ? 26 - function.name.size() : 0;
    std::snprintf(line, sizeof line, "%*s %016" PRIX64 " f\r\n", static_cast<int>(pad), "", function.address);
    text += line;
  }
  return text;
}

std::string demangle(const std::string& name) {
  int status = 0;
  char* readable = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
  if (readable == nullptr) return name;
  std::string result = readable;
  std::free(readable);
  return result;
}

}  // namespace kvtool
