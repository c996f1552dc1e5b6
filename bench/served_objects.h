// The objects the SNMP benchmarks serve, and the engine serving them on a
// thread of its own: an INTEGER scalar and a table of three value columns
// (INTEGER, STRING, TimeTicks) with one index column and RowStatus.
#ifndef ZELTA_BENCH_SERVED_OBJECTS_H_
#define ZELTA_BENCH_SERVED_OBJECTS_H_

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "snmp/agentengine.h"
#include "zelta/mibtypes.h"
#include "zelta/tabledef.h"

namespace zelta_bench {

using namespace Quorvel::Kvan;
using namespace Quorvel::Kvan::SNMP;

constexpr char kScalarOid[] = "1.3.6.1.4.1.99999.1.1.0";
constexpr char kTableOid[] = ".1.3.6.1.4.1.99999.2";

class ServedObjects {
 public:
  ServedObjects() {
    std::map<unsigned int, FieldType> fields{{2, FieldType(INTEGER, NO_RANGE, NO_RANGE)},
                                             {3, FieldType(STRING, NO_RANGE, NO_RANGE)},
                                             {4, FieldType(TIMETICKS, NO_RANGE, NO_RANGE)}};
    def = TableDef({1}, 5, fields, 1);
    tableValue = Variant(Table(&def));
    scalar.setEntry(new IntMibLeaf(&scalar, &scalarValue));
    table.setEntry(new DynMibTable(&table, &tableValue));
  }
  ~ServedObjects() { stopServing(); }

  // Row `i` as the host adds it: its cells into the Table, then active.
  void addRow(unsigned long i) {
    Table* rows = tableValue.getMutableTable();
    rows->addOrUpdateRow({i});
    rows->setCellValue({i}, 2, static_cast<long>(i));
    rows->setCellValue({i}, 3, std::string("row ") + std::to_string(i));
    rows->setCellValue({i}, 4, static_cast<long>(i * 100));
    table.entryAs<DynMibTable>()->addRow({i}, rows->getRow({i}));
  }

  // Starts the engine serving the objects with `config` (at most 30 minutes);
  // false when it does not come up.
  bool serve(const SNMPAgent::Options& config) {
    stopServing();
    auto started = std::make_shared<std::promise<bool>>();
    std::future<bool> ready = started->get_future();
    stop = false;
    server = std::thread([this, config, started] {
      const bool up = engine.initialize(config, {scalar.getEntry(), table.getEntry()});
      started->set_value(up);
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(30);
      while (up && !stop && std::chrono::steady_clock::now() < deadline) engine.serveOnce(1);
      engine.shutdown();
    });
    return ready.get();
  }
  // Seconds the engine's thread has run on a CPU; 0 when it is not running.
  double engineCpuSeconds() {
    clockid_t clock;
    timespec ran{};
    if (!server.joinable() || pthread_getcpuclockid(server.native_handle(), &clock) != 0 ||
        clock_gettime(clock, &ran) != 0)
      return 0;
    return static_cast<double>(ran.tv_sec) + static_cast<double>(ran.tv_nsec) / 1e9;
  }
  void stopServing() {
    if (!server.joinable()) return;
    stop = true;
    engine.wakeUp();
    server.join();
  }

 private:
  TableDef def;
  Variant scalarValue{42L};
  Variant tableValue;
  SNMPInfo scalar{kScalarOid, READWRITE};
  SNMPInfo table{std::string(kTableOid) + ".1", READCREATE};
  AgentEngine engine;
  std::thread server;
  std::atomic<bool> stop{false};
};

}  // namespace zelta_bench

#endif  // ZELTA_BENCH_SERVED_OBJECTS_H_
