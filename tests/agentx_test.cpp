// SNMPAgent as AgentX subagent of Debian's snmpd: the master's objects and
// ours side by side, SETs over both, a master that comes late or restarts.
// The wire statuses through a master are checked by snmp_test and
// snmpagent_test (their ThroughMaster cases).
#include <gtest/gtest.h>
#include <string.h>

#include <chrono>

#include "snmp_fixture.h"

namespace zelta_test {
namespace {

using std::chrono::milliseconds;

const std::string kBase = ".1.3.6.1.4.1.99999.7";
const std::string kSysContact = ".1.3.6.1.2.1.1.4.0";

// A host program's parameters: a ranged scalar, and a table whose column 3
// refuses 13 (checked when the master commits, after the checks of every
// binding passed).
struct Host {
  explicit Host(const std::string& dir) : settings("settings", dir + "/settings.txt") {
    manager.add("volume", &volume);
    manager.add("routes", &routes);
  }
  ParamGroup settings;
  std::map<unsigned int, FieldType> fields{
      {3, FieldType(
              INTEGER, [](const Variant& v, const ExtraInfo*) { return v.getLong() != 13; }, 0, 100)}};
  TableDef def{{1}, 2, fields, 1};
  SNMPInfo volumeInfo{kBase + ".1.0", READWRITE}, routesInfo{kBase + ".2.1", READCREATE};
  Param volume{settings, INTEGER, Variant(7), &volumeInfo, SAVE_ON_CHANGE, {0, 100}};
  Param routes{settings, TABLE, Variant(Table(&def)), &routesInfo};
  ParamManager manager;
};

ToolResult snmp(const SnmpdMaster& master, const std::string& tool, const std::string& community, Strings rest) {
  Strings args{tool, "-v2c", "-c", community, "-On", "-t", "2", "-r", "0", master.target()};
  args.insert(args.end(), rest.begin(), rest.end());
  return runTool(args);
}

std::string volume(const SnmpdMaster& master) {
  return valueOf(snmp(master, "snmpget", "public", {kBase + ".1.0"}).out, kBase + ".1.0");
}

size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

}  // namespace

TEST(SubagentTest, ServesBesideTheMastersObjectsAndARefusedSetChangesNeither) {
  TempDir dir;
  Host host(dir.path());
  SnmpdMaster master;
  ASSERT_TRUE(master.start());
  auto agent = startSubagent(&host.manager, master);
  ASSERT_NE(agent, nullptr);

  // One GETNEXT over the system group, ifTable and ours; a walk from the
  // master's enterprise objects into ours, in order.
  ToolResult next = snmp(master, "snmpgetnext", "public", {".1.3.6.1.2.1.1.1", ".1.3.6.1.2.1.2.2", kBase});
  EXPECT_EQ(valueOf(next.out, ".1.3.6.1.2.1.1.1.0").rfind("STRING: ", 0), 0u) << next.out;
  EXPECT_EQ(valueOf(next.out, ".1.3.6.1.2.1.2.2.1.1.1"), "INTEGER: 1") << next.out;
  EXPECT_EQ(valueOf(next.out, kBase + ".1.0"), "INTEGER: 7") << next.out;
  ToolResult walk = snmp(master, "snmpbulkwalk", "public", {".1.3.6.1.4.1"});
  EXPECT_EQ(walk.exitCode, 0) << walk.out;  // the tool fails on an OID out of order
  EXPECT_NE(walk.out.find(".1.3.6.1.4.1.8072."), std::string::npos);
  EXPECT_EQ(walk.out.substr(walk.out.rfind('\n', walk.out.size() - 2) + 1), kBase + ".1.0 = INTEGER: 7\n");

  // Refused while the bindings are checked (TestSet) and while they are
  // committed (CommitSet, after the master set its own): sysContact stays.
  ASSERT_EQ(reason(snmp(master, "snmpset", "vorpal", {kBase + ".2.1.2.1", "i", "4", kBase + ".2.1.3.1", "i", "5"}).out),
            "");
  const std::string before = valueOf(snmp(master, "snmpget", "public", {kSysContact}).out, kSysContact);
  EXPECT_EQ(reason(snmp(master, "snmpset", "vorpal", {kSysContact, "s", "x", kBase + ".1.0", "i", "420"}).out),
            "wrongValue");
  EXPECT_EQ(reason(snmp(master, "snmpset", "vorpal", {kSysContact, "s", "x", kBase + ".2.1.3.1", "i", "13"}).out),
            "commitFailed");
  EXPECT_EQ(valueOf(snmp(master, "snmpget", "public", {kSysContact}).out, kSysContact), before);
  EXPECT_EQ(reason(snmp(master, "snmpset", "vorpal", {kSysContact, "s", "both", kBase + ".1.0", "i", "9"}).out), "");
  EXPECT_EQ(valueOf(snmp(master, "snmpget", "public", {kSysContact}).out, kSysContact), "STRING: \"both\"");
  EXPECT_EQ(host.volume.getValueCopy().getLong(), 9);
  Variant cell;
  EXPECT_TRUE(host.routes.getTableCellValue({1}, 3, cell) && cell.getLong() == 5);
}

// Started before its master; the master killed and started again (the host
// changing a value meanwhile); the agent restarted while the master is away.
TEST(SubagentTest, WaitsForItsMasterAndComesBackAfterEachRestart) {
  TempDir dir;
  Host host(dir.path());
  SnmpdMaster master;
  SNMPAgent::Options options;
  options.agentxMaster = master.agentx();
  options.agentxPingSeconds = 1;
  SNMPAgent agent(&host.manager, options);
  const milliseconds back(4000);  // a ping interval, and slack for sanitizers
  const std::string log = captureLog(INFO, [&] {
    agent.start();
    ASSERT_TRUE(waitFor([&] { return agent.isRunning(); }, milliseconds(10000)));
    ASSERT_TRUE(master.start());
    EXPECT_TRUE(waitFor([&] { return volume(master) == "INTEGER: 7"; }, back));

    master.stop(SIGKILL);
    ASSERT_TRUE(waitFor([&] { return !agent.isConnectedToMaster(); }, milliseconds(5000)));
    const auto start = std::chrono::steady_clock::now();
    host.volume.setValue(55L);  // the host's own change: no wait for the master
    EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(200));
    EXPECT_TRUE(host.settings.save());
    std::this_thread::sleep_for(milliseconds(2200));  // a few attempts, one line
    ASSERT_TRUE(master.start());
    EXPECT_TRUE(waitFor([&] { return volume(master) == "INTEGER: 55"; }, back));

    master.stop(SIGKILL);
    ASSERT_TRUE(waitFor([&] { return !agent.isConnectedToMaster(); }, milliseconds(5000)));
    agent.stop();
    agent.waitForFinish();
    agent.start();
    ASSERT_TRUE(master.start());
    EXPECT_TRUE(waitFor([&] { return volume(master) == "INTEGER: 55"; }, back));
    agent.stop();
    agent.waitForFinish();
  });
  EXPECT_NE(dir.read("settings.txt").find("volume.0 = 0:2:55\n"), std::string::npos);
  EXPECT_EQ(count(log, "AgentX: no master at " + master.agentx() + " yet; trying every 1 s\n"), 2u) << log;
  EXPECT_EQ(count(log, "AgentX: connected to the master"), 2u) << log;
  EXPECT_EQ(count(log, "AgentX: lost the master at " + master.agentx() + "; trying again every 1 s\n"), 2u) << log;
  EXPECT_EQ(count(log, "AgentX: reconnected to the master"), 1u) << log;
  EXPECT_EQ(count(log, "Net-SNMP: "), count(log, "Net-SNMP: Created directory")) << log;
}

