// Test fixture for the SNMP agent: an engine on a free loopback port (or behind
// Debian's snmpd as AgentX master) served by a thread of the test's own, and the
// Net-SNMP command-line tools under a time limit. The engine and the library
// lock are internals: a test that links libzelta.so alone (not zelta-internal)
// gets the tools and the SNMPAgent helpers only.
#ifndef ZELTA_TESTS_SNMP_FIXTURE_H_
#define ZELTA_TESTS_SNMP_FIXTURE_H_

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "loopback.h"
#include "snmpd_master.h"
#include "test_util.h"
#include "zelta/mibtypes.h"
#include "zelta/parammanager.h"
#include "zelta/snmpagent.h"
#include "zelta/tabledef.h"
#ifdef ZELTA_LINKS_INTERNALS
#include "snmp/agentengine.h"
#endif

namespace zelta_test {

using namespace Quorvel::Kvan;
using namespace Quorvel::Kvan::SNMP;
using Strings = std::vector<std::string>;

struct ToolResult {
  int exitCode = -1;
  std::string out;  // standard output and error together
};

// Runs one tool under `timeout 10`, its arguments quoted for the shell, with
// no MIB files and its state in a directory removed at exit.
inline ToolResult runTool(const std::vector<std::string>& args) {
  static const TempDir stateDir;
  // Requests reach the agent through the kernel, which ThreadSanitizer does
  // not see; taking the library lock before and after orders them.
#ifdef ZELTA_LINKS_INTERNALS
  { LibraryLockGuard before(libraryMutex()); }
#endif
  const std::string state = "'" + stateDir.path() + "'";
  std::string command = "MIBS= SNMPCONFPATH=" + state + " SNMP_PERSISTENT_DIR=" + state + " timeout 10";
  for (const std::string& a : args) command += " '" + Common::replace(a, "'", "'\\''") + "'";
  ToolResult result;
  if (FILE* pipe = popen((command + " 2>&1").c_str(), "r")) {
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, pipe)) > 0;) result.out.append(buf, n);
    const int status = pclose(pipe);
    if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  }
#ifdef ZELTA_LINKS_INTERNALS
  { LibraryLockGuard after(libraryMutex()); }
#endif
  return result;
}

// The error status a tool printed ("Reason: (noSuchName) ...", "Reason:
// notWritable (...)"), or "" when there is none.
inline std::string reason(const std::string& out) {
  size_t at = out.find("Reason: ");
  if (at == std::string::npos) return "";
  at = out.find_first_not_of('(', at + 8);
  return out.substr(at, out.find_first_of(") \n", at) - at);
}

// The printed value of `name` in a tool's output ("INTEGER: 5"), or "".
inline std::string valueOf(const std::string& out, const std::string& name) {
  size_t at = out.find(name + " = ");
  if (at == std::string::npos) return "";
  at += name.size() + 3;
  return out.substr(at, out.find('\n', at) - at);
}

// An SNMPv2c tool call, one try of 3 s, numeric OIDs: community vorpal for
// snmpset, public otherwise; `rest` starts with any options, then the target.
inline ToolResult v2c(const std::string& tool, const Strings& rest) {
  Strings args{tool, "-v2c", "-c", tool == "snmpset" ? "vorpal" : "public", "-On", "-t", "3", "-r", "0"};
  args.insert(args.end(), rest.begin(), rest.end());
  return runTool(args);
}

// How a test's requests reach the agent: on its own port, or through Debian's
// snmpd as AgentX master, the agent being its subagent.
enum class Route { Direct, ThroughMaster };
inline std::string routeName(const testing::TestParamInfo<Route>& info) {
  return info.param == Route::Direct ? "Direct" : "ThroughMaster";
}
// The tests of fixture `Base` (TEST_P), run once for each route.
template <class Base>
class Routed : public Base, public testing::WithParamInterface<Route> {
 protected:
  Routed() { this->route = this->GetParam(); }
};

