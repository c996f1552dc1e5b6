// SNMPAgent over a ParamManager: what a manager writes lands in the group
// files (on the agent's own port and through snmpd as AgentX master), and the
// agent's life cycle logs what it did.
#include <gtest/gtest.h>

#include <chrono>

#include "snmp_fixture.h"
#include "test_util.h"
#include "zelta/parammanager.h"
#include "zelta/snmpagent.h"

using namespace Quorvel::Kvan;
using namespace Quorvel::Kvan::SNMP;
using std::chrono::milliseconds;
using zelta_test::captureLog;
using zelta_test::freeUdpPort;
using zelta_test::Route;
using zelta_test::runTool;
using zelta_test::TempDir;
using zelta_test::ToolResult;
using zelta_test::waitFor;

namespace {

const std::string kBase = "1.3.6.1.4.1.99999.7";

// A device's parameters: a ranged integer, a string, a read-only value, an
// unpublished one and a routing table whose RowStatus follows the index.
struct Device {
  explicit Device(const std::string& dir)
      : settings("settings", dir + "/settings.txt"),
        network("network", dir + "/network.txt"),
        def({1}, 2, fields, 1),
        volume(settings, INTEGER, Variant(7), &volumeInfo, SAVE_ON_CHANGE, {0, 100}),
        name(settings, STRING, Variant("box"), &nameInfo),
        serial(settings, STRING, Variant("SN1"), &serialInfo),
        hidden(settings, INTEGER, Variant(1), &hiddenInfo),
        routes(network, TABLE, Variant(Table(&def)), &routesInfo) {
    manager.add("volume", &volume);
    manager.add("name", &name);
    manager.add("serial", &serial);
    manager.add("hidden", &hidden);
    manager.add("routes", &routes);
  }
  std::map<unsigned int, FieldType> fields{{3, FieldType(IPADDRESS, NO_RANGE, NO_RANGE)},
                                           {4, FieldType(INTEGER, 0, 15)}};
  SNMPInfo volumeInfo{kBase + ".1.0", READWRITE};
  SNMPInfo nameInfo{kBase + ".2.0", READCREATE};
  SNMPInfo serialInfo{kBase + ".3.0", READONLY};
  SNMPInfo hiddenInfo{kBase + ".4.0", NOACCESS};
  SNMPInfo routesInfo{kBase + ".5.1", READCREATE};
  ParamGroup settings, network;
  TableDef def;
  Param volume, name, serial, hidden, routes;
  ParamManager manager;
};

class SNMPAgentTest : public testing::Test {
 protected:
  void startAgent() {
    if (route == Route::ThroughMaster) {
      master = std::make_unique<zelta_test::SnmpdMaster>();
      ASSERT_TRUE(master->start());
      port = master->port();
      agent = zelta_test::startSubagent(&device->manager, *master);
    } else {
      agent = zelta_test::startServingAgent(&device->manager, port);
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
  ToolResult snmp(const std::string& tool, std::vector<std::string> rest) {
    std::vector<std::string> args{
        tool, "-v", "2c", "-c", "vorpal", "-On", "-t", "1", "-r", "0", "127.0.0.1:" + std::to_string(port)};
    args.insert(args.end(), rest.begin(), rest.end());
    return runTool(args);
  }

  Route route = Route::Direct;
  TempDir dir;
  std::unique_ptr<Device> device = std::make_unique<Device>(dir.path());
  std::unique_ptr<zelta_test::SnmpdMaster> master;
  std::unique_ptr<SNMPAgent> agent;
  int port = 0;
};

using RoutedSNMPAgentTest = zelta_test::Routed<SNMPAgentTest>;
INSTANTIATE_TEST_SUITE_P(, RoutedSNMPAgentTest, testing::Values(Route::Direct, Route::ThroughMaster),
                         zelta_test::routeName);

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
  r = snmp("snmpget", {"." + kBase + ".3.0", "." + kBase + ".5.1.3.7"});
  EXPECT_NE(r.out.find("STRING: \"SN1\""), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("IpAddress: 192.168.0.7"), std::string::npos) << r.out;

  const std::string settings =
      "volume.0 = 0:2:42\nname.0 = 0:4:\"kitchen\"\nserial.0 = 0:4:\"SN1\"\nhidden.0 = 0:2:1\n";
  const std::string network = "routes.1 = 3:64:10.0.0.1 4:2:9 \nroutes.7 = 3:64:192.168.0.7 4:2:2 \n";
  EXPECT_TRUE(waitFor([&] { return dir.read("settings.txt") == settings; }, milliseconds(6000)))
      << dir.read("settings.txt");
  EXPECT_TRUE(waitFor([&] { return dir.read("network.txt") == network; }, milliseconds(6000)))
      << dir.read("network.txt");

  // A device booting from these files gets the values back.
  Device rebooted(dir.path());
  rebooted.manager.loadAllGroups();
  EXPECT_EQ(rebooted.volume.getValue().getLong(), 42);
  EXPECT_EQ(rebooted.name.getValue().getString(), "kitchen");
  Variant metric;
  ASSERT_TRUE(rebooted.routes.getTableCellValue({7}, 4, metric));
  EXPECT_EQ(metric.getLong(), 2);
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
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
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
