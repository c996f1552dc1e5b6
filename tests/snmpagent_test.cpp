// SNMPAgent over a ParamManager: what a manager writes lands in the group
// files (on the agent's own port and through snmpd as AgentX master), a
// captured SNMPv3 SET is refused after a restart, and the agent's life cycle
// logs what it did.
#include <poll.h>

#include <functional>

#include "snmp_fixture.h"

using namespace zelta_test;
using std::chrono::milliseconds;

namespace {

const std::string kBase = "1.3.6.1.4.1.99999.7";

// Sends `datagram` on the connected socket `fd`; the answer that comes
// within 2 s, or "".
std::string roundTrip(int fd, const std::string& datagram) {
  send(fd, datagram.data(), datagram.size(), 0);
  pollfd answer{fd, POLLIN, 0};
  char buf[65536];
  const ssize_t n = poll(&answer, 1, 2000) == 1 ? recv(fd, buf, sizeof buf, 0) : 0;
  return std::string(buf, n > 0 ? static_cast<size_t>(n) : 0);
}

// Runs `manager` against a relay on 127.0.0.1 that hands each of its
// datagrams to the agent and the answer back, and returns the last datagram
// the manager sent: what an eavesdropper on the wire keeps.
std::string captureThroughRelay(int agentPort, const std::function<void(int relayPort)>& manager) {
  const int front = socket(AF_INET, SOCK_DGRAM, 0), back = connectedSocket(agentPort);
  sockaddr_in at = loopback(0);
  socklen_t length = sizeof at;
  bind(front, reinterpret_cast<sockaddr*>(&at), length);
  getsockname(front, reinterpret_cast<sockaddr*>(&at), &length);
  std::string kept;
  std::atomic<bool> done{false};
  std::thread relay([&] {
    sockaddr_in from{};
    socklen_t fromLength = sizeof from;
    char buf[65536];
    for (int turn = 0; !done && turn < 300; ++turn) {  // 30 s at most
      pollfd in{front, POLLIN, 0};
      const ssize_t n = poll(&in, 1, 100) == 1
                            ? recvfrom(front, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &fromLength)
                            : 0;
      if (n <= 0) continue;
      kept.assign(buf, static_cast<size_t>(n));
      const std::string answer = roundTrip(back, kept);
      if (!answer.empty())
        sendto(front, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr*>(&from), fromLength);
    }
  });
  manager(ntohs(at.sin_port));
  done = true;
  relay.join();
  close(front);
  close(back);
  return kept;
}

class SNMPAgentTest : public testing::Test {
 protected:
  void startAgent(const SNMPAgent::Options& options = SNMPAgent::Options()) {
    if (route == Route::ThroughMaster) {
      master = std::make_unique<SnmpdMaster>();
      ASSERT_TRUE(master->start());
      port = master->port();
      agent = startSubagent(&device->manager, *master);
    } else {
      agent = startServingAgent(&device->manager, port, options);
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

// The routing table is limited to three rows: a PDU that creates two rows
// across the limit creates neither, one more row answers
// resourceUnavailable, and a destroyed row makes room.
TEST_P(RoutedSNMPAgentTest, ManagerWritesLandInTheGroupFiles) {
  dir.write("network.txt", "routes.1 = 3:64:10.0.0.1 4:2:3 \n");
  device->manager.loadAllGroups();
  device->routesInfo.entryAs<DynMibTable>()->setMaxRows(3);
  startAgent();
  auto create = [&](const std::string& row) {
    return Strings{"." + kBase + ".5.1.2." + row, "i", "4", "." + kBase + ".5.1.3." + row, "a", "10.0.0." + row};
  };

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
  Strings two = create("5");
  for (const std::string& binding : create("6")) two.push_back(binding);
  EXPECT_EQ(reason(snmp("snmpset", two).out), "resourceUnavailable");
  EXPECT_EQ(reason(snmp("snmpset", create("5")).out), "resourceUnavailable");
  // A row destroyed in the same PDU makes room.
  Strings swap{"." + kBase + ".5.1.2.8", "i", "6"};
  for (const std::string& binding : create("5")) swap.push_back(binding);
  EXPECT_EQ(reason(snmp("snmpset", swap).out), "");

  const std::string settings =
      "volume.0 = 0:2:42\nname.0 = 0:4:\"kitchen\"\nserial.0 = 0:4:\"SN1\"\nhidden.0 = 0:2:1\n";
  const std::string network =
      "routes.1 = 3:64:10.0.0.1 4:2:9 \nroutes.5 = 3:64:10.0.0.5 4:2:0 \nroutes.7 = 3:64:192.168.0.7 4:2:2 \n";
  EXPECT_TRUE(waitFor([&] { return dir.read("settings.txt") == settings; }, milliseconds(6000)))
      << dir.read("settings.txt");
  EXPECT_TRUE(waitFor([&] { return dir.read("network.txt") == network; }, milliseconds(6000)))
      << dir.read("network.txt");
}

// A SET captured on the wire takes effect again while the agent runs, and is
// refused once it has restarted: with a state file and the host's fixed
// engine ID, with a fixed engine ID and no state file, and with neither. An
// answer, if any, is a USM report; the value and the file stay as they were.
TEST_F(SNMPAgentTest, ACapturedV3SetIsRefusedAfterARestart) {
  for (const auto& [engineId, stateFile] :
       {std::pair<std::string, std::string>{"zelta-box", dir.file("engine")}, {"zelta-box", ""}, {"", ""}}) {
    SNMPAgent::Options options;
    options.v3User = "zeltauser";
    options.v3AuthPassphrase = "auth-pass-1";
    options.v3PrivPassphrase = "priv-pass-1";
    options.engineId = engineId;
    options.engineStateFile = stateFile;
    startAgent(options);
    ASSERT_NE(agent, nullptr);
    const std::string captured = captureThroughRelay(port, [&](int relayPort) {
      Strings set{"snmpset", "-v3", "-u", "zeltauser", "-l", "authPriv", "-a", "SHA", "-A", "auth-pass-1", "-x", "AES"};
      set.insert(set.end(), {"-X", "priv-pass-1", "-On", "-t", "2", "-r", "0", "127.0.0.1:" + std::to_string(relayPort),
                             "." + kBase + ".1.0", "i", "42"});
      const ToolResult r = runTool(set);
      EXPECT_EQ(r.exitCode, 0) << r.out;
    });
    auto replay = [&] {
      device->volume.setValue(9L);
      EXPECT_TRUE(device->settings.save());
      const int fd = connectedSocket(port);
      const std::string answer = roundTrip(fd, captured);
      close(fd);
      return answer;
    };
    EXPECT_NE(replay(), "");
    EXPECT_EQ(device->volume.getValueCopy().getLong(), 42) << engineId << stateFile;
    agent->stop();
    agent->waitForFinish();
    startAgent(options);
    ASSERT_NE(agent, nullptr);
    const std::string answer = replay(), usmStats = "\x06\x0a\x2b\x06\x01\x06\x03\x0f\x01\x01";
    EXPECT_TRUE(answer.empty() || answer.find(usmStats) != std::string::npos) << engineId << stateFile;
    EXPECT_EQ(device->volume.getValueCopy().getLong(), 9) << engineId << stateFile;
    EXPECT_NE(dir.read("settings.txt").find("volume.0 = 0:2:9\n"), std::string::npos);
    agent->stop();
    agent->waitForFinish();
  }
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

// The port taken on 127.0.0.1 keeps every start from binding, on every
// interface too. A write community open to any source off loopback is told
// once, without the community; with a source limit or on loopback it is not.
TEST_F(SNMPAgentTest, BusyPortFailsAndTheNextStartWorks) {
  int busy = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in addr = loopback(0);
  socklen_t len = sizeof addr;
  ASSERT_EQ(bind(busy, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  getsockname(busy, reinterpret_cast<sockaddr*>(&addr), &len);
  SNMPAgent::Options options;
  options.port = ntohs(addr.sin_port);
  const std::string open =
      "AgentEngine: the read-write community is accepted from any source address on every "
      "interface, port " +
      std::to_string(options.port) + "; limit its sources or listen on a loopback address\n";
  for (const auto& [address, sources] :
       {std::pair{"", Strings{}}, {"", Strings{"10.0.0.0/8"}}, {"127.0.0.1", Strings{}}}) {
    options.listenAddress = address;
    options.rwCommunitySources = sources;
    SNMPAgent blocked(&device->manager, options);
    std::string log = captureLog(WARNING, [&] {
      blocked.start();
      blocked.waitForFinish();
    });
    EXPECT_EQ(occurrences(log, open), options.listenAddress.empty() && sources.empty() ? 1u : 0u) << log;
    EXPECT_EQ(log.find("vorpal"), std::string::npos);
    EXPECT_NE(log.find("SNMPAgent: SNMP cannot listen on port " + std::to_string(options.port) + "\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("SNMPAgent: Cannot initialize SNMP Agent!\n"), std::string::npos);
    EXPECT_FALSE(blocked.isRunning());
    EXPECT_TRUE(blocked.hasFinished());  // how a host learns that the port was not opened
    blocked.stop();                      // harmless
  }
  close(busy);

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
