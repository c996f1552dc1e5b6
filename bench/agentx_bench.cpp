// The agent behind Debian's snmpd as AgentX master against the same agent on
// its own port, in one run: GETs per second of one scalar (one synchronous
// client) and varbinds per second of snmpbulkwalk over a 10,000-row table.
// The engine switches role between the two measurements of each iteration;
// snmpd runs with a configuration of its own (tests/snmpd_master.h) on free
// loopback ports and is stopped by its PID at exit.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "../lib/src/agentengine.h"
#include "../tests/snmpd_master.h"
#include "snmp_wire.h"
#include "zelta/mibtypes.h"
#include "zelta/tabledef.h"

using namespace Quorvel::Kvan;
using namespace Quorvel::Kvan::SNMP;

namespace {

using Clock = std::chrono::steady_clock;

const unsigned long kRows = 10000;
const char kScalarOid[] = "1.3.6.1.4.1.99999.1.1.0";
const char kTableOid[] = ".1.3.6.1.4.1.99999.2";

enum class Route { Direct, ThroughMaster };

// The objects, the master, and the engine serving them one way or the other.
class Rig {
 public:
  static Rig& get() {
    static Rig rig;
    return rig;
  }
  ~Rig() { stopServing(); }

  // Serves the objects by `route`; the UDP port that answers, 0 on failure.
  int serve(Route route) {
    if (port != 0 && route == current) return port;
    stopServing();
    AgentConfig config;
    if (route == Route::ThroughMaster) {
      if (!master.running() && !master.start()) return 0;
      config.agentxMaster = master.agentx();
    } else {
      config.listenAddress = "127.0.0.1";
      config.port = zelta_test::freeUdpPort();
    }
    auto started = std::make_shared<std::promise<bool>>();
    std::future<bool> ready = started->get_future();
    stop = false;
    server = std::thread([this, config, started] {
      const bool up = engine.initialize(config, {scalar.getEntry(), table.getEntry()});
      started->set_value(up);
      while (up && !stop) engine.serveOnce(1);
      engine.shutdown();
    });
    if (!ready.get() || (route == Route::ThroughMaster && !AgentEngine::isConnectedToMaster())) {
      stopServing();
      return 0;
    }
    current = route;
    port = route == Route::ThroughMaster ? master.port() : config.port;
    return port;
  }

 private:
  Rig() {
    std::map<unsigned int, FieldType> fields{{2, FieldType(INTEGER, NO_RANGE, NO_RANGE)},
                                             {3, FieldType(STRING, NO_RANGE, NO_RANGE)},
                                             {4, FieldType(TIMETICKS, NO_RANGE, NO_RANGE)}};
    def = TableDef({1}, 5, fields, 1);
    tableValue = Variant(Table(&def));
    Table* rows = tableValue.getMutableTable();
    for (unsigned long i = 1; i <= kRows; ++i) {
      rows->addOrUpdateRow({i});
      rows->setCellValue({i}, 2, static_cast<long>(i));
      rows->setCellValue({i}, 3, std::string("row ") + std::to_string(i));
      rows->setCellValue({i}, 4, static_cast<long>(i * 100));
    }
    scalar.setEntry(new IntMibLeaf(&scalar, &scalarValue));
    table.setEntry(new DynMibTable(&table, &tableValue));  // takes the rows
  }
  void stopServing() {
    if (server.joinable()) {
      stop = true;
      engine.wakeUp();
      server.join();
    }
    port = 0;
  }

  zelta_test::SnmpdMaster master;  // outlives the engine's session to it
  TableDef def;
  Variant scalarValue{42L};
  Variant tableValue;
  SNMPInfo scalar{kScalarOid, READWRITE};
  SNMPInfo table{".1.3.6.1.4.1.99999.2.1", READCREATE};
  AgentEngine engine;
  std::thread server;
  std::atomic<bool> stop{false};
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
