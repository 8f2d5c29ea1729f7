// Reading two unit texts and computing the conversion factor between them:
// Units::Read and Units::Scale against UDUNITS-2 (ut_parse of both texts,
// ut_get_converter, cv_convert_double). Ours should take at most a tenth of
// the time.
#include <benchmark/benchmark.h>
#include <udunits2.h>

#include <cstdio>

#include "MEASURE.h"
#include "bench_support.h"

namespace {

ut_system* udunits() {
  static ut_system* system = [] {
    ut_set_error_message_handler(ut_ignore);
    return ut_read_xml(nullptr);
  }();
  return system;
}

void BM_UnitsReadAndScale(benchmark::State& state) {
  for (auto _ : state) {
    Units a("nm/V");
    Units b("um/mV");
    double k = a.Scale(b);
    benchmark::DoNotOptimize(k);
  }
}

void BM_UdunitsParseAndConvert(benchmark::State& state) {
  ut_system* system = udunits();
  if (system == nullptr) {
    state.SkipWithError("the UDUNITS-2 database could not be read");
    return;
  }
  for (auto _ : state) {
    ut_unit* a = ut_parse(system, "nm/V", UT_ASCII);
    ut_unit* b = ut_parse(system, "um/mV", UT_ASCII);
    cv_converter* c = ut_get_converter(b, a);
    double k = cv_convert_double(c, 1.0);
    benchmark::DoNotOptimize(k);
    cv_free(c);
    ut_free(b);
    ut_free(a);
  }
}

BENCHMARK(BM_UnitsReadAndScale);
BENCHMARK(BM_UdunitsParseAndConvert);

}  // namespace

int main(int argc, char** argv) {
  // Both sides must agree before their speed means anything.
  ut_system* system = udunits();
  if (system != nullptr) {
    ut_unit* a = ut_parse(system, "nm/V", UT_ASCII);
    ut_unit* b = ut_parse(system, "um/mV", UT_ASCII);
    cv_converter* c = ut_get_converter(b, a);
    std::printf("factor um/mV -> nm/V: ours %.17g, UDUNITS-2 %.17g\n", Units("nm/V").Scale(Units("um/mV")),
                cv_convert_double(c, 1.0));
    cv_free(c);
    ut_free(b);
    ut_free(a);
  }
  return kvbench::run_with_ratios(
      argc, argv, {{"Units read nm/V, um/mV + Scale vs UDUNITS-2", "BM_UnitsReadAndScale", "BM_UdunitsParseAndConvert", 0.1}});
}
