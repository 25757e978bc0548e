// Ordered maps against std::map on the same keys: find, insert (random
// order), erase (random order) and ascending append, at 1e3, 1e5 and 1e6
// entries.  The in-memory map runs through the map* interface with string
// keys and a strcmp comparison; the heap map through maph* with numeric
// keys.  Times are per operation (items_processed); every benchmark runs
// five times and reports the median.
//
// Look-ups probe with a random stream of 2^20 keys drawn from the map's
// own keys.  A shorter stream, or the keys in a fixed cycle, is learnt by
// the branch predictor at small sizes and makes every map look several
// times faster than it is.  For the same reason insertion and erasure take
// the keys in a new random order for every map they fill or empty,
// shuffled outside the timing; both sides of a comparison see the same
// sequence of orders.
#include <benchmark/benchmark.h>
#include <containers/map.h>
#include <containers/maph.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

namespace {

// --------------------------------------------------------------- keys

// n distinct random keys in random order, and the same keys ascending.
struct StringKeys {
  std::vector<std::string> text;
  std::vector<const char *> shuffled, ascending;
};

const StringKeys &string_keys(size_t n) {
  static std::map<size_t, StringKeys> cache;
  StringKeys &k = cache[n];
  if (k.text.empty()) {
    std::mt19937_64 rng(n);
    std::unordered_set<std::string> seen;
    char buf[32];
    while (seen.size() < n) {
      std::snprintf(buf, sizeof buf, "key:%016llx", static_cast<unsigned long long>(rng()));
      seen.insert(buf);
    }
    k.text.assign(seen.begin(), seen.end());
    for (const std::string &s : k.text) k.shuffled.push_back(s.c_str());
    std::shuffle(k.shuffled.begin(), k.shuffled.end(), rng);
    k.ascending = k.shuffled;
    std::sort(k.ascending.begin(), k.ascending.end(),
              [](const char *a, const char *b) { return std::strcmp(a, b) < 0; });
  }
  return k;
}

struct NumberKeys {
  std::vector<QVA_HVID> shuffled, ascending;
};

const NumberKeys &number_keys(size_t n) {
  static std::map<size_t, NumberKeys> cache;
  NumberKeys &k = cache[n];
  if (k.shuffled.empty()) {
    std::mt19937 rng(static_cast<uint32_t>(n));
    std::unordered_set<QVA_HVID> seen;
    while (seen.size() < n) seen.insert(rng());
    k.shuffled.assign(seen.begin(), seen.end());
    std::shuffle(k.shuffled.begin(), k.shuffled.end(), rng);
    k.ascending = k.shuffled;
    std::sort(k.ascending.begin(), k.ascending.end());
  }
  return k;
}

// kProbes keys drawn at random (with repetition) from `keys`.
constexpr size_t kProbes = size_t{1} << 20;

template <class Key>
std::vector<Key> probe_stream(const std::vector<Key> &keys) {
  std::mt19937_64 rng(keys.size() * 7919 + 1);
  std::uniform_int_distribution<size_t> pick(0, keys.size() - 1);
  std::vector<Key> probes(kProbes);
  for (Key &k : probes) k = keys[pick(rng)];
  return probes;
}

// -------------------------------------------------------------- maps

int string_compare(const void *key, const void *stored) {
  return std::strcmp(static_cast<const char *>(key), static_cast<const char *>(stored));
}
int number_compare(QVA_HVID key, QVA_HVID stored) { return (key > stored) - (key < stored); }

struct StrLess {
  bool operator()(const char *a, const char *b) const { return std::strcmp(a, b) < 0; }
};

struct MapRbStrings {
  using Key = const char *;
  static const std::vector<Key> &shuffled(size_t n) { return string_keys(n).shuffled; }
  static const std::vector<Key> &ascending(size_t n) { return string_keys(n).ascending; }
  MAP_RB_NODE *m = mapInit();
  MapRbStrings() = default;
  MapRbStrings(const MapRbStrings &) = delete;
  ~MapRbStrings() { mapFree(m); }
  void insert(Key k) { mapInsert(m, const_cast<char *>(k), nullptr, string_compare); }
  bool find(Key k) { return mapFind(m, k, string_compare) != nullptr; }
  void erase(Key k) { mapErase(mapFind(m, k, string_compare)); }
};

struct StdMapStrings {
  using Key = const char *;
  static const std::vector<Key> &shuffled(size_t n) { return string_keys(n).shuffled; }
  static const std::vector<Key> &ascending(size_t n) { return string_keys(n).ascending; }
  std::map<const char *, void *, StrLess> m;
  void insert(Key k) { m.insert_or_assign(k, nullptr); }
  bool find(Key k) { return m.find(k) != m.end(); }
  void erase(Key k) { m.erase(k); }
};

struct MaphNumbers {
  using Key = QVA_HVID;
  static const std::vector<Key> &shuffled(size_t n) { return number_keys(n).shuffled; }
  static const std::vector<Key> &ascending(size_t n) { return number_keys(n).ascending; }
  QVA_HVID m = maphInit();
  MaphNumbers() = default;
  MaphNumbers(const MaphNumbers &) = delete;
  ~MaphNumbers() { maphFree(m); }
  void insert(Key k) { maphInsert(m, k, 0, number_compare); }
  bool find(Key k) { return maphFind(m, k, number_compare) != 0; }
  void erase(Key k) { maphErase(maphFind(m, k, number_compare)); }
};

struct StdMapNumbers {
  using Key = QVA_HVID;
  static const std::vector<Key> &shuffled(size_t n) { return number_keys(n).shuffled; }
  static const std::vector<Key> &ascending(size_t n) { return number_keys(n).ascending; }
  std::map<QVA_HVID, QVA_HVID> m;
  void insert(Key k) { m.insert_or_assign(k, 0); }
  bool find(Key k) { return m.find(k) != m.end(); }
  void erase(Key k) { m.erase(k); }
};

// --------------------------------------------------------- benchmarks

// Look-ups of present keys in a map of n entries, in a random stream.
template <class M>
void Find(benchmark::State &state) {
  const size_t n = static_cast<size_t>(state.range(0));
  const auto &keys = M::shuffled(n);
  M map;
  for (auto k : keys) map.insert(k);
  const std::vector<typename M::Key> probes = probe_stream(keys);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(map.find(probes[i]));
    i = (i + 1) & (kProbes - 1);
  }
  state.SetItemsProcessed(state.iterations());
}

