// Fuzzes the reading of unit texts and measurements. The input is one or two
// texts separated by a NUL: the first is read as units, the second as a
// measurement. Writing, conversion factors, cancellation, automatic prefixes
// and formatting then run on what was read. Any broken invariant traps;
// AddressSanitizer guards every buffer at its exact size.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "MEASURE.h"

extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "alloc_dealloc_mismatch=0";
}

namespace {

void check(bool condition) {
  if (!condition) __builtin_trap();
}

// Writes u into a buffer of exactly WriteSize() bytes.
std::string written(const Units& u) {
  std::vector<char> out(u.WriteSize());
  char* end = u.Write(out.data());
  check(end >= out.data() && end < out.data() + out.size());
  check(*end == '\0' && std::strlen(out.data()) == std::size_t(end - out.data()));
  return std::string(out.data(), end);
}

void check_list(const UnitList& l) {
  int count = 0;
  UnitIter it(l);
  for (UnitElt* e = it.First(); e != nullptr; e = it.Next()) {
    ++count;
    char out[11];  // the most one factor writes
    const char* end = e->Write(out);
    check(std::size_t(end - out) <= 10);
    const UnitType t = *e;
    if (t == CustomUnit) {
      check(e->CustomText() != nullptr && std::strlen(e->CustomText()) <= 10);
      check(Prefix(*e) == NoPrefix);
    } else {
      check(e->CustomText() == nullptr && t != DegreeText);
    }
    check(count <= 1000000);
  }
  check(count == l.NumberOfUnits());
}

void check_units(const Units& u) {
  check_list(u.Numerator());
  check_list(u.Denominator());
  check(u.Scale(u) == 1.0);
  check(u == u && u.SameType(u));
  const std::string text = written(u);
  // (A token of blanks before a separator is a custom factor with an empty text.)
  check(!u.IsScalar() || text.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t split = input.find('\0');
  const std::string first = input.substr(0, split);
  const std::string second = split == std::string::npos ? std::string() : input.substr(split + 1).c_str();

  Units u;
  const char* end = u.Read(first.c_str());
  check(first.empty() ? end == nullptr : end == first.c_str() + first.size());
  check_units(u);

  UnitElt single(first.c_str());
  char factor[11];
  check(std::size_t(single.Write(factor) - factor) <= 10);

  Units copy(u);
  check(copy == u);
  const int before = copy.Numerator().NumberOfUnits() + copy.Denominator().NumberOfUnits();
  copy.Simplify();
  check(copy.Numerator().NumberOfUnits() + copy.Denominator().NumberOfUnits() <= before);
  check_units(copy);

  Units product(u);
  product *= copy;
  check_units(product);
  product /= u;
  check_units(product);
  product.Invert();
  check_units(product);

  Meas m;
  const char* stop = m.Read(second.c_str());
  check(stop >= second.c_str() && stop <= second.c_str() + second.size());
  check_units(m.GetUnits());
  Meas scaled = m.AutoScale();
  check_units(scaled.GetUnits());
  if (std::isfinite(m.GetValue()) && m.GetValue() != 0.0 && std::fabs(m.GetValue()) < 1e250 &&
      std::fabs(m.GetValue()) > 1e-250 && scaled.GetUnits().SameType(m.GetUnits())) {
    // The quantity is kept.
    const double back = scaled.GetValue(m.GetUnits());
    check(std::fabs(back - m.GetValue()) <= 1e-9 * std::fabs(m.GetValue()));
  }

  Units mark(u);
  mark.SetAuto();
  check_units(mark);
  mark.AutoScale(m.GetValue());
  check_units(mark);

  // Formatting: the value always; the unit text only when it holds no "%",
  // which the formatter's second pass would take as a directive.
  std::vector<char> out(2 * m.GetUnits().WriteSize() + 1024);
  const int n = m.sprintf(out.data(), "%V|%12.3v|%-6V");
  check(n >= 0 && std::size_t(n) == std::strlen(out.data()));
  if (written(m.GetUnits()).find('%') == std::string::npos) {
    const int k = m.sprintf(out.data(), "%V %U|%-20.5U|%%");
    check(k >= 0 && std::size_t(k) == std::strlen(out.data()));
  }
  return 0;
}