#ifdef ZELTA_LINKS_INTERNALS
// An engine with the test's entries, on 127.0.0.1 or behind a master started
// for the test, served by a thread until TearDown.
class AgentTest : public ::testing::Test {
 protected:
  // A port found free may be taken again before the agent binds it (a tool's
  // source port, a parallel test): a few tries with fresh ports.
  bool startAgent(const std::vector<MibEntry*>& entries, SNMPAgent::Options config = SNMPAgent::Options()) {
    if (route == Route::ThroughMaster) return startSubagent(entries, config);
    config.listenAddress = "127.0.0.1";
    for (int attempt = 0; attempt < 5; ++attempt) {
      config.port = port = freeUdpPort();
      if (serve(entries, config)) return true;
    }
    return false;
  }
  // Requests then go to the master's port; the engine registered with it
  // before initialize() returned.
  bool startSubagent(const std::vector<MibEntry*>& entries, SNMPAgent::Options config) {
    if (!master) master = std::make_unique<SnmpdMaster>();
    if (!master->running() && !master->start()) return false;
    config.agentxMaster = master->agentx();
    config.agentxPingSeconds = 1;
    port = master->port();
    ours = entries.empty() ? "" : "." + entries.front()->getOid();
    return serve(entries, config) && AgentEngine::isConnectedToMaster();
  }
  bool serve(const std::vector<MibEntry*>& entries, const SNMPAgent::Options& config) {
    auto started = std::make_shared<std::promise<bool>>();
    std::future<bool> ready = started->get_future();
    stopFlag = false;
    server = std::thread([this, entries, config, started] {
      bool ok = engine.initialize(config, entries);
      started->set_value(ok);
      // Bounded in time too, should a test never stop it.
      auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(10);
      while (ok && !stopFlag && std::chrono::steady_clock::now() < deadline) engine.serveOnce(1);
      engine.shutdown();
    });
    bool ok = ready.get();
    if (!ok) server.join();
    return ok;
  }
  void stopAgent() {
    if (!server.joinable()) return;
    stopFlag = true;
    engine.wakeUp();
    server.join();
  }
  void TearDown() override {
    stopAgent();
    master.reset();
  }

  std::string target() const { return "127.0.0.1:" + std::to_string(port); }
  // A tool call with the common options; `version` is "1" or "2c".
  ToolResult tool(const std::string& name, const std::string& version, const std::string& community, Strings rest) {
    Strings args{name, "-v", version, "-c", community, "-On", "-Oe", "-t", "1", "-r", "0", target()};
    args.insert(args.end(), rest.begin(), rest.end());
    ToolResult result = runTool(args);
    // Through a master the agent writes when snmpd tells it to clean up,
    // right after snmpd answered the SET; a request to the agent behind it
    // waits for that.
    if (route == Route::ThroughMaster && name == "snmpset") get("2c", {ours});
    return result;
  }
  ToolResult get(const std::string& v, const Strings& oids) { return tool("snmpget", v, "public", oids); }
  std::string fetch(const std::string& oid, const std::string& v = "2c") { return valueOf(get(v, {oid}).out, oid); }
  // Why a SET of the (name, type, value) triples failed; "" when it worked.
  std::string refusal(const std::string& v, const Strings& s) { return reason(tool("snmpset", v, "vorpal", s).out); }
  // A failed read in SNMPv1: snmpd as master answers any error of a
  // subagent's object in a v1 read with noSuchName.
  std::string v1ReadError() const { return route == Route::Direct ? "genError" : "noSuchName"; }
  // Each triple of `triples`, set alone, is refused for `v2` in v2c and for `v1` in SNMPv1.
  void expectEachRefused(const std::string& v2, const std::string& v1, const Strings& triples) {
    for (size_t i = 0; i + 2 < triples.size(); i += 3) {
      Strings one(triples.begin() + i, triples.begin() + i + 3);
      EXPECT_EQ(refusal("2c", one), v2) << one[0] << " = " << one[2].substr(0, 16);
      EXPECT_EQ(refusal("1", one), v1) << one[0] << " = " << one[2].substr(0, 16);
    }
  }