// The keys of a map in a new random order on every call to next(); the
// same sequence of orders for every map type of one size.
template <class Key>
class KeyOrders {
 public:
  explicit KeyOrders(const std::vector<Key> &keys) : order_(keys), rng_(keys.size() * 104729 + 3) {}
  const std::vector<Key> &next() {
    std::shuffle(order_.begin(), order_.end(), rng_);
    return order_;
  }

 private:
  std::vector<Key> order_;
  std::mt19937_64 rng_;
};

// Filling an empty map with n keys in random order (per insertion).
template <class M>
void Insert(benchmark::State &state) {
  const size_t n = static_cast<size_t>(state.range(0));
  KeyOrders<typename M::Key> orders(M::shuffled(n));
  for (auto _ : state) {
    state.PauseTiming();
    const auto &order = orders.next();
    auto *map = new M;
    state.ResumeTiming();
    for (auto k : order) map->insert(k);
    state.PauseTiming();  // the map is freed outside the timing
    delete map;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n));
}

// Emptying a map of n keys in random order (per erase, search included);
// the map is filled just before, in another random order, outside the
// timing, so that a small map is as warm in the caches as after its use.
template <class M>
void Erase(benchmark::State &state) {
  const size_t n = static_cast<size_t>(state.range(0));
  KeyOrders<typename M::Key> orders(M::shuffled(n));
  std::vector<typename M::Key> order;
  for (auto _ : state) {
    state.PauseTiming();
    auto *map = new M;
    for (auto k : orders.next()) map->insert(k);
    order = orders.next();
    state.ResumeTiming();
    for (auto k : order) map->erase(k);
    state.PauseTiming();
    delete map;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n));
}

// Filling an empty map with n keys in ascending order (per insertion).
template <class M>
void Append(benchmark::State &state) {
  const size_t n = static_cast<size_t>(state.range(0));
  const auto &keys = M::ascending(n);
  for (auto _ : state) {
    auto *map = new M;
    for (auto k : keys) map->insert(k);
    state.PauseTiming();
    delete map;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n));
}

#define CONTAINER_BENCH(op, M)                                                        \
  BENCHMARK_TEMPLATE(op, M)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kNanosecond) \
      ->Repetitions(5)->ReportAggregatesOnly(true)

CONTAINER_BENCH(Find, MapRbStrings);
CONTAINER_BENCH(Find, StdMapStrings);
CONTAINER_BENCH(Insert, MapRbStrings);
CONTAINER_BENCH(Insert, StdMapStrings);
CONTAINER_BENCH(Erase, MapRbStrings);
CONTAINER_BENCH(Erase, StdMapStrings);
CONTAINER_BENCH(Append, MapRbStrings);
CONTAINER_BENCH(Append, StdMapStrings);

CONTAINER_BENCH(Find, MaphNumbers);
CONTAINER_BENCH(Find, StdMapNumbers);
CONTAINER_BENCH(Insert, MaphNumbers);
CONTAINER_BENCH(Insert, StdMapNumbers);
CONTAINER_BENCH(Erase, MaphNumbers);
CONTAINER_BENCH(Erase, StdMapNumbers);
CONTAINER_BENCH(Append, MaphNumbers);
CONTAINER_BENCH(Append, StdMapNumbers);

}  // namespace

BENCHMARK_MAIN();
