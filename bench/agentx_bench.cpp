// Our agent and Net-SNMP's own subagent behind one Debian snmpd as AgentX
// master, in one run: a second snmpd (`snmpd -X -I hrSWInstalledTable`, the
// master started without that module) serves the installed packages, ours a
// table of as many varbinds. Printed: GETs per second of one object (one
// synchronous client) and varbinds per second of snmpbulkwalk, ours against
// theirs through the master, ours through the master against ours on its own
// port (the engine switches role between the two), and ours on its own port
// against a third snmpd serving the same packages table itself, walked by
// snmpbulkwalk and by a client that does not print; and each agent's CPU
// time per GET and per varbind, steadier than rates on a busy machine. (Debian's snmpd 5.9 has no module `hr_swinst`: a master started
// with `-I -hr_swinst` keeps the table and answers it itself.) Every daemon
// has a configuration and state of its own on free loopback ports and private
// socket paths, and is stopped by its PID at exit.
#include <benchmark/benchmark.h>
#include <ftw.h>
#include <glob.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "../tests/snmpd_master.h"
#include "served_objects.h"
#include "snmp_wire.h"

using namespace Quorvel::Kvan;
using namespace Quorvel::Kvan::SNMP;

namespace {

using Clock = std::chrono::steady_clock;

using zelta_bench::kScalarOid;
using zelta_bench::kTableOid;
// hrSWInstalledTable, and the name of its first package.
const char kTheirTable[] = ".1.3.6.1.2.1.25.6.3";
const char kTheirObject[] = "1.3.6.1.2.1.25.6.3.1.2.1";
const char kTheirModule[] = "hrSWInstalledTable";
const int kGetsPerRound = 500, kRounds = 10;

int removeOne(const char* path, const struct stat*, int, FTW*) { return ::remove(path); }

// Seconds the threads of process `pid` have run on a CPU.
double cpuSeconds(pid_t pid) {
  const std::string pattern = "/proc/" + std::to_string(pid) + "/task/*/schedstat";
  glob_t tasks{};
  double nanoseconds = 0;
  if (glob(pattern.c_str(), 0, nullptr, &tasks) == 0)
    for (size_t i = 0; i < tasks.gl_pathc; ++i)
      if (FILE* f = fopen(tasks.gl_pathv[i], "r")) {
        unsigned long long ran = 0;
        if (fscanf(f, "%llu", &ran) == 1) nanoseconds += static_cast<double>(ran);
        fclose(f);
      }
  globfree(&tasks);
  return nanoseconds / 1e9;
}

// Net-SNMP's subagent: snmpd -X with only `kTheirModule`, its configuration
// and state in a directory of its own.
class NetSnmpSubagent {
 public:
  NetSnmpSubagent() {
    char pattern[] = "/tmp/zelta-subagent-XXXXXX";
    dir = mkdtemp(pattern) != nullptr ? pattern : "/nonexistent";
    mkdir((dir + "/state").c_str(), 0700);
  }
  ~NetSnmpSubagent() {
    if (pid > 0) kill(pid, SIGTERM), waitpid(pid, nullptr, 0);
    nftw(dir.c_str(), removeOne, 8, FTW_DEPTH);
  }
  pid_t process() const { return pid; }
  void start(const std::string& master) {
    if (FILE* f = fopen((dir + "/snmpd.conf").c_str(), "w")) {
      fprintf(f, "agentXSocket %s\n", master.c_str());
      fclose(f);
    }
    pid = zelta_test::spawnDaemon({"/usr/sbin/snmpd", "-f", "-X", "-Lf", dir + "/snmpd.log", "-C", "-c",
                                   dir + "/snmpd.conf", "-I", kTheirModule},
                                  {"SNMP_PERSISTENT_DIR=" + dir + "/state", "MIBS="});
  }

 private:
  std::string dir;
  pid_t pid = -1;
};

enum class Route { Direct, ThroughMaster };

// The master, both subagents, and our objects served one way or the other.
class Rig {
 public:
  static Rig& get() {
    static Rig rig;
    return rig;
  }

  // Why the rig cannot run, or "".
  const std::string& failure() const { return error; }
  // Seconds Net-SNMP's subagent, and our engine thread, have run on a CPU.
  double theirCpuSeconds() const { return cpuSeconds(theirs.process()); }
  double ourCpuSeconds() { return objects->engineCpuSeconds(); }
  // Varbinds of their table and of ours.
  long theirVarbinds() const { return theirCount; }
  long ourVarbinds() const { return ourCount; }
  // snmpd serving the packages table itself, and its CPU seconds.
  int snmpdPort() const { return snmpd.port(); }
  double snmpdCpuSeconds() const { return cpuSeconds(snmpd.process()); }

