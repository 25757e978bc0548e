// Resident memory per entry: a QVAdsMap entry (short string key, LONG
// value) and a registered procedure behaviour, at 1e5 each, next to an
// entry of std::map<std::string, long> in the same run.
//
// Each measurement runs in a child process of its own, so that what one
// leaves behind in the allocator cannot lower the next one's figure.  A
// child inherits the free memory of the benchmarks run before it in the
// parent, though: run these on their own (--benchmark_filter=Memory).  The
// child reads its resident set before and after making the n entries (the
// keys are made beforehand, as a program would hold them) and reports the
// difference divided by n as the counter bytes_per_entry.
#include <benchmark/benchmark.h>
#include <qva/qva.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench_module.h"
#include "qva_host.h"

namespace {

long resident_bytes() {
  long pages_total = 0, pages_resident = 0;
  FILE *f = std::fopen("/proc/self/statm", "r");
  if (!f) return -1;
  int got = std::fscanf(f, "%ld %ld", &pages_total, &pages_resident);
  std::fclose(f);
  return got == 2 ? pages_resident * sysconf(_SC_PAGESIZE) : -1;
}

std::string key_text(long i) { return "key-" + std::to_string(i * 2654435761u % 1000003u); }

// Runs prepare() then build() in a child; bytes per entry that build() added
// to the child's resident set, or a negative number on failure.
double measure_in_child(long n, const std::function<void()> &prepare,
                        const std::function<void()> &build) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    prepare();
    long before = resident_bytes();
    build();
    long after = resident_bytes();
    double per = static_cast<double>(after - before) / static_cast<double>(n);
    ssize_t w = write(fds[1], &per, sizeof per);
    _exit(w == sizeof per ? 0 : 1);
  }
  close(fds[1]);
  double per = -1;
  if (pid < 0 || read(fds[0], &per, sizeof per) != sizeof per) per = -1;
  close(fds[0]);
  int status = 0;
  if (pid > 0) waitpid(pid, &status, 0);
  return per;
}

void report(benchmark::State &state, double per) {
  if (per < 0) state.SkipWithError("the measuring child failed");
  state.counters["bytes_per_entry"] = per;
}

void BM_MemoryDsMapEntry(benchmark::State &state) {
  qvabench::load_module_once();
  const long n = state.range(0);
  for (auto _ : state) {
    std::vector<std::unique_ptr<qvahost::Variable>> keys;
    qvahost::Variable value{"V"}, map{"M"};
    auto prepare = [&] {
      for (long i = 0; i < n; ++i) {
        keys.push_back(std::make_unique<qvahost::Variable>("K"));
        keys.back()->take(qvahost::make_string(key_text(i)));
      }
      value.take(qvahost::make_long(7));
      map.take(qvahost::new_object("QVADSMAP"));
    };
    auto build = [&] {
      for (auto &k : keys) qvahost::call_method_procedure(map.get(), "INSERT", {k->get(), value.get()});
    };
    report(state, measure_in_child(n, prepare, build));
  }
}

void BM_MemoryStdMapEntry(benchmark::State &state) {
  const long n = state.range(0);
  for (auto _ : state) {
    std::vector<std::string> keys;
    std::map<std::string, long> map;
    auto prepare = [&] {
      for (long i = 0; i < n; ++i) keys.push_back(key_text(i));
    };
    auto build = [&] {
      for (const std::string &k : keys) map[k] = 7;
      benchmark::DoNotOptimize(map);
    };
    report(state, measure_in_child(n, prepare, build));
  }
}

// Procedure behaviours registered for one message at one handler.  The
// keyword values are made once, as a QVA loop's literals are: a copy of
// the procedure name shares its text.
void BM_MemoryRegisteredBehaviour(benchmark::State &state) {
  qvabench::load_module_once();
  const long n = state.range(0);
  for (auto _ : state) {
    qvahost::Variable handler{"H"};
    qvahost::Keywords kw;
    auto prepare = [&] {
      handler.take(qvahost::new_object("QVAFWMESSAGEHANDLER"));
      kw = {{"HANDLER", qvahost::make_objref(handler->value.hvid)},
            {"MESSAGESTRING", qvahost::make_string("Tick")},
            {"PROCEDURE", qvahost::make_string("ON_TICK")},
            {"REGISTER", qvahost::make_long(1)}};
    };
    auto build = [&] {
      for (long i = 0; i < n; ++i)
        QVA_Deltmp(qvahost::new_object("QVAFWPROCBEHAV", {}, kw));  // it lives on in the heap
    };
    report(state, measure_in_child(n, prepare, build));
    for (auto &k : kw) QVA_Deltmp(k.value);
  }
}

#define MEMORY_BENCH(f) BENCHMARK(f)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond)
MEMORY_BENCH(BM_MemoryDsMapEntry);
MEMORY_BENCH(BM_MemoryStdMapEntry);
MEMORY_BENCH(BM_MemoryRegisteredBehaviour);

}  // namespace
