// SNMPAgent as AgentX subagent of Debian's snmpd, beyond the wire statuses
// (snmp_test and snmpagent_test run those through a master too): the master's
// objects beside ours, one SET over both, a master that comes late or restarts.
#include "snmp_fixture.h"

namespace zelta_test {
namespace {

using std::chrono::milliseconds;

const std::string kBase = ".1.3.6.1.4.1.99999.7", kVolume = kBase + ".1.0", kSysContact = ".1.3.6.1.2.1.1.4.0";

ToolResult snmp(const SnmpdMaster& master, const std::string& tool, Strings rest) {
  rest.insert(rest.begin(), master.target());
  return v2c(tool, rest);
}
std::string get(const SnmpdMaster& master, const std::string& oid) {
  return valueOf(snmp(master, "snmpget", {oid}).out, oid);
}

}  // namespace

// Over TCP: one walk over snmpd's objects (sysDescr, ifTable, ...) and ours;
// SETs refused while snmpd checks the bindings (TestSet) and while it commits
// them (CommitSet, once it set its own) leave sysContact as it was.
TEST(SubagentTest, ServesBesideTheMastersObjectsAndARefusedSetChangesNeither) {
  TempDir dir;
  HostDevice host(dir.path());
  SnmpdMaster master(true);
  ASSERT_TRUE(master.start());
  auto agent = startSubagent(&host.manager, master);
  ASSERT_NE(agent, nullptr);

  ToolResult walk = snmp(master, "snmpbulkwalk", {".1.3.6.1"});
  EXPECT_EQ(walk.exitCode, 0) << walk.out;  // the tool fails on an OID out of order
  for (const std::string& line : Strings{"\n.1.3.6.1.2.1.1.1.0 = STRING: ", "\n.1.3.6.1.2.1.2.2.1.1.1 = INTEGER: 1\n",
                                         "\n" + kVolume + " = INTEGER: 7\n"})
    EXPECT_NE(walk.out.find(line), std::string::npos) << line;

  const std::string cell = kBase + ".5.1.4.1", contact = get(master, kSysContact);
  ASSERT_EQ(reason(snmp(master, "snmpset",
                        {kBase + ".5.1.2.1", "i", "4", kBase + ".5.1.3.1", "a", "10.0.0.1", cell, "i", "5"})
                       .out),
            "");
  EXPECT_EQ(reason(snmp(master, "snmpset", {kSysContact, "s", "x", kVolume, "i", "420"}).out), "wrongValue");
  EXPECT_EQ(reason(snmp(master, "snmpset", {kSysContact, "s", "x", cell, "i", "13"}).out), "commitFailed");
  EXPECT_EQ(get(master, kSysContact), contact);
  EXPECT_EQ(reason(snmp(master, "snmpset", {kSysContact, "s", "both", kVolume, "i", "9"}).out), "");
  EXPECT_EQ(get(master, kSysContact), "STRING: \"both\"");
  EXPECT_EQ(get(master, kVolume), "INTEGER: 9");  // written by now, as snmpd finished the SET
  EXPECT_EQ(host.volume.getValueCopy().getLong(), 9);
}

// A bulk walk of a few thousand rows asks the subagent once per repetition:
// through the master it holds every varbind once, in order, as on the
// agent's own port it served just before.
TEST(SubagentTest, WalksALargeTableAsItsOwnPortDoes) {
  TempDir dir;
  HostDevice host(dir.path());
  const int rows = 3000;
  std::string lines;
  for (int i = 1; i <= rows; ++i)
    lines += "routes." + std::to_string(i) + " = 3:64:10.0." + std::to_string(i / 256) + "." +
             std::to_string(i % 256) + " 4:2:" + std::to_string(i % 16) + " \n";
  dir.write("network.txt", lines);
  host.manager.loadAllGroups();
  const Strings walk{"snmpbulkwalk", "-v2c", "-c", "public", "-On", "-t", "5", "-r", "0", "-Cr25"};
  // The varbinds a walk printed, from the first on.
  auto walkFrom = [&](const std::string& target) {
    Strings args = walk;
    args.push_back(target);
    args.push_back(kBase + ".5");
    ToolResult result = runTool(args);
    result.out.erase(0, std::min(result.out.find(kBase), result.out.size()));
    return result;
  };

  int port = 0;
  auto agent = startServingAgent(&host.manager, port);
  ASSERT_NE(agent, nullptr);
  const ToolResult direct = walkFrom("127.0.0.1:" + std::to_string(port));
  agent->stop();
  agent->waitForFinish();
  ASSERT_EQ(direct.exitCode, 0) << direct.out;  // the tool fails on an OID out of order
  ASSERT_EQ(occurrences(direct.out, kBase + ".5.1."), rows * 3u);  // RowStatus and two value columns

  SnmpdMaster master;
  ASSERT_TRUE(master.start());
  // The role changes in one process without a word from Net-SNMP.
  EXPECT_EQ(captureLog(WARNING, [&] { agent = startSubagent(&host.manager, master); }), "");
  ASSERT_NE(agent, nullptr);
  const ToolResult through = walkFrom(master.target());
  EXPECT_EQ(through.exitCode, 0);
  EXPECT_TRUE(through.out == direct.out) << through.out.substr(0, 2000);
}

// Started before its master; the master killed and started again, the host
// changing a value meanwhile; the agent restarted while the master is away.
TEST(SubagentTest, WaitsForItsMasterAndComesBackAfterEachRestart) {
  TempDir dir;
  HostDevice host(dir.path());
  SnmpdMaster master;
  SNMPAgent::Options options;
  options.agentxMaster = master.agentx();
  options.agentxPingSeconds = 1;
  SNMPAgent agent(&host.manager, options);
  const milliseconds back(4000);  // a ping interval, and slack for sanitizers
  auto lose = [&] {
    master.stop(SIGKILL);
    return waitFor([&] { return !agent.isConnectedToMaster(); }, milliseconds(5000));
  };
  const std::string log = captureLog(INFO, [&] {
    agent.start();
    ASSERT_TRUE(waitFor([&] { return agent.isRunning(); }, milliseconds(10000)));
    ASSERT_TRUE(master.start());
    EXPECT_TRUE(waitFor([&] { return get(master, kVolume) == "INTEGER: 7"; }, back));

    ASSERT_TRUE(lose());
    const auto start = std::chrono::steady_clock::now();
    host.volume.setValue(55L);
    EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(200));
    EXPECT_TRUE(host.settings.save());
    std::this_thread::sleep_for(milliseconds(2200));  // a few attempts, one line
    ASSERT_TRUE(master.start());
    EXPECT_TRUE(waitFor([&] { return get(master, kVolume) == "INTEGER: 55"; }, back));

    ASSERT_TRUE(lose());
    agent.stop();
    agent.waitForFinish();
    agent.start();
    ASSERT_TRUE(master.start());
    EXPECT_TRUE(waitFor([&] { return get(master, kVolume) == "INTEGER: 55"; }, back));
    agent.stop();
    agent.waitForFinish();
  });
  EXPECT_NE(dir.read("settings.txt").find("volume.0 = 0:2:55\n"), std::string::npos);
  auto count = [&](const std::string& line) { return occurrences(log, line); };
  EXPECT_EQ(count("AgentX: no master at " + master.agentx() + " yet; trying every 1 s\n"), 2u) << log;
  EXPECT_EQ(count("AgentX: connected to the master"), 2u) << log;
  EXPECT_EQ(count("AgentX: lost the master at " + master.agentx() + "; trying again every 1 s\n"), 2u) << log;
  EXPECT_EQ(count("AgentX: reconnected to the master"), 1u) << log;
  EXPECT_EQ(count("Net-SNMP: "), count("Net-SNMP: Created directory")) << log;  // no line of its own about AgentX
}

}  // namespace zelta_test
