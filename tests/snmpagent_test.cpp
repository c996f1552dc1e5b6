// SNMPAgent over a ParamManager: what a manager writes lands in the group
// files (on the agent's own port and through snmpd as AgentX master), and the
// agent's life cycle logs what it did.
#include "snmp_fixture.h"

using namespace zelta_test;
using std::chrono::milliseconds;

namespace {

const std::string kBase = "1.3.6.1.4.1.99999.7";

class SNMPAgentTest : public testing::Test {
 protected:
  void startAgent() {
    if (route == Route::ThroughMaster) {
      master = std::make_unique<SnmpdMaster>();
      ASSERT_TRUE(master->start());
      port = master->port();
      agent = startSubagent(&device->manager, *master);
    } else {
      agent = startServingAgent(&device->manager, port);
    }
    ASSERT_NE(agent, nullptr);
  }
  void TearDown() override {
    if (agent) {
      agent->stop();
      agent->waitForFinish();
    }
    master.reset();
    // Let a pending auto-save finish before the groups go away.
    waitFor([&] { return !device->settings.isWorkerRunning() && !device->network.isWorkerRunning(); },
            milliseconds(6000));
  }
  ToolResult snmp(const std::string& tool, Strings rest) {
    rest.insert(rest.begin(), "127.0.0.1:" + std::to_string(port));
    return v2c(tool, rest);
  }

  Route route = Route::Direct;
  TempDir dir;
  std::unique_ptr<HostDevice> device = std::make_unique<HostDevice>(dir.path());
  std::unique_ptr<SnmpdMaster> master;
  std::unique_ptr<SNMPAgent> agent;
  int port = 0;
};

using RoutedSNMPAgentTest = Routed<SNMPAgentTest>;
INSTANTIATE_TEST_SUITE_P(, RoutedSNMPAgentTest, testing::Values(Route::Direct, Route::ThroughMaster), routeName);

}  // namespace

TEST_P(RoutedSNMPAgentTest, ManagerWritesLandInTheGroupFiles) {
  dir.write("network.txt", "routes.1 = 3:64:10.0.0.1 4:2:3 \n");
  device->manager.loadAllGroups();
  startAgent();

  ToolResult r = snmp("snmpset", {"." + kBase + ".1.0", "i", "42", "." + kBase + ".2.0", "s", "kitchen"});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  r = snmp("snmpset", {"." + kBase + ".5.1.4.1", "i", "9"});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  // A new row in one PDU: RowStatus createAndGo with its values.
  r = snmp("snmpset", {"." + kBase + ".5.1.2.7", "i", "4", "." + kBase + ".5.1.3.7", "a", "192.168.0.7",
                       "." + kBase + ".5.1.4.7", "i", "2"});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  // A row waiting for its values is not active and so not kept in the file.
  r = snmp("snmpset", {"." + kBase + ".5.1.2.8", "i", "5"});
  ASSERT_EQ(r.exitCode, 0) << r.out;

  const std::string settings =
      "volume.0 = 0:2:42\nname.0 = 0:4:\"kitchen\"\nserial.0 = 0:4:\"SN1\"\nhidden.0 = 0:2:1\n";
  const std::string network = "routes.1 = 3:64:10.0.0.1 4:2:9 \nroutes.7 = 3:64:192.168.0.7 4:2:2 \n";
  EXPECT_TRUE(waitFor([&] { return dir.read("settings.txt") == settings; }, milliseconds(6000)))
      << dir.read("settings.txt");
  EXPECT_TRUE(waitFor([&] { return dir.read("network.txt") == network; }, milliseconds(6000)))
      << dir.read("network.txt");
}

TEST_F(SNMPAgentTest, LifeCycleLogsInOrderAndCountsAccess) {
  std::string log = captureLog(INFO, [&] {
    startAgent();
    agent->stop();
    agent->waitForFinish();
  });
  const size_t listen = log.find("SNMPAgent: SNMP listen port " + std::to_string(port) + "\n");
  const size_t handling = log.find("SNMPAgent: handling 1 RO entries, 3 RW entries\n");
  const size_t finished = log.find("SNMPAgent: thread successfully started\n");
  ASSERT_NE(listen, std::string::npos) << log;
  ASSERT_NE(handling, std::string::npos) << log;
  ASSERT_NE(finished, std::string::npos) << log;
  EXPECT_LT(listen, handling);
  EXPECT_LT(handling, finished);
  EXPECT_EQ(agent->getEntries().size(), 4u);
  EXPECT_FALSE(agent->isRunning());
}

