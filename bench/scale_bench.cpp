// Many published scalars: the agent's start, stop and restart with 10,
// 10,000 and 100,000 published INTEGER parameters, the heap per published
// scalar (parameter, SNMP object, registry entry and registration), and GETs
// of 50 random scalars per request with 100,000 published against 10
// published, by one client in the same run. Scalars sit under 100 parent
// OIDs (scalar groups) of 1.3.6.1.4.1.99999.30.
//
// A console run ends with a summary and the targets: start at most 1 s with
// 100,000, growth from 10,000 to 100,000 at most 11x, GETs with 100,000 at
// least 0.9x those with 10, at most 600 bytes of heap per scalar with
// 100,000 (with fewer, the agent's own heap of about 475 kB weighs in: 47
// bytes per scalar with 10,000).
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "../tests/loopback.h"
#include "snmp_wire.h"
#include "zelta/logging.h"
#include "zelta/parammanager.h"
#include "zelta/snmpagent.h"

using namespace Quorvel::Kvan;
using namespace Quorvel::Kvan::SNMP;

namespace {

using Clock = std::chrono::steady_clock;

const int kGroups = 100;
const int kOidsPerRequest = 50;

// Heap blocks in use, the large ones malloc maps on their own included.
size_t heapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

std::string scalarOid(int i) {
  return "1.3.6.1.4.1.99999.30." + std::to_string(1 + i % kGroups) + "." + std::to_string(1 + i / kGroups) + ".0";
}

// `count` published INTEGER parameters in one group, registered under p0, p1, ...
struct Registry {
  // `heapBefore`, when given, gets the heap in use once the benchmark's own
  // lists have their room, before the first parameter.
  explicit Registry(int count, size_t* heapBefore = nullptr) : group("scale", "/nonexistent/zelta-scale.txt") {
    infos.reserve(static_cast<size_t>(count));
    params.reserve(static_cast<size_t>(count));
    if (heapBefore != nullptr) *heapBefore = heapInUse();
    for (int i = 0; i < count; ++i) {
      infos.push_back(std::make_unique<SNMPInfo>(scalarOid(i), READWRITE));
      params.push_back(std::make_unique<Param>(group, INTEGER, Variant(static_cast<long>(i)), infos.back().get()));
      manager.add("p" + std::to_string(i), params.back().get());
    }
  }
  // The manager and the parameters go before the SNMP objects.
  ParamGroup group;
  std::vector<std::unique_ptr<SNMPInfo>> infos;
  std::vector<std::unique_ptr<Param>> params;
  ParamManager manager;
};

// An agent over a registry on a free loopback port; seconds its start took.
struct Serving {
  explicit Serving(Registry& registry) {
    for (int attempt = 0; attempt < 5 && (agent == nullptr || !agent->isRunning()); ++attempt) {
      if (agent) agent->waitForFinish();
      SNMPAgent::Options options;
      options.listenAddress = "127.0.0.1";
      options.port = port = zelta_test::freeUdpPort();
      agent = std::make_unique<SNMPAgent>(&registry.manager, options);
      const auto start = Clock::now();
      agent->start();
      while (!agent->isRunning() && !agent->hasFinished() && Clock::now() - start < std::chrono::minutes(10))
        usleep(200);
      startSeconds = std::chrono::duration<double>(Clock::now() - start).count();
    }
  }
  // Seconds the stop took.
  double stop() {
    const auto start = Clock::now();
    agent->stop();
    agent->waitForFinish();
    return std::chrono::duration<double>(Clock::now() - start).count();
  }
  ~Serving() {
    if (agent) {
      agent->stop();
      agent->waitForFinish();
    }
  }
  bool ok() const { return agent != nullptr && agent->isRunning(); }

  std::unique_ptr<SNMPAgent> agent;
  int port = 0;
  double startSeconds = 0;
};

// Varbinds per second of GETs of `kOidsPerRequest` random scalars of
// `published`, for about `seconds`; 0 when a request went unanswered.
double randomGetRate(int port, int published, double seconds) {
  zelta_bench::GetClient client(port, "");
  std::mt19937 random(7);
  long varbinds = 0;
  const auto start = Clock::now();
  double elapsed = 0;
  while (elapsed < seconds) {
    std::vector<std::string> oids;
    for (int i = 0; i < kOidsPerRequest; ++i)
      oids.push_back(scalarOid(static_cast<int>(random() % static_cast<unsigned>(published))));
    if (!client.get(oids)) return 0;
    varbinds += kOidsPerRequest;
    elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  }
  return varbinds / elapsed;
}

// ---- Benchmarks

// Start, stop and restart with `state.range(0)` scalars, and the heap per
// scalar once the agent serves them. Times are the shortest of the
// iterations: on a shared machine the others measure the neighbours.
void BM_StartStop(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  double start = 1e9, stop = 1e9, restart = 1e9, bytes = 0;
  for (auto _ : state) {
    size_t before = 0;
    Registry registry(count, &before);
    Serving first(registry);
    if (!first.ok()) return state.SkipWithError("the agent did not start");
    // The first iteration's heap: later ones reuse what earlier ones freed.
    if (bytes == 0) bytes = static_cast<double>(heapInUse() - before) / count;
    start = std::min(start, first.startSeconds);
    stop = std::min(stop, first.stop());
    Serving second(registry);
    if (!second.ok()) return state.SkipWithError("the agent did not restart");
    restart = std::min(restart, second.startSeconds);
  }
  state.counters["start_s"] = start;
  state.counters["stop_s"] = stop;
  state.counters["restart_s"] = restart;
  state.counters["heap_bytes_per_scalar"] = bytes;
}
BENCHMARK(BM_StartStop)->Arg(10)->Arg(10000)->Arg(100000)->Iterations(4)->Unit(benchmark::kMillisecond)->UseRealTime();

// Random GETs with 100,000 published against 10 published, taken in turns.
void BM_RandomGets(benchmark::State& state) {
  double few = 0, many = 0;
  Registry small(10), large(100000);
  for (auto _ : state) {
    for (Registry* registry : {&small, &large}) {
      const int published = static_cast<int>(registry->params.size());
      Serving serving(*registry);
      if (!serving.ok()) return state.SkipWithError("the agent did not start");
      (published == 10 ? few : many) += randomGetRate(serving.port, published, 0.75);
    }
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["varbinds_per_s_10"] = few / n;
  state.counters["varbinds_per_s_100000"] = many / n;
  state.counters["ratio"] = few > 0 ? many / few : 0;
}
BENCHMARK(BM_RandomGets)->Iterations(6)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Log["libzelta"].level = ERROR;
  benchmark::RunSpecifiedBenchmarks();
  printf(
      "\nTargets: start_s at most 1 with 100000; start_s(100000)/start_s(10000) at most 11;\n"
      "ratio of random GETs at least 0.9; heap_bytes_per_scalar at most 600 with 100000.\n");
  benchmark::Shutdown();
  return 0;
}
