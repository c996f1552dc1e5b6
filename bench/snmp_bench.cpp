// The embedded agent against the stock snmpd, in one run: GETs per second of
// one scalar (one synchronous client), varbinds per second of snmpbulkwalk
// over a 10,000-row table, and memory per table row. Both agents listen on
// free loopback ports; snmpd is started here and killed by its PID.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <ftw.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "../tests/loopback.h"
#include "served_objects.h"
#include "snmp_wire.h"

using namespace Quorvel::Kvan;
using namespace Quorvel::Kvan::SNMP;

namespace {

using Clock = std::chrono::steady_clock;

const int kRows = 10000;
const char kSnmpdScalarOid[] = "1.3.6.1.2.1.1.3.0";  // sysUpTime.0
// Candidates for snmpd's largest table; the one with most varbinds is walked.
const char* const kSnmpdTables[] = {".1.3.6.1.2.1.25.6.3", ".1.3.6.1.2.1.25.4.2", ".1.3.6.1.2.1.2.2",
                                    ".1.3.6.1.2.1.4.20",   ".1.3.6.1.2.1.4.24.4", ".1.3.6.1.2.1.6.13",
                                    ".1.3.6.1.2.1.7.5",    ".1.3.6.1.2.1.25.3.2"};

using zelta_bench::bulkwalk;
using zelta_bench::GetClient;
using zelta_bench::getsPerSecond;
using zelta_bench::kScalarOid;
using zelta_bench::kTableOid;
using zelta_test::freeUdpPort;

long residentBytes() {
  FILE* f = fopen("/proc/self/statm", "r");
  long pages = 0, resident = 0;
  if (f != nullptr) {
    if (fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    fclose(f);
  }
  return resident * sysconf(_SC_PAGESIZE);
}

int removeOne(const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }

// Both agents, started once for all benchmarks and stopped at exit.
class Agents {
 public:
  static Agents& get() {
    static Agents agents;
    return agents;
  }

  bool ok() const { return zeltaUp && snmpdPid > 0; }
  int zeltaPort = 0;
  int snmpdPort = 0;
  double bytesPerRow = 0;
  std::string snmpdTable;
  long snmpdTableVarbinds = 0;

 private:
  Agents() {
    zeltaPort = freeUdpPort();
    SNMPAgent::Options config;
    config.listenAddress = "127.0.0.1";
    config.port = zeltaPort;
    zeltaUp = objects.serve(config);

    // Rows added while the agent runs.
    long before = residentBytes();
    for (unsigned long i = 1; i <= kRows; ++i) objects.addRow(i);
    bytesPerRow = static_cast<double>(residentBytes() - before) / kRows;

    startSnmpd();
    for (const char* candidate : kSnmpdTables) {
      long n = snmpdPid > 0 ? bulkwalk(snmpdPort, candidate) : -1;
      if (n > snmpdTableVarbinds) {
        snmpdTableVarbinds = n;
        snmpdTable = candidate;
      }
    }
  }

  ~Agents() {
    if (snmpdPid > 0) {
      kill(snmpdPid, SIGTERM);
      int status = 0;
      for (int i = 0; i < 50 && waitpid(snmpdPid, &status, WNOHANG) == 0; ++i) usleep(100000);
      if (waitpid(snmpdPid, &status, WNOHANG) == 0) {
        kill(snmpdPid, SIGKILL);
        waitpid(snmpdPid, &status, 0);
      }
    }
    if (!snmpdDir.empty()) nftw(snmpdDir.c_str(), removeOne, 8, FTW_DEPTH | FTW_PHYS);
  }

  void startSnmpd() {
    char pattern[] = "/tmp/zelta-snmpd-XXXXXX";
    if (mkdtemp(pattern) == nullptr) return;
    snmpdDir = pattern;
    snmpdPort = freeUdpPort();
    std::string conf = snmpdDir + "/snmpd.conf";
    FILE* f = fopen(conf.c_str(), "w");
    if (f == nullptr) return;
    fprintf(f, "agentaddress udp:127.0.0.1:%d\nrocommunity public 127.0.0.1\n", snmpdPort);
    fclose(f);
    snmpdPid = fork();
    if (snmpdPid == 0) {
      int devnull = open("/dev/null", O_WRONLY);
      dup2(devnull, 1);
      dup2(devnull, 2);
      setenv("SNMP_PERSISTENT_DIR", snmpdDir.c_str(), 1);
      setenv("MIBS", "", 1);
      execl("/usr/sbin/snmpd", "snmpd", "-f", "-Lo", "-C", "-c", conf.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    // Ready once it answers.
    GetClient probe(snmpdPort, kSnmpdScalarOid);
    for (int i = 0; i < 50 && snmpdPid > 0; ++i)
      if (probe.get()) return;
  }

  zelta_bench::ServedObjects objects;
  bool zeltaUp = false;
  pid_t snmpdPid = -1;
  std::string snmpdDir;
};

void BM_ScalarGet(benchmark::State& state) {
  Agents& agents = Agents::get();
  if (!agents.ok()) return state.SkipWithError("an agent did not start");
  double zelta = 0, snmpd = 0;
  for (auto _ : state) {
    zelta += getsPerSecond(agents.zeltaPort, kScalarOid, 5000);
    snmpd += getsPerSecond(agents.snmpdPort, kSnmpdScalarOid, 5000);
  }
  double n = static_cast<double>(state.iterations());
  state.counters["zelta_gets_per_s"] = zelta / n;
  state.counters["snmpd_gets_per_s"] = snmpd / n;
  state.counters["ratio"] = snmpd > 0 ? zelta / snmpd : 0;
}
BENCHMARK(BM_ScalarGet)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_TableBulkwalk(benchmark::State& state) {
  Agents& agents = Agents::get();
  if (!agents.ok() || agents.snmpdTable.empty()) return state.SkipWithError("an agent did not start");
  double zeltaSeconds = 0, snmpdSeconds = 0;
  long zeltaVarbinds = 0, snmpdVarbinds = 0;
  for (auto _ : state) {
    auto start = Clock::now();
    zeltaVarbinds += bulkwalk(agents.zeltaPort, kTableOid);
    auto middle = Clock::now();
    snmpdVarbinds += bulkwalk(agents.snmpdPort, agents.snmpdTable.c_str());
    snmpdSeconds += std::chrono::duration<double>(Clock::now() - middle).count();
    zeltaSeconds += std::chrono::duration<double>(middle - start).count();
  }
  double zelta = zeltaVarbinds / zeltaSeconds, snmpd = snmpdVarbinds / snmpdSeconds;
  double n = static_cast<double>(state.iterations());
  state.counters["zelta_varbinds"] = static_cast<double>(zeltaVarbinds) / n;
  state.counters["zelta_walk_s"] = zeltaSeconds / n;
  state.counters["zelta_varbinds_per_s"] = zelta;
  state.counters["snmpd_varbinds"] = static_cast<double>(snmpdVarbinds) / n;
  state.counters["snmpd_varbinds_per_s"] = snmpd;
  state.counters["ratio"] = snmpd > 0 ? zelta / snmpd : 0;
  state.SetLabel("snmpd table " + agents.snmpdTable);
}
BENCHMARK(BM_TableBulkwalk)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

// Resident memory per row of a 10,000-row table while the agent serves it:
// the Table row, which is all the agent keeps of it.
void BM_MemoryPerRow(benchmark::State& state) {
  double bytesPerRow = Agents::get().bytesPerRow;
  for (auto _ : state) benchmark::DoNotOptimize(bytesPerRow);
  state.counters["bytes_per_row"] = benchmark::Counter(bytesPerRow);
}
BENCHMARK(BM_MemoryPerRow)->Iterations(1);

}  // namespace
