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
  const char* begin = out.data();
  const char* end = u.Write(out.data());
  check(end >= begin && end < begin + out.size() && std::strlen(begin) == std::size_t(end - begin));
  return std::string(begin, end);
}

// Every factor writes at most 10 characters; only custom factors carry a text
// (of at most 10 characters) and no prefix; the count is the list's.
void check_list(const UnitList& l) {
  int count = 0;
  UnitIter it(l);
  for (UnitElt* e = it.First(); e != nullptr && ++count <= 1000000; e = it.Next()) {
    char out[11];
    check(std::size_t(e->Write(out) - out) <= 10);
    if (UnitType(*e) == CustomUnit)
      check(e->CustomText() != nullptr && std::strlen(e->CustomText()) <= 10 && Prefix(*e) == NoPrefix);
    else
      check(e->CustomText() == nullptr && UnitType(*e) != DegreeText);
  }
  check(count == l.NumberOfUnits());
}

// (A token of blanks before a separator is a custom factor with an empty text.)
void check_units(const Units& u) {
  check_list(u.Numerator());
  check_list(u.Denominator());
  check(u.Scale(u) == 1.0 && u == u && u.SameType(u) && (!u.IsScalar() || written(u).empty()));
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
  char factor[11];
  check(std::size_t(UnitElt(first.c_str()).Write(factor) - factor) <= 10);

  Units copy(u), product(u), mark(u);
  check(copy == u);
  const auto factors = [](const Units& x) { return x.Numerator().NumberOfUnits() + x.Denominator().NumberOfUnits(); };
  copy.Simplify();
  check(factors(copy) <= factors(u));
  product *= copy;
  check_units(product);
  product /= u;
  check_units(product);
  product.Invert();

  Meas m;
  const char* stop = m.Read(second.c_str());
  check(stop >= second.c_str() && stop <= second.c_str() + second.size());
  const Meas scaled = m.AutoScale();
  const double v = m.GetValue();
  // The quantity is kept.
  if (std::isfinite(v) && v != 0.0 && std::fabs(v) < 1e250 && std::fabs(v) > 1e-250 && scaled.GetUnits().SameType(m.GetUnits()))
    check(std::fabs(scaled.GetValue(m.GetUnits()) - v) <= 1e-9 * std::fabs(v));
  mark.SetAuto();
  check_units(mark);
  mark.AutoScale(v);
  for (const Units* x : std::vector<const Units*>{&u, &copy, &product, &m.GetUnits(), &scaled.GetUnits(), &mark}) check_units(*x);

  // Formatting: the value always; the unit text only when it holds no "%",
  // which the formatter's second pass would take as a directive.
  std::vector<char> out(2 * m.GetUnits().WriteSize() + 1024);
  for (const char* format : {"%V|%12.3v|%-6V", "%V %U|%-20.5U|%%"}) {
    if (std::strstr(format, "%U") != nullptr && written(m.GetUnits()).find('%') != std::string::npos) continue;
    const int n = m.sprintf(out.data(), format);
    check(n >= 0 && std::size_t(n) == std::strlen(out.data()));
  }
  return 0;
}