  Route route = Route::Direct;
  std::unique_ptr<SnmpdMaster> master;
  std::string ours;  // an OID the master hands to the agent
  AgentEngine engine;
  std::thread server;
  std::atomic<bool> stopFlag{false};
  int port = 0;
};
#endif  // ZELTA_LINKS_INTERNALS

// A device's parameters under .1.3.6.1.4.1.99999.7: a ranged integer, a
// string, a read-only value, an unpublished one and a routing table whose
// RowStatus follows the index and whose metric refuses 13 when the SET is
// committed, after every binding was checked.
struct HostDevice {
  explicit HostDevice(const std::string& dir)
      : settings("settings", dir + "/settings.txt"),
        network("network", dir + "/network.txt"),
        def({1}, 2, fields, 1),
        volume(settings, INTEGER, Variant(7), &volumeInfo, SAVE_ON_CHANGE, {0, 100}),
        name(settings, STRING, Variant("box"), &nameInfo),
        serial(settings, STRING, Variant("SN1"), &serialInfo),
        hidden(settings, INTEGER, Variant(1), &hiddenInfo),
        routes(network, TABLE, Variant(Table(&def)), &routesInfo) {
    for (auto [key, param] :
         {std::pair{"volume", &volume}, {"name", &name}, {"serial", &serial}, {"hidden", &hidden}, {"routes", &routes}})
      manager.add(key, param);
  }
  std::map<unsigned int, FieldType> fields{
      {3, FieldType(IPADDRESS, NO_RANGE, NO_RANGE)},
      {4, FieldType(
              INTEGER, [](const Variant& v, const ExtraInfo*) { return v.getLong() != 13; }, 0, 15)}};
  SNMPInfo volumeInfo{"1.3.6.1.4.1.99999.7.1.0", READWRITE}, nameInfo{"1.3.6.1.4.1.99999.7.2.0", READCREATE};
  SNMPInfo serialInfo{"1.3.6.1.4.1.99999.7.3.0", READONLY}, hiddenInfo{"1.3.6.1.4.1.99999.7.4.0", NOACCESS};
  SNMPInfo routesInfo{"1.3.6.1.4.1.99999.7.5.1", READCREATE};
  ParamGroup settings, network;
  TableDef def;
  Param volume, name, serial, hidden, routes;
  ParamManager manager;
};

// An SNMPAgent serving `manager` on a free 127.0.0.1 port (a few tries, as
// above); null when it never came up.
inline std::unique_ptr<SNMPAgent> startServingAgent(ParamManager* manager, int& port,
                                                    SNMPAgent::Options options = SNMPAgent::Options()) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    options.port = port = freeUdpPort();
    options.listenAddress = "127.0.0.1";
    auto agent = std::make_unique<SNMPAgent>(manager, options);
    agent->start();
    waitFor([&] { return agent->isRunning() || agent->hasFinished(); }, std::chrono::milliseconds(10000));
    if (agent->isRunning()) return agent;
    agent->stop();
    agent->waitForFinish();
  }
  return nullptr;
}

// An SNMPAgent registered with `master` as its subagent; null when it did
// not get there.
inline std::unique_ptr<SNMPAgent> startSubagent(ParamManager* manager, const SnmpdMaster& master,
                                                SNMPAgent::Options options = SNMPAgent::Options()) {
  options.agentxMaster = master.agentx();
  options.agentxPingSeconds = 1;
  auto agent = std::make_unique<SNMPAgent>(manager, options);
  agent->start();
  if (waitFor([&] { return agent->isConnectedToMaster(); }, std::chrono::milliseconds(10000))) return agent;
  agent->stop();
  agent->waitForFinish();
  return nullptr;
}

}  // namespace zelta_test

#endif  // ZELTA_TESTS_SNMP_FIXTURE_H_