  // Serves our objects by `route`; the UDP port that answers, 0 on failure.
  int serve(Route route) {
    if (port != 0 && route == current) return port;
    SNMPAgent::Options config;
    if (route == Route::ThroughMaster) {
      config.agentxMaster = master.agentx();
    } else {
      config.listenAddress = "127.0.0.1";
      config.port = zelta_test::freeUdpPort();
    }
    if (!objects->serve(config) || (route == Route::ThroughMaster && !AgentEngine::isConnectedToMaster())) {
      objects->stopServing();
      return port = 0;
    }
    current = route;
    return port = route == Route::ThroughMaster ? master.port() : config.port;
  }

 private:
  Rig() {
    master.skipModule(kTheirModule);
    if (!master.start() || !snmpd.start()) {
      error = "snmpd did not start";
      return;
    }
    theirs.start(master.agentx());
    // Registered once the master walks more than the "no such object" line.
    for (int i = 0; i < 100 && theirCount <= 1; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      theirCount = zelta_bench::bulkwalk(master.port(), kTheirTable);
    }
    if (theirCount <= 1) {
      error = "Net-SNMP's subagent did not register its table";
      return;
    }
    // About as many varbinds as theirs: four a row (RowStatus and three
    // value columns).
    objects = std::make_unique<zelta_bench::ServedObjects>();
    for (unsigned long i = 1; i <= static_cast<unsigned long>(theirCount / 4); ++i) objects->addRow(i);
    ourCount = theirCount / 4 * 4;
  }

  zelta_test::SnmpdMaster master;  // outlives both subagents' sessions to it
  zelta_test::SnmpdMaster snmpd;
  NetSnmpSubagent theirs;
  std::unique_ptr<zelta_bench::ServedObjects> objects;
  std::string error;
  long theirCount = 0, ourCount = 0;
  Route current = Route::Direct;
  int port = 0;
};

// The middle of `values` (the mean of the two middle ones); 0 when empty.
double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const size_t half = values.size() / 2;
  return values.size() % 2 == 1 ? values[half] : (values[half - 1] + values[half]) / 2;
}

// What a benchmark gathers: rates of ours and theirs through the master in
// rounds side by side and their ratios, each subagent's CPU seconds per
// request or varbind, and rates of ours on its own port.
struct Rounds {
  std::vector<double> ours, theirs, ratios, oursCpu, theirsCpu, direct;

  // Counters of medians, per `one` ("get", "varbind").
  void report(benchmark::State& state, const std::string& one) const {
    state.counters["ours_" + one + "s_per_s"] = median(ours);
    state.counters["theirs_" + one + "s_per_s"] = median(theirs);
    state.counters["ours_over_theirs"] = median(ratios);
    state.counters["ours_cpu_us_per_" + one] = 1e6 * median(oursCpu);
    state.counters["theirs_cpu_us_per_" + one] = 1e6 * median(theirsCpu);
    state.counters["direct_" + one + "s_per_s"] = median(direct);
    state.counters["master_over_direct"] = median(ours) / median(direct);
  }
};

// A first round after each start, not counted: a fresh engine or cache runs
// slower for a thousand requests or so.
void warmUp(int port, const char* oid) { zelta_bench::getsPerSecond(port, oid, kGetsPerRound); }

// Each ratio is the median of the ratios of rounds that ran side by side,
// short rounds in turn, so that a burst of load on the machine meets both.
// Walks are warmed up alike.
void BM_Get(benchmark::State& state) {
  Rig& rig = Rig::get();
  if (!rig.failure().empty()) return state.SkipWithError(rig.failure().c_str());
  Rounds rounds;
  // GETs per second of `oid` and the CPU seconds per GET of `cpu` meanwhile.
  auto gets = [](int port, const char* oid, const std::function<double()>& cpu, std::vector<double>& rates,
                 std::vector<double>& cpuPerGet) {
    const double before = cpu();
    rates.push_back(zelta_bench::getsPerSecond(port, oid, kGetsPerRound));
    cpuPerGet.push_back((cpu() - before) / kGetsPerRound);
    return rates.back() > 0;
  };
  for (auto _ : state) {
    const int masterPort = rig.serve(Route::ThroughMaster);
    if (masterPort == 0) return state.SkipWithError("our subagent did not reach snmpd");
    warmUp(masterPort, kScalarOid), warmUp(masterPort, kTheirObject);
    for (int round = 0; round < kRounds; ++round) {
      if (!gets(masterPort, kScalarOid, [&] { return rig.ourCpuSeconds(); }, rounds.ours, rounds.oursCpu) ||
          !gets(masterPort, kTheirObject, [&] { return rig.theirCpuSeconds(); }, rounds.theirs, rounds.theirsCpu))
        return state.SkipWithError("a GET through snmpd went unanswered");
      rounds.ratios.push_back(rounds.ours.back() / rounds.theirs.back());
    }
    const int directPort = rig.serve(Route::Direct);
    if (directPort == 0) return state.SkipWithError("the agent did not start");
    warmUp(directPort, kScalarOid);
    for (int round = 0; round < kRounds; ++round)
      rounds.direct.push_back(zelta_bench::getsPerSecond(directPort, kScalarOid, kGetsPerRound));
  }
  rounds.report(state, "get");
}
BENCHMARK(BM_Get)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

