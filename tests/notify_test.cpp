// Notifications as Debian's snmptrapd receives them: coldStart, change
// notifications of SETs and of the host, trap and inform delivery, and
// targets a manager configures with SETs on the standard tables.
#include <algorithm>

#include "demo_params.h"
#include "snmp_fixture.h"

namespace zelta_test {
namespace {

const std::string kChangeOid = "." + zelta_demo::kChangeNotification;
const std::string kColdStart = ".1.3.6.1.6.3.1.1.5.1";
const std::string kHostname = ".1.3.6.1.4.1.99999.1.1.1.0";
const std::string kVolume = ".1.3.6.1.4.1.99999.1.1.2.0";
const std::string kRoutes = ".1.3.6.1.4.1.99999.1.2.1";
// snmptrapd's engine ID "zeltatrapd" as Net-SNMP makes it from text.
const std::string kTrapdEngineId = "0x80001f88047a656c74617472617064";

// One received notification: what snmptrapd says of the PDU ("TRAP2, SNMP
// v2c, community public") and its bindings after snmpTrapOID.0, as
// "OID = TYPE: value".
struct Received {
  std::string pdu;
  std::string trapOid;
  Strings bindings;
};

// snmptrapd on a loopback port with a configuration of its own, stopped by
// its PID.
class TrapReceiver {
 public:
  // On a port of its own choice: another one when the free port it found is
  // taken before snmptrapd binds it.
  TrapReceiver() {
    for (int attempt = 0; attempt < 4 && !listen(freeUdpPort()); ++attempt) {
    }
  }
  // On the port that targets were given.
  explicit TrapReceiver(int port) { listen(port); }
  ~TrapReceiver() {
    if (pid_ > 0) kill(pid_, SIGTERM), waitpid(pid_, nullptr, 0);
  }
  TrapReceiver(const TrapReceiver&) = delete;
  TrapReceiver& operator=(const TrapReceiver&) = delete;

  std::vector<Received> received() const {
    std::vector<Received> out;
    const std::string upTime = ".1.3.6.1.2.1.1.3.0 = Timeticks", trapOid = ".1.3.6.1.6.3.1.1.4.1.0 = OID: ";
    for (const std::string& line : Common::split(dir_.read("log"), '\n')) {
      const size_t bar = line.find('|');
      if (bar == std::string::npos) continue;
      // sysUpTime.0 first, then snmpTrapOID.0.
      const Strings b = Common::split(line.substr(bar + 1), '~');
      if (b.size() >= 2 && b[0].rfind(upTime, 0) == 0 && b[1].rfind(trapOid, 0) == 0)
        out.push_back({line.substr(0, bar), b[1].substr(trapOid.size()), Strings(b.begin() + 2, b.end())});
    }
    return out;
  }
  // Waits (bounded) until `count` notifications arrived; returns them all.
  std::vector<Received> await(size_t count) const {
    waitFor([&] { return received().size() >= count; }, std::chrono::seconds(20));
    return received();
  }
  int port() const { return port_; }

 private:
  bool listen(int port) {
    port_ = port;
    dir_.write("trapd.conf",
               "disableAuthorization yes\nengineID zeltatrapd\n"
               "createUser tuser SHA authpass123 AES privpass123\n");
    dir_.write("log", "");
    pid_ = spawnDaemon({"/usr/sbin/snmptrapd", "-f", "-Lf", dir_.file("log"), "-C", "-c", dir_.file("trapd.conf"),
                        "-On", "-F", "%P|%V~%v\n", "udp:127.0.0.1:" + std::to_string(port)},
                       {"SNMP_PERSISTENT_DIR=" + dir_.file("state"), "MIBS="});
    // It logs its version once the port is open, and exits when it cannot open it.
    bool exited = false;
    waitFor(
        [&] {
          exited = waitpid(pid_, nullptr, WNOHANG) != 0;
          return exited || dir_.read("log").find("NET-SNMP version") != std::string::npos;
        },
        std::chrono::seconds(10));
    if (exited) pid_ = -1;
    return !exited;
  }

  TempDir dir_;
  int port_ = 0;
  pid_t pid_ = -1;
};

// The change bindings of each notification, one string per notification.
Strings changes(const std::vector<Received>& all) {
  Strings out;
  for (const Received& r : all) {
    std::string joined = r.trapOid == kChangeOid ? "" : r.trapOid + " ";
    for (const std::string& b : r.bindings) joined += b;
    out.push_back(joined);
  }
  return out;
}

class NotifyTest : public ::testing::Test {
 protected:
  // The demo's parameters served with change notifications on; hostname and
  // routes opted in, volume not.
  void start(std::vector<NotifyTarget> targets, size_t maxPending = 256) {
    params.hostnameInfo.getEntry()->setChangeNotification(true);
    params.routesInfo.getEntry()->setChangeNotification(true);
    SNMPAgent::Options options;
    options.notifyTargets = std::move(targets);
    options.changeNotificationOid = kChangeOid;
    options.maxPendingInforms = maxPending;
    agent = startServingAgent(&params.manager, port, options);
    ASSERT_NE(agent, nullptr);
  }
  ToolResult snmp(const std::string& tool, Strings rest) {
    rest.insert(rest.begin(), "127.0.0.1:" + std::to_string(port));
    return v2c(tool, rest);
  }
  ToolResult set(const Strings& triples) { return snmp("snmpset", triples); }
  // A patient target retries its informs every 200 ms for 20 s.
  static NotifyTarget target(int receiverPort, bool inform = false, bool patient = false) {
    NotifyTarget t;
    t.port = receiverPort;
    t.inform = inform;
    if (patient) t.timeoutMs = 200, t.retries = 100;
    return t;
  }

