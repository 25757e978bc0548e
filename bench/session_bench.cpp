// SAVE and RESTORE of a QVAdsMap of n entries (short string keys, LONG
// values), next to building the same map with n INSERT calls from QVA, in
// the same run.  Each case is a run of the qva program on a one-line
// script:
//   Startup        x = 1 (what every run pays before its work)
//   BuildInsert    a map made with a FOR loop of INSERT calls
//   BuildAndSave   the same, then SAVE of the map to a file
//   Restore        RESTORE of that file (made once, outside the timing)
// and all but Startup then check the map's size.
// The time is the child's processor time (user + system, from wait4): the
// machine is shared, and wall time would measure the other processes too.
// peak_rss_MB is the child's peak resident set (see Spawner).  SAVE's own time is
// BuildAndSave minus BuildInsert.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

namespace {

struct ChildCost {
  double cpu_seconds = -1;
  double peak_mb = -1;
};

// Runs qva -e `script` with its output discarded.
ChildCost run_qva_now(const std::string &script) {
  ChildCost cost;
  pid_t pid = fork();
  if (pid == 0) {
    FILE *null = std::freopen("/dev/null", "w", stdout);
    (void)null;
    execl(QVA_BENCH_QVA_PATH, "qva", "-e", script.c_str(), static_cast<char *>(nullptr));
    _exit(127);
  }
  if (pid < 0) return cost;
  int status = 0;
  struct rusage ru {};
  if (wait4(pid, &status, 0, &ru) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
    return cost;
  cost.cpu_seconds = static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
                     static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) * 1e-6;
  cost.peak_mb = static_cast<double>(ru.ru_maxrss) / 1024.0;  // ru_maxrss is in KiB
  return cost;
}

// A child's peak resident set counts what it held before exec, which for a
// child forked straight from this process is everything the benchmarks
// before it left in memory (hundreds of MB after the tree benchmarks).  So
// qva is started by a spawner forked while this process is still small,
// at start-up, which takes scripts through one pipe and answers through
// another.
class Spawner {
 public:
  Spawner() {
    int to[2], from[2];
    if (pipe(to) != 0 || pipe(from) != 0) return;
    pid_t pid = fork();
    if (pid == 0) {
      close(to[1]);
      close(from[0]);
      serve(to[0], from[1]);
      _exit(0);
    }
    close(to[0]);
    close(from[1]);
    if (pid > 0) {
      to_ = to[1];
      from_ = from[0];
    }
  }
  ~Spawner() {
    if (to_ >= 0) close(to_);  // the spawner sees the end and exits
    if (from_ >= 0) close(from_);
  }

  ChildCost run(const std::string &script) {
    if (to_ < 0) return run_qva_now(script);
    uint64_t len = script.size();
    ChildCost cost;
    if (!write_all(to_, &len, sizeof len) || !write_all(to_, script.data(), len) ||
        !read_all(from_, &cost, sizeof cost))
      return ChildCost{};
    return cost;
  }

 private:
  static void serve(int in, int out) {
    uint64_t len;
    while (read_all(in, &len, sizeof len)) {
      std::string script(len, '\0');
      if (!read_all(in, script.data(), len)) return;
      ChildCost cost = run_qva_now(script);
      if (!write_all(out, &cost, sizeof cost)) return;
    }
  }
  static bool write_all(int fd, const void *p, size_t n) {
    for (auto *c = static_cast<const char *>(p); n;) {
      ssize_t k = write(fd, c, n);
      if (k <= 0) return false;
      c += k;
      n -= static_cast<size_t>(k);
    }
    return true;
  }
  static bool read_all(int fd, void *p, size_t n) {
    for (auto *c = static_cast<char *>(p); n;) {
      ssize_t k = read(fd, c, n);
      if (k <= 0) return false;
      c += k;
      n -= static_cast<size_t>(k);
    }
    return true;
  }

  int to_ = -1, from_ = -1;
};

Spawner g_spawner;  // made before main, while this process is small

ChildCost run_qva(const std::string &script) { return g_spawner.run(script); }

std::string save_path(long n) { return "/tmp/qva_session_bench_" + std::to_string(n) + ".sav"; }

// Every script ends by checking the map's size, so that a run that went
// wrong is not timed as a fast one, and every case pays the same check.
std::string size_check(long n) {
  return " & IF m->GETSIZE() NE " + std::to_string(n) + " THEN EXIT, STATUS=1";
}
std::string build_part(long n) {
  return "m = OBJ_NEW('QVADSMAP') & FOR i = 0, " + std::to_string(n - 1) +
         " DO m->INSERT, 'key-' + STRTRIM(i, 2), i";
}
std::string build_script(long n) { return build_part(n) + size_check(n); }
std::string save_script(long n) {
  return build_part(n) + " & SAVE, m, FILENAME='" + save_path(n) + "'" + size_check(n);
}
std::string restore_script(long n) { return "RESTORE, '" + save_path(n) + "'" + size_check(n); }

void run_case(benchmark::State &state, const std::string &script) {
  for (auto _ : state) {
    ChildCost c = run_qva(script);
    if (c.cpu_seconds < 0) {
      state.SkipWithError("qva failed");
      return;
    }
    state.SetIterationTime(c.cpu_seconds);
    state.counters["peak_rss_MB"] = c.peak_mb;
  }
}

void BM_SessionStartup(benchmark::State &state) { run_case(state, "x = 1"); }

void BM_SessionBuildInsert(benchmark::State &state) { run_case(state, build_script(state.range(0))); }

void BM_SessionBuildAndSave(benchmark::State &state) { run_case(state, save_script(state.range(0))); }

void BM_SessionRestore(benchmark::State &state) {
  const long n = state.range(0);
  if (run_qva(save_script(n)).cpu_seconds < 0) {
    state.SkipWithError("could not make the save file");
    return;
  }
  run_case(state, restore_script(n));
  std::remove(save_path(n).c_str());
}

#define SESSION_BENCH(f)                                                                    \
  BENCHMARK(f)->Arg(100000)->Arg(200000)->Arg(1000000)->Iterations(1)->UseManualTime()    \
      ->Repetitions(5)->ReportAggregatesOnly(true)->Unit(benchmark::kMillisecond)
BENCHMARK(BM_SessionStartup)->Iterations(1)->UseManualTime()->Repetitions(5)
    ->ReportAggregatesOnly(true)->Unit(benchmark::kMillisecond);
SESSION_BENCH(BM_SessionBuildInsert);
SESSION_BENCH(BM_SessionBuildAndSave);
SESSION_BENCH(BM_SessionRestore);

}  // namespace
