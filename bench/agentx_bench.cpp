// The agent behind Debian's snmpd as AgentX master against the same agent on
// its own port, in one run: GETs per second of one scalar (one synchronous
// client) and varbinds per second of snmpbulkwalk over a 10,000-row table.
// The engine switches role between the two measurements of each iteration;
// snmpd runs with a configuration of its own (tests/snmpd_master.h) on free
// loopback ports and is stopped by its PID at exit.
#include <benchmark/benchmark.h>

#include <chrono>
#include <string>

#include "../tests/snmpd_master.h"
#include "served_objects.h"
#include "snmp_wire.h"

using namespace Quorvel::Kvan;
using namespace Quorvel::Kvan::SNMP;

namespace {

using Clock = std::chrono::steady_clock;

const unsigned long kRows = 10000;
using zelta_bench::kScalarOid;
using zelta_bench::kTableOid;

enum class Route { Direct, ThroughMaster };

// The objects, the master, and the engine serving them one way or the other.
class Rig {
 public:
  static Rig& get() {
    static Rig rig;
    return rig;
  }

  // Serves the objects by `route`; the UDP port that answers, 0 on failure.
  int serve(Route route) {
    if (port != 0 && route == current) return port;
    AgentConfig config;
    if (route == Route::ThroughMaster) {
      if (!master.running() && !master.start()) return 0;
      config.agentxMaster = master.agentx();
    } else {
      config.listenAddress = "127.0.0.1";
      config.port = zelta_test::freeUdpPort();
    }
    if (!objects.serve(config) || (route == Route::ThroughMaster && !AgentEngine::isConnectedToMaster())) {
      objects.stopServing();
      port = 0;
      return 0;
    }
    current = route;
    port = route == Route::ThroughMaster ? master.port() : config.port;
    return port;
  }

 private:
  Rig() {
    for (unsigned long i = 1; i <= kRows; ++i) objects.addRow(i);
  }

  zelta_test::SnmpdMaster master;  // outlives the engine's session to it
  zelta_bench::ServedObjects objects;
  Route current = Route::Direct;
  int port = 0;
};

void BM_ScalarGet(benchmark::State& state) {
  double direct = 0, master = 0;
  for (auto _ : state) {
    const int directPort = Rig::get().serve(Route::Direct);
    if (directPort == 0) return state.SkipWithError("the agent did not start");
    direct += zelta_bench::getsPerSecond(directPort, kScalarOid, 5000);
    const int masterPort = Rig::get().serve(Route::ThroughMaster);
    if (masterPort == 0) return state.SkipWithError("the subagent did not reach snmpd");
    master += zelta_bench::getsPerSecond(masterPort, kScalarOid, 5000);
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["direct_gets_per_s"] = direct / n;
  state.counters["master_gets_per_s"] = master / n;
  state.counters["ratio"] = direct > 0 ? master / direct : 0;
}
BENCHMARK(BM_ScalarGet)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_TableBulkwalk(benchmark::State& state) {
  double directSeconds = 0, masterSeconds = 0;
  long directVarbinds = 0, masterVarbinds = 0;
  for (auto _ : state) {
    const int directPort = Rig::get().serve(Route::Direct);
    if (directPort == 0) return state.SkipWithError("the agent did not start");
    auto start = Clock::now();
    directVarbinds += zelta_bench::bulkwalk(directPort, kTableOid);
    directSeconds += std::chrono::duration<double>(Clock::now() - start).count();
    const int masterPort = Rig::get().serve(Route::ThroughMaster);
    if (masterPort == 0) return state.SkipWithError("the subagent did not reach snmpd");
    start = Clock::now();
    masterVarbinds += zelta_bench::bulkwalk(masterPort, kTableOid);
    masterSeconds += std::chrono::duration<double>(Clock::now() - start).count();
  }
  const double n = static_cast<double>(state.iterations());
  const double direct = directVarbinds / directSeconds, master = masterVarbinds / masterSeconds;
  state.counters["varbinds"] = static_cast<double>(masterVarbinds) / n;
  state.counters["direct_varbinds_per_s"] = direct;
  state.counters["master_varbinds_per_s"] = master;
  state.counters["ratio"] = directVarbinds == masterVarbinds && direct > 0 ? master / direct : 0;
}
BENCHMARK(BM_TableBulkwalk)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