// Over TCP; the master's trap sink sees the master's coldStart, and none of
// ours before the authenticationFailure trap that a bad community causes
// once we serve.
TEST(SubagentTest, ReachesAMasterOverTcpAndSendsNoColdStart) {
  int sink = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in at = loopback(0);
  socklen_t length = sizeof at;
  ASSERT_EQ(bind(sink, reinterpret_cast<sockaddr*>(&at), length), 0);
  getsockname(sink, reinterpret_cast<sockaddr*>(&at), &length);
  const timeval wait{5, 0};
  setsockopt(sink, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  // snmpTrapOID values as BER: coldStart and authenticationFailure.
  const std::string coldStart("\x06\x09\x2b\x06\x01\x06\x03\x01\x01\x05\x01", 11);
  const std::string authFailure("\x06\x09\x2b\x06\x01\x06\x03\x01\x01\x05\x05", 11);
  // Whether a trap that holds `trap` came within 5 s; `others` gets those before it.
  auto receive = [&](const std::string& trap, std::vector<std::string>& others) {
    char buf[2048];
    for (ssize_t n; (n = recv(sink, buf, sizeof buf, 0)) > 0;) {
      if (std::string(buf, static_cast<size_t>(n)).find(trap) != std::string::npos) return true;
      others.emplace_back(buf, static_cast<size_t>(n));
    }
    return false;
  };
  SnmpdMaster master(true,
                     {"trap2sink 127.0.0.1:" + std::to_string(ntohs(at.sin_port)) + " public", "authtrapenable 1"});
  ASSERT_TRUE(master.start());
  std::vector<std::string> before, after;
  ASSERT_TRUE(receive(coldStart, before));

  TempDir dir;
  Host host(dir.path());
  auto agent = startSubagent(&host.manager, master);
  ASSERT_NE(agent, nullptr);
  EXPECT_EQ(volume(master), "INTEGER: 7");
  snmp(master, "snmpget", "nobody", {kBase + ".1.0"});
  EXPECT_TRUE(receive(authFailure, after));
  for (const std::string& trap : after) EXPECT_EQ(trap.find(coldStart), std::string::npos);
  agent->stop();
  agent->waitForFinish();
  close(sink);
}

}  // namespace zelta_test
