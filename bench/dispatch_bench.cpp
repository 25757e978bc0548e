// Message dispatch as the language calls it: msg->SEND, arg, through a
// chain of message handlers whose top one scopes the message, to a list of
// native behaviours (BENCH_COUNTER inherits QVAFWBEHAVIOR; its EXECUTE
// only counts).  Next to it, in the same run, the same number of calls
// through a vector of std::function and through one signal's connected
// slots.  Every benchmark reports time_per_behaviour: the time of one run
// divided by the behaviours it ran; each runs five times and reports the
// median.
#include <benchmark/benchmark.h>
#include <qva/qva.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "bench_module.h"
#include "qva_host.h"

#if defined(QVA_BENCH_HAVE_SIGNALS2) && __has_include(<boost/signals2/signal.hpp>)
#include <boost/signals2/signal.hpp>
#define QVA_BENCH_SIGNALS2 1
#endif

namespace {

constexpr const char *kCounterClass = "BENCH_COUNTER";
int64_t g_runs = 0;

void load_once() {
  static const bool loaded = [] {
    qvabench::load_module_once();
    qvahost::define_struct(kCounterClass, "QVAFWBEHAVIOR", {});
    qvahost::define_routine(std::string(kCounterClass) + "::EXECUTE", false, 1, 2, false,
                            [](int, QVA_VPTR[], QVA_KW_ARGS *) -> QVA_VPTR {
                              ++g_runs;
                              return nullptr;
                            });
    return true;
  }();
  (void)loaded;
}

QVA_HVID make_object(const std::string &cls, qvahost::Keywords kw) {
  QVA_VPTR ref = qvahost::new_object(cls, {}, kw);
  for (auto &k : kw) QVA_Deltmp(k.value);
  QVA_HVID id = ref->value.hvid;
  QVA_Deltmp(ref);
  return id;
}

void destroy(QVA_HVID id) {
  QVA_VPTR ref = qvahost::make_objref(id);
  QVA_ObjDestroy(1, &ref, nullptr);
  QVA_Deltmp(ref);
}

// `depth` handlers in a chain, the top one scoping "Tick" with `n`
// counters registered there, and a message sent from the bottom one.
struct Network {
  std::vector<QVA_HVID> handlers;  // top first
  std::vector<QVA_HVID> behaviours;
  qvahost::Variable message{"MSG"};

  Network(int depth, int n) {
    for (int i = 0; i < depth; ++i) {
      qvahost::Keywords kw;
      if (i > 0) kw.push_back({"HANDLER", qvahost::make_objref(handlers.back())});
      handlers.push_back(make_object("QVAFWMESSAGEHANDLER", kw));
    }
    for (int i = 0; i < n; ++i)
      behaviours.push_back(
          make_object(kCounterClass, {{"HANDLER", qvahost::make_objref(handlers.front())},
                                      {"MESSAGESTRING", qvahost::make_string("Tick")},
                                      {"SCOPE", qvahost::make_long(i == 0 ? 1 : 0)},
                                      {"REGISTER", qvahost::make_long(1)}}));
    message.take(qvahost::make_objref(
        make_object("QVAFWMESSAGE", {{"HANDLER", qvahost::make_objref(handlers.back())},
                                     {"MESSAGESTRING", qvahost::make_string("Tick")}})));
  }
  ~Network() {
    destroy(message->value.hvid);
    for (QVA_HVID b : behaviours) destroy(b);
    for (auto it = handlers.rbegin(); it != handlers.rend(); ++it) destroy(*it);
  }
};

void report(benchmark::State &state, int64_t per_iteration, int64_t runs) {
  if (runs != static_cast<int64_t>(state.iterations()) * per_iteration)
    state.SkipWithError("not every behaviour ran");
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * per_iteration);
  state.counters["time_per_behaviour"] = benchmark::Counter(
      static_cast<double>(per_iteration),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_FrameworkSend(benchmark::State &state) {
  load_once();
  const int depth = static_cast<int>(state.range(0));
  const int n = static_cast<int>(state.range(1));
  // Every case starts from an empty session, whatever ran before it in this
  // process (other benchmarks' heap variables, an earlier network), and
  // sends a few times untimed, so that a case measured alone or after
  // others measures the same thing.
  qvahost::reset_session();
  Network net(depth, n);
  qvahost::Variable arg("ARG");
  arg.take(qvahost::make_long(1));
  const std::vector<QVA_VPTR> args{arg.get()};  // made once, as a program's argument list is
  auto send = [&] { qvahost::call_method_procedure(net.message.get(), "SEND", args); };
  for (int i = 0; i < 16; ++i) send();
  g_runs = 0;
  for (auto _ : state) send();
  report(state, n, g_runs);
}
BENCHMARK(BM_FrameworkSend)
    ->ArgsProduct({{1, 4, 16}, {1, 10, 1000}})
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

void BM_StdFunctionLoop(benchmark::State &state) {
  const int n = static_cast<int>(state.range(0));
  int64_t runs = 0;
  std::vector<std::function<void(QVA_VPTR)>> slots;
  for (int i = 0; i < n; ++i) slots.emplace_back([&runs](QVA_VPTR) { ++runs; });
  qvahost::Variable arg("ARG");
  arg.take(qvahost::make_long(1));
  for (auto _ : state) {
    for (const auto &f : slots) f(arg.get());
    benchmark::ClobberMemory();
  }
  report(state, n, runs);
}
BENCHMARK(BM_StdFunctionLoop)->Arg(1)->Arg(10)->Arg(1000)
    ->Repetitions(5)->ReportAggregatesOnly(true);

#ifdef QVA_BENCH_SIGNALS2
void BM_Signals2Emit(benchmark::State &state) {
  const int n = static_cast<int>(state.range(0));
  int64_t runs = 0;
  boost::signals2::signal<void(QVA_VPTR)> signal;
  for (int i = 0; i < n; ++i) signal.connect([&runs](QVA_VPTR) { ++runs; });
  qvahost::Variable arg("ARG");
  arg.take(qvahost::make_long(1));
  for (auto _ : state) {
    signal(arg.get());
    benchmark::ClobberMemory();
  }
  report(state, n, runs);
}
BENCHMARK(BM_Signals2Emit)->Arg(1)->Arg(10)->Arg(1000)
    ->Repetitions(5)->ReportAggregatesOnly(true);
#endif

}  // namespace