TEST_F(SNMPAgentTest, BusyPortFailsAndTheNextStartWorks) {
  int busy = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in addr = loopback(0);
  socklen_t len = sizeof addr;
  ASSERT_EQ(bind(busy, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  getsockname(busy, reinterpret_cast<sockaddr*>(&addr), &len);
  SNMPAgent::Options options;
  options.port = ntohs(addr.sin_port);
  options.listenAddress = "127.0.0.1";
  SNMPAgent blocked(&device->manager, options);
  std::string log = captureLog(WARNING, [&] {
    blocked.start();
    blocked.waitForFinish();
  });
  close(busy);
  EXPECT_NE(log.find("SNMPAgent: SNMP cannot listen on port " + std::to_string(options.port) + "\n"), std::string::npos)
      << log;
  EXPECT_NE(log.find("SNMPAgent: Cannot initialize SNMP Agent!\n"), std::string::npos);
  EXPECT_FALSE(blocked.isRunning());
  EXPECT_TRUE(blocked.hasFinished());  // how a host learns that the port was not opened
  blocked.stop();                      // harmless

  // A stop before start does not keep the start from serving (a few tries:
  // a port found free may be taken before the agent binds it).
  std::unique_ptr<SNMPAgent> later;
  for (int attempt = 0; attempt < 5 && !(later && later->isRunning()); ++attempt) {
    if (later) later->waitForFinish();
    options.port = port = freeUdpPort();
    later = std::make_unique<SNMPAgent>(&device->manager, options);
    later->stop();
    later->start();
    waitFor([&] { return later->isRunning() || later->hasFinished(); }, milliseconds(10000));
  }
  ASSERT_TRUE(later->isRunning());
  ToolResult r = snmp("snmpget", {"." + kBase + ".1.0"});
  EXPECT_NE(r.out.find("INTEGER: 7"), std::string::npos) << r.out;
  later->stop();
  later->waitForFinish();
}

// A host hook that throws must not take the device down: the request fails.
TEST_P(RoutedSNMPAgentTest, ThrowingHookFailsTheRequestOnly) {
  device->volume.setValidator([](const Variant&, const ExtraInfo*) -> bool { throw std::runtime_error("bad hook"); });
  startAgent();
  std::string log = captureLog(ERROR, [&] {
    ToolResult r = snmp("snmpset", {"." + kBase + ".1.0", "i", "5"});
    EXPECT_NE(r.out.find("genError"), std::string::npos) << r.out;
  });
  EXPECT_NE(log.find("SNMP: request failed, a hook threw: bad hook\n"), std::string::npos) << log;
  EXPECT_EQ(device->volume.getValueCopy().getLong(), 7);
  ToolResult r = snmp("snmpget", {"." + kBase + ".1.0"});
  EXPECT_NE(r.out.find("INTEGER: 7"), std::string::npos) << r.out;
}

// A table's OID must be its entry OID (ending in .1): the start-up error says
// which parameter is wrong.
TEST_F(SNMPAgentTest, TableOidThatIsNoEntryIsReportedWithItsKey) {
  SNMPInfo info(kBase + ".9", READCREATE);
  Param wrong(device->network, TABLE, Variant(Table(&device->def)), &info);
  device->manager.add("wrongTable", &wrong);
  std::string log = captureLog(ERROR, [&] { startAgent(); });
  EXPECT_NE(log.find("DynMibTable: ." + kBase + ".9 is not a table entry OID (it must end in .1)\n"), std::string::npos)
      << log;
  EXPECT_NE(log.find("AgentEngine: cannot publish 'wrongTable' at ." + kBase + ".9\n"), std::string::npos) << log;
}