// Varbinds per second of one walk and the CPU seconds of `cpu` per varbind
// meanwhile; 0 unless it returned `varbinds`.
struct WalkRate {
  double perSecond = 0, cpuPerVarbind = 0;
};
// How a walk is made: snmpbulkwalk, or a client that does not print.
using Walker = long (*)(int port, const char* oid);
double noCpu() { return 0; }
WalkRate timedWalk(int port, const char* oid, long varbinds, const std::function<double()>& cpu = noCpu,
                   Walker walk = zelta_bench::bulkwalk) {
  const double cpuBefore = cpu();
  const auto start = Clock::now();
  const long n = walk(port, oid);
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (n != varbinds) return {};
  return {n / seconds, (cpu() - cpuBefore) / n};
}

void BM_BulkWalk(benchmark::State& state) {
  Rig& rig = Rig::get();
  if (!rig.failure().empty()) return state.SkipWithError(rig.failure().c_str());
  // And snmpd's own table, walked in turns with ours on its own port.
  Rounds rounds;
  std::vector<double> snmpd, directOverSnmpd, directCpu, snmpdCpu, leanDirect, leanSnmpd, leanOverSnmpd;
  const long ourCount = rig.ourVarbinds(), theirCount = rig.theirVarbinds();
  for (auto _ : state) {
    const int masterPort = rig.serve(Route::ThroughMaster);
    if (masterPort == 0) return state.SkipWithError("our subagent did not reach snmpd");
    zelta_bench::bulkwalk(masterPort, kTableOid), zelta_bench::bulkwalk(masterPort, kTheirTable);
    for (int round = 0; round < kRounds; ++round) {
      const WalkRate a = timedWalk(masterPort, kTableOid, ourCount, [&] { return rig.ourCpuSeconds(); });
      const WalkRate b = timedWalk(masterPort, kTheirTable, theirCount, [&] { return rig.theirCpuSeconds(); });
      if (a.perSecond == 0 || b.perSecond == 0) return state.SkipWithError("a walk through snmpd failed");
      rounds.ours.push_back(a.perSecond), rounds.oursCpu.push_back(a.cpuPerVarbind);
      rounds.theirs.push_back(b.perSecond), rounds.theirsCpu.push_back(b.cpuPerVarbind);
      rounds.ratios.push_back(a.perSecond / b.perSecond);
    }
    const int directPort = rig.serve(Route::Direct);
    if (directPort == 0) return state.SkipWithError("the agent did not start");
    zelta_bench::bulkwalk(directPort, kTableOid);
    for (int round = 0; round < kRounds; ++round) {
      const WalkRate a = timedWalk(directPort, kTableOid, ourCount, [&] { return rig.ourCpuSeconds(); });
      const WalkRate b = timedWalk(rig.snmpdPort(), kTheirTable, theirCount, [&] { return rig.snmpdCpuSeconds(); });
      if (a.perSecond == 0 || b.perSecond == 0) return state.SkipWithError("a walk of an agent's own port failed");
      rounds.direct.push_back(a.perSecond), snmpd.push_back(b.perSecond);
      directCpu.push_back(a.cpuPerVarbind), snmpdCpu.push_back(b.cpuPerVarbind);
      const WalkRate c = timedWalk(directPort, kTableOid, ourCount, noCpu, zelta_bench::leanBulkwalk);
      const WalkRate d = timedWalk(rig.snmpdPort(), kTheirTable, theirCount, noCpu, zelta_bench::leanBulkwalk);
      if (c.perSecond == 0 || d.perSecond == 0) return state.SkipWithError("a lean walk of an agent's own port failed");
      leanDirect.push_back(c.perSecond), leanSnmpd.push_back(d.perSecond);
      leanOverSnmpd.push_back(c.perSecond / d.perSecond);
      directOverSnmpd.push_back(a.perSecond / b.perSecond);
    }
  }
  rounds.report(state, "varbind");
  state.counters["ours_varbinds"] = static_cast<double>(ourCount);
  state.counters["theirs_varbinds"] = static_cast<double>(theirCount);
  state.counters["snmpd_own_varbinds_per_s"] = median(snmpd);
  state.counters["direct_over_snmpd_own"] = median(directOverSnmpd);
  // The agents' side of those walks alone: the client's own work (half a
  // walk's time or more) is the same for both.
  state.counters["direct_cpu_us_per_varbind"] = 1e6 * median(directCpu);
  state.counters["snmpd_own_cpu_us_per_varbind"] = 1e6 * median(snmpdCpu);
  // And walked by a client that does not print: the agents' rates.
  state.counters["lean_direct_varbinds_per_s"] = median(leanDirect);
  state.counters["lean_snmpd_own_varbinds_per_s"] = median(leanSnmpd);
  state.counters["lean_direct_over_snmpd_own"] = median(leanOverSnmpd);
}
BENCHMARK(BM_BulkWalk)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
