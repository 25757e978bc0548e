// QVAdsMap's INSERT, GETDATA and KEYEXISTS through the registered routines,
// as the language calls them, next to std::map<std::string, value> doing
// the same work in the same run.  Keys are held in variables beforehand,
// as a program would hold them; each map operation also makes and deletes
// the probe heap variable the class needs for its comparisons.  Inserts
// take the keys in a new random order every iteration (shuffled outside
// the timing): one order repeated is learnt at 1e3 and made the reference
// look four times faster than with any other.  Look-ups
// take their keys from a random stream of 2^20 probes (a fixed cycle of
// the keys is learnt by the branch predictor at small sizes).  Every
// benchmark runs five times and reports the median.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <variant>
#include <vector>

#include <qva/qva.h>

#include "bench_module.h"
#include "qva_host.h"

namespace {

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
  // The argument list is reused, as a program's is: no allocation per call
  // that the std::map side does not make.
  std::vector<QVA_VPTR> args;
  void insert(QVA_VPTR k, QVA_VPTR v) {
    args.assign({k, v});
    qvahost::call_method_procedure(ref.get(), "INSERT", args);
  }
  QVA_VPTR call(const char *method, QVA_VPTR k) {
    args.assign({k});
    return qvahost::call_method_function(ref.get(), method, args);
  }
};

using Value = std::variant<long, double, std::string>;

void BM_DsMapInsert(benchmark::State &state) {
  qvabench::load_module_once();
  Inputs in(static_cast<int>(state.range(0)));
  std::vector<QVA_VPTR> order;
  for (auto &k : in.keys) order.push_back(k->get());
  std::mt19937 rng(7);
  for (auto _ : state) {
    state.PauseTiming();
    auto map = std::make_unique<DsMapObject>();
    std::shuffle(order.begin(), order.end(), rng);
    state.ResumeTiming();
    for (QVA_VPTR k : order) map->insert(k, in.value.get());
    state.PauseTiming();
    map.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_StdMapInsert(benchmark::State &state) {
  std::vector<std::string> keys = shuffled_keys(static_cast<int>(state.range(0)));
  std::mt19937 rng(7);
  for (auto _ : state) {
    auto map = std::make_unique<std::map<std::string, Value>>();
    for (const std::string &k : keys) (*map)[k] = Value(1.5);
    benchmark::DoNotOptimize(*map);
    state.PauseTiming();  // freed outside the timing, as the QVAdsMap is
    map.reset();
    std::shuffle(keys.begin(), keys.end(), rng);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Indices of kProbes keys drawn at random (with repetition) from n.
constexpr size_t kProbes = size_t{1} << 20;

std::vector<uint32_t> probe_stream(size_t n) {
  std::mt19937_64 rng(n * 7919 + 3);
  std::uniform_int_distribution<uint32_t> pick(0, static_cast<uint32_t>(n - 1));
  std::vector<uint32_t> probes(kProbes);
  for (uint32_t &p : probes) p = pick(rng);
  return probes;
}

template <bool kGetData>
void BM_DsMapLookup(benchmark::State &state) {
  qvabench::load_module_once();
  Inputs in(static_cast<int>(state.range(0)));
  DsMapObject map;
  for (auto &k : in.keys) map.insert(k->get(), in.value.get());
  const std::vector<uint32_t> probes = probe_stream(in.keys.size());
  const char *method = kGetData ? "GETDATA" : "KEYEXISTS";
  size_t i = 0;
  for (auto _ : state) {
    QVA_VPTR r = map.call(method, in.keys[probes[i]]->get());
    benchmark::DoNotOptimize(r->value);
    QVA_Deltmp(r);
    i = (i + 1) & (kProbes - 1);
  }
  state.SetItemsProcessed(state.iterations());
}

template <bool kGetData>
void BM_StdMapLookup(benchmark::State &state) {
  std::vector<std::string> keys = shuffled_keys(static_cast<int>(state.range(0)));
  std::map<std::string, Value> map;
  for (const std::string &k : keys) map[k] = Value(1.5);
  const std::vector<uint32_t> probes = probe_stream(keys.size());
  size_t i = 0;
  for (auto _ : state) {
    const std::string &k = keys[probes[i]];
    if constexpr (kGetData) {
      Value copy = map.find(k)->second;  // GETDATA hands back a copy
      benchmark::DoNotOptimize(copy);
    } else {
      benchmark::DoNotOptimize(map.count(k));
    }
    i = (i + 1) & (kProbes - 1);
  }
  state.SetItemsProcessed(state.iterations());
}

#define DSMAP_BENCH(f) f->Arg(1000)->Arg(100000)->Repetitions(5)->ReportAggregatesOnly(true)
DSMAP_BENCH(BENCHMARK(BM_DsMapInsert))->Unit(benchmark::kMillisecond);
DSMAP_BENCH(BENCHMARK(BM_StdMapInsert))->Unit(benchmark::kMillisecond);
DSMAP_BENCH(BENCHMARK(BM_DsMapLookup<true>)->Name("BM_DsMapGetData"));
DSMAP_BENCH(BENCHMARK(BM_StdMapLookup<true>)->Name("BM_StdMapGetData"));
DSMAP_BENCH(BENCHMARK(BM_DsMapLookup<false>)->Name("BM_DsMapKeyExists"));
DSMAP_BENCH(BENCHMARK(BM_StdMapLookup<false>)->Name("BM_StdMapKeyExists"));

}  // namespace
