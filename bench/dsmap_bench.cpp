// QVAdsMap's INSERT, GETDATA and KEYEXISTS through the registered routines,
// as the language calls them, next to std::map<std::string, value> doing
// the same work in the same run.  Keys are held in variables beforehand,
// as a program would hold them; each map operation also makes and deletes
// the probe heap variable the class needs for its comparisons.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <variant>
#include <vector>

#include <qva/qva.h>

#include "qva_host.h"

namespace {

void load_once() {
  static const bool loaded = [] {
    qvahost::load_module(&QVA_Load, &QVA_ResetSession);
    return true;
  }();
  (void)loaded;
}

std::vector<std::string> shuffled_keys(int n) {
  std::vector<std::string> keys;
  for (int i = 0; i < n; ++i) keys.push_back("key-" + std::to_string(i * 2654435761u % 1000003u));
  std::shuffle(keys.begin(), keys.end(), std::mt19937(42));
  return keys;
}

// Key and value variables made once, outside the timed loops.
struct Inputs {
  std::vector<std::unique_ptr<qvahost::Variable>> keys;
  qvahost::Variable value{"V"};
  explicit Inputs(int n) {
    for (const std::string &k : shuffled_keys(n)) {
      keys.push_back(std::make_unique<qvahost::Variable>("K"));
      keys.back()->take(qvahost::make_string(k));
    }
    value.take(qvahost::make_double(1.5));
  }
};

struct DsMapObject {
  qvahost::Variable ref{"M"};
  DsMapObject() {
    QVA_VPTR cls = qvahost::make_string("QVADSMAP");
    ref.take(QVA_ObjNew(1, &cls, nullptr));
    QVA_Deltmp(cls);
  }
  ~DsMapObject() {
    QVA_VPTR r = ref.get();
    QVA_ObjDestroy(1, &r, nullptr);
  }
  void insert(QVA_VPTR k, QVA_VPTR v) { qvahost::call_method_procedure(ref.get(), "INSERT", {k, v}); }
};

using Value = std::variant<long, double, std::string>;

void BM_DsMapInsert(benchmark::State &state) {
  load_once();
  Inputs in(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    auto map = std::make_unique<DsMapObject>();
    state.ResumeTiming();
    for (auto &k : in.keys) map->insert(k->get(), in.value.get());
    state.PauseTiming();
    map.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_StdMapInsert(benchmark::State &state) {
  std::vector<std::string> keys = shuffled_keys(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    std::map<std::string, Value> map;
    for (const std::string &k : keys) map[k] = Value(1.5);
    benchmark::DoNotOptimize(map);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <bool kGetData>
void BM_DsMapLookup(benchmark::State &state) {
  load_once();
  Inputs in(static_cast<int>(state.range(0)));
  DsMapObject map;
  for (auto &k : in.keys) map.insert(k->get(), in.value.get());
  const char *method = kGetData ? "GETDATA" : "KEYEXISTS";
  for (auto _ : state) {
    for (auto &k : in.keys) {
      QVA_VPTR r = qvahost::call_method_function(map.ref.get(), method, {k->get()});
      benchmark::DoNotOptimize(r->value);
      QVA_Deltmp(r);
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <bool kGetData>
void BM_StdMapLookup(benchmark::State &state) {
  std::vector<std::string> keys = shuffled_keys(static_cast<int>(state.range(0)));
  std::map<std::string, Value> map;
  for (const std::string &k : keys) map[k] = Value(1.5);
  for (auto _ : state) {
    for (const std::string &k : keys) {
      if constexpr (kGetData) {
        Value copy = map.find(k)->second;  // GETDATA hands back a copy
        benchmark::DoNotOptimize(copy);
      } else {
        benchmark::DoNotOptimize(map.count(k));
      }
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

BENCHMARK(BM_DsMapInsert)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StdMapInsert)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DsMapLookup<true>)->Name("BM_DsMapGetData")->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StdMapLookup<true>)->Name("BM_StdMapGetData")->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DsMapLookup<false>)->Name("BM_DsMapKeyExists")->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StdMapLookup<false>)->Name("BM_StdMapKeyExists")->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