  TempDir dataDir;
  zelta_demo::DemoParams params{dataDir.path()};
  std::unique_ptr<SNMPAgent> agent;  // stopped and joined first when the test ends
  int port = 0;
};

// Served through snmpd as AgentX master: the changes reach the master's
// receivers, from the master.
TEST_F(NotifyTest, ASubagentsChangesReachTheMastersReceivers) {
  TrapReceiver receiver;
  SnmpdMaster master;
  master.sendTrapsTo(receiver.port());
  ASSERT_TRUE(master.start());
  params.hostnameInfo.getEntry()->setChangeNotification(true);
  SNMPAgent::Options options;
  options.changeNotificationOid = kChangeOid;
  agent = startSubagent(&params.manager, master, options);
  ASSERT_NE(agent, nullptr);
  EXPECT_EQ(v2c("snmpset", {master.target(), kHostname, "s", "gamma"}).exitCode, 0);
  Strings told;
  for (const Received& r : receiver.await(2))
    if (r.trapOid == kChangeOid) told.push_back(r.pdu + " " + changes({r})[0]);
  EXPECT_EQ(told, Strings{"TRAP2, SNMP v2c, community public " + kHostname + " = STRING: \"gamma\""});
  agent->stop();
  agent->waitForFinish();
}

TEST_F(NotifyTest, EveryCommittedBindingOfAnOptedInObjectIsToldInOrder) {
  TrapReceiver receiver;
  start({target(receiver.port())});
  ASSERT_EQ(receiver.await(1).size(), 1u);

  EXPECT_EQ(set({kHostname, "s", "alpha"}).exitCode, 0);
  EXPECT_EQ(set({kVolume, "i", "9"}).exitCode, 0);                            // not opted in
  EXPECT_NE(set({kHostname, "s", std::string(40, 'x')}).exitCode, 0);         // refused: too long
  EXPECT_NE(set({kHostname, "s", "beta", kVolume, "i", "999"}).exitCode, 0);  // refused as a whole
  // A row created with its destination: both bindings, in PDU order.
  EXPECT_EQ(set({kRoutes + ".3.5", "a", "10.0.0.1", kRoutes + ".2.5", "i", "4"}).exitCode, 0);
  EXPECT_EQ(set({kRoutes + ".4.5", "i", "3"}).exitCode, 0);
  EXPECT_EQ(set({kRoutes + ".2.5", "i", "2"}).exitCode, 0);
  EXPECT_EQ(set({kRoutes + ".2.5", "i", "6"}).exitCode, 0);
  EXPECT_EQ(set({kRoutes + ".2.7", "i", "5"}).exitCode, 0);  // createAndWait: notReady without a destination
  // The device's own change of a scalar and of a row.
  params.hostname.setValue("gamma");
  EXPECT_TRUE(agent->notifyChange(*params.hostnameInfo.getEntry()));
  EXPECT_FALSE(agent->notifyChange(*params.volumeInfo.getEntry()));
  auto* routes = params.routesInfo.entryAs<DynMibTable>();
  EXPECT_TRUE(agent->notifyRowStatus(*routes, {7}));
  EXPECT_FALSE(agent->notifyChange(*routes, {7}, 3));  // no value yet

  const std::vector<Received> all = receiver.await(10);
  const Strings expected = {kColdStart + " ",
                            kHostname + " = STRING: \"alpha\"",
                            kRoutes + ".3.5 = IpAddress: 10.0.0.1",
                            kRoutes + ".2.5 = INTEGER: 1",
                            kRoutes + ".4.5 = INTEGER: 3",
                            kRoutes + ".2.5 = INTEGER: 2",
                            kRoutes + ".2.5 = INTEGER: 6",
                            kRoutes + ".2.7 = INTEGER: 3",
                            kHostname + " = STRING: \"gamma\"",
                            kRoutes + ".2.7 = INTEGER: 3"};
  EXPECT_EQ(changes(all), expected);
  for (const Received& r : all) EXPECT_EQ(r.pdu, "TRAP2, SNMP v2c, community public");
}

TEST_F(NotifyTest, TrapsAndInformsArriveAndAReceiverThatStartsLateGetsItsInforms) {
  TrapReceiver receiver;
  const int latePort = freeUdpPort();
  NotifyTarget v3 = target(receiver.port(), true);
  v3.v3User = "tuser";
  v3.v3AuthPassphrase = "authpass123";
  v3.v3PrivPassphrase = "privpass123";
  v3.v3EngineId = kTrapdEngineId;
  start({target(receiver.port()), target(receiver.port(), true), v3, target(latePort, true, true)});

  // Nobody answers the late target's informs: the agent still answers at once.
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(valueOf(snmp("snmpget", {kHostname}).out, kHostname), "STRING: \"zelta-demo\"");
  // Waiting on that inform would take its 20 s of retries.
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
  EXPECT_EQ(set({kHostname, "s", "alpha"}).exitCode, 0);

  Strings kinds;
  for (const Received& r : receiver.await(6)) kinds.push_back(r.pdu + " " + r.trapOid);
  std::sort(kinds.begin(), kinds.end());
  const Strings expected = {
      "INFORM, SNMP v2c, community public " + kChangeOid,    "INFORM, SNMP v2c, community public " + kColdStart,
      "INFORM, SNMP v3, user tuser, context  " + kChangeOid, "INFORM, SNMP v3, user tuser, context  " + kColdStart,
      "TRAP2, SNMP v2c, community public " + kChangeOid,     "TRAP2, SNMP v2c, community public " + kColdStart};
  EXPECT_EQ(kinds, expected);

  TrapReceiver lateReceiver(latePort);
  EXPECT_EQ(changes(lateReceiver.await(2)), (Strings{kColdStart + " ", kHostname + " = STRING: \"alpha\""}));
}

TEST_F(NotifyTest, PendingInformsAreBoundedAndTheOldestGo) {
  const int latePort = freeUdpPort();
  start({target(latePort, true, true)}, 2);
  // Logged as the drops happen, at most every few seconds with a count, and
  // at stop.
  std::string log = captureLog(WARNING, [&] {
    for (const char* name : {"one", "two", "three"}) {
      params.hostname.setValue(name);
      EXPECT_TRUE(agent->notifyChange(*params.hostnameInfo.getEntry()));
    }
    TrapReceiver receiver(latePort);
    EXPECT_EQ(changes(receiver.await(2)),
              (Strings{kHostname + " = STRING: \"two\"", kHostname + " = STRING: \"three\""}));
    agent->stop();
    agent->waitForFinish();
  });
  size_t dropped = 0;
  const std::string phrase = " unacknowledged informs dropped: more than 2 were pending";
  for (size_t at = log.find(phrase); at != std::string::npos; at = log.find(phrase, at + 1))
    dropped += std::stoul(log.substr(log.rfind(' ', at - 1) + 1));
  EXPECT_EQ(dropped, 2u) << log;
}

TEST_F(NotifyTest, AManagerAddsAndRemovesATargetWithTheStandardTables) {
  TrapReceiver receiver;
  start({});
  // Rows named "mgr" (IMPLIED index), tag "zt", parameters "zp".
  const std::string addr = ".1.3.6.1.6.3.12.1.2.1.", prm = ".1.3.6.1.6.3.12.1.3.1.", notify = ".1.3.6.1.6.3.13.1.1.1.",
                    name = ".109.103.114", paramsName = ".122.112";
  char taddress[16];
  snprintf(taddress, sizeof taddress, "7f000001%04x", receiver.port());
  const Strings create = {prm + "2" + paramsName, "i", "1",      prm + "3" + paramsName, "i", "2",
                          prm + "4" + paramsName, "s", "public", prm + "5" + paramsName, "i", "1",
                          prm + "7" + paramsName, "i", "4",      addr + "2" + name,      "o", ".1.3.6.1.6.1.1",
                          addr + "3" + name,      "x", taddress, addr + "6" + name,      "s", "zt",
                          addr + "7" + name,      "s", "zp",     addr + "9" + name,      "i", "4",
                          notify + "2" + name,    "s", "zt",     notify + "3" + name,    "i", "1",
                          notify + "5" + name,    "i", "4"};
  const Strings destroy = {notify + "5" + name,    "i", "6", addr + "9" + name, "i", "6",
                           prm + "7" + paramsName, "i", "6"};
  const ToolResult created = set(create);
  ASSERT_EQ(created.exitCode, 0) << created.out;
  EXPECT_EQ(set({kHostname, "s", "alpha"}).exitCode, 0);
  ASSERT_EQ(receiver.await(1).size(), 1u);
  ASSERT_EQ(set(destroy).exitCode, 0);
  EXPECT_EQ(set({kHostname, "s", "beta"}).exitCode, 0);
  // Made again: what follows arrives, what was set meanwhile never does.
  ASSERT_EQ(set(create).exitCode, 0);
  EXPECT_EQ(set({kHostname, "s", "gamma"}).exitCode, 0);
  EXPECT_EQ(changes(receiver.await(2)),
            (Strings{kHostname + " = STRING: \"alpha\"", kHostname + " = STRING: \"gamma\""}));
}

}  // namespace
}  // namespace zelta_test
