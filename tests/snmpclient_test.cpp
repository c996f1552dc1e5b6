#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "test_util.h"
#include "zelta/parammanager.h"
#include "zelta/snmpagent.h"
#include "zelta/snmpclient.h"

using Quorvel::Kvan::SNMP::SNMPClient;
using Quorvel::Kvan::SNMP::Vb;
using Clock = std::chrono::steady_clock;

namespace {

constexpr char kSysDescr[] = "1.3.6.1.2.1.1.1.0";
constexpr char kSysUpTime[] = "1.3.6.1.2.1.1.3.0";
constexpr char kPrivate1[] = "1.3.6.1.4.1.99.1";
constexpr char kPrivate2[] = "1.3.6.1.4.1.99.2";

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// A UDP socket bound to a free port of the loopback address of `family`.
class UdpSocket {
 public:
  explicit UdpSocket(int family = AF_INET) : fd(socket(family, SOCK_DGRAM, 0)) {
    sockaddr_storage address{};
    socklen_t length = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    address.ss_family = static_cast<sa_family_t>(family);
    if (family == AF_INET6)
      reinterpret_cast<sockaddr_in6&>(address).sin6_addr = in6addr_loopback;
    else
      reinterpret_cast<sockaddr_in&>(address).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* raw = reinterpret_cast<sockaddr*>(&address);
    if (bind(fd, raw, length) == 0 && getsockname(fd, raw, &length) == 0)
      port = ntohs(reinterpret_cast<sockaddr_in&>(address).sin_port);  // same offset in both families
  }
  ~UdpSocket() { close(fd); }
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;

  // The datagrams waiting, taken off the queue.
  int drain() const {
    char buffer[1500];
    int count = 0;
    while (count < 100 && recv(fd, buffer, sizeof buffer, MSG_DONTWAIT) >= 0) ++count;
    return count;
  }

  int fd;
  int port = 0;
};

// Debian's snmpd on a free 127.0.0.1 port, configured and kept in a temporary
// directory (no /etc/snmp, no /var/lib/snmp), killed by PID on destruction.
// It is one "agent under test": anything with start(rwCommunity), port(),
// log() and the two writable OIDs can take its place in SNMPClientAgainst.
class StockSnmpd {
 public:
  // Writable while the configuration does not fix them.
  static constexpr const char* kWritableOid = "1.3.6.1.2.1.1.4.0";       // sysContact
  static constexpr const char* kOtherWritableOid = "1.3.6.1.2.1.1.6.0";  // sysLocation

  ~StockSnmpd() {
    if (pid > 0 && !exited()) {
      kill(pid, SIGTERM);
      for (int i = 0; i < 40 && !exited(); ++i) usleep(50000);
      if (!exited()) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
    }
    if (!dir.empty()) std::filesystem::remove_all(dir);
  }

  // True once it answers a GET with community "public".
  bool start(const std::string& rwCommunity) {
    char pattern[] = "/tmp/zelta-snmpd-XXXXXX";
    if (!mkdtemp(pattern)) return false;
    dir = pattern;  // no spaces: the command line below is split at them
    listenPort = UdpSocket().port;
    std::ofstream(dir + "/snmpd.conf") << "rwcommunity " << rwCommunity << " 127.0.0.1\nrocommunity public 127.0.0.1\n";
    std::istringstream command("/usr/sbin/snmpd -f -C -c " + dir + "/snmpd.conf -Lf " + dir + "/log -p " + dir +
                               "/pid -I -smux udp:127.0.0.1:" + std::to_string(listenPort));
    std::vector<std::string> args{std::istream_iterator<std::string>(command), {}};
    std::vector<std::string> env = {"SNMPCONFPATH=" + dir, "SNMP_PERSISTENT_DIR=" + dir, "MIBDIRS=" + dir, "MIBS="};
    std::vector<char*> argv, envp;
    for (auto& a : args) argv.push_back(a.data());
    for (auto& e : env) envp.push_back(e.data());
    argv.push_back(nullptr), envp.push_back(nullptr);
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), envp.data()) != 0) return false;

    // v1 GET of sysUpTime.0 with community "public".
    static const unsigned char probe[] = {0x30, 0x26, 0x02, 0x01, 0x00, 0x04, 0x06, 'p',  'u',  'b',
                                          'l',  'i',  'c',  0xa0, 0x19, 0x02, 0x01, 0x01, 0x02, 0x01,
                                          0x00, 0x02, 0x01, 0x00, 0x30, 0x0e, 0x30, 0x0c, 0x06, 0x08,
                                          0x2b, 0x06, 0x01, 0x02, 0x01, 0x01, 0x03, 0x00, 0x05, 0x00};
    UdpSocket client;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(listenPort));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int i = 0; i < 50 && !exited(); ++i) {
      sendto(client.fd, probe, sizeof probe, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
      pollfd ready{client.fd, POLLIN, 0};
      if (poll(&ready, 1, 100) == 1) return true;
    }
    return false;
  }

  int port() const { return listenPort; }
  std::string log() const {
    std::stringstream text;
    text << std::ifstream(dir + "/log").rdbuf();
    return text.str();
  }

 private:
  bool exited() {
    if (!reaped && waitpid(pid, nullptr, WNOHANG) == pid) reaped = true;
    return reaped;
  }

  pid_t pid = -1;
  bool reaped = false;
  std::string dir;
  int listenPort = 0;
};

// Plays a fake agent for one exchange: waits (at most 3 s) for a request on
// `socket` and answers it as a GetResponse, the PDU tag after the community
// changed and, when `lastValue` is given, the last binding's value (the final
// two bytes, Null in a GET) replaced. Returns the request, "" when none came.
std::string answerOne(const UdpSocket& socket, const std::string& lastValue = "") {
  pollfd ready{socket.fd, POLLIN, 0};
  if (poll(&ready, 1, 3000) != 1) return "";
  char buffer[1500];
  sockaddr_storage from{};
  socklen_t fromLength = sizeof from;
  ssize_t n = recvfrom(socket.fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &fromLength);
  std::string request(buffer, static_cast<size_t>(std::max<ssize_t>(n, 0))), answer = request;
  size_t community = answer.find("vorpal");
  if (community == std::string::npos) return request;
  answer[community + 6] = '\xa2';
  if (!lastValue.empty()) answer.replace(answer.size() - 2, 2, lastValue);
  sendto(socket.fd, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr*>(&from), fromLength);
  return request;
}

// Our own SNMPAgent in this process, serving two writable string parameters:
// the client and the agent share Net-SNMP and its lock.
class OwnAgent {
 public:
  static constexpr const char* kWritableOid = "1.3.6.1.4.1.99999.8.1.0";
  static constexpr const char* kOtherWritableOid = "1.3.6.1.4.1.99999.8.2.0";

  OwnAgent() {
    manager.add("contact", &contact);
    manager.add("location", &location);
  }
  ~OwnAgent() {
    if (agent) {
      agent->stop();
      agent->waitForFinish();
    }
  }
  bool start(const std::string& rwCommunity) {
    listenPort = UdpSocket().port;  // free now; the socket is closed again
    Quorvel::Kvan::SNMP::SNMPAgent::Options options;
    options.port = listenPort;
    options.listenAddress = "127.0.0.1";
    options.rwCommunity = rwCommunity;
    agent = std::make_unique<Quorvel::Kvan::SNMP::SNMPAgent>(&manager, options);
    agent->start();
    return zelta_test::waitFor([&] { return agent->isRunning(); }, std::chrono::milliseconds(10000));
  }
  int port() const { return listenPort; }
  std::string log() const { return "(own agent)"; }

 private:
  zelta_test::TempDir dir;
  Quorvel::Kvan::ParamGroup group{"client", dir.file("client.txt")};
  Quorvel::Kvan::SNMP::SNMPInfo contactInfo{kWritableOid, Quorvel::Kvan::SNMP::READWRITE};
  Quorvel::Kvan::SNMP::SNMPInfo locationInfo{kOtherWritableOid, Quorvel::Kvan::SNMP::READWRITE};
  Quorvel::Kvan::Param contact{group, Quorvel::Kvan::STRING, &contactInfo, Quorvel::Kvan::NEVER_SAVE};
  Quorvel::Kvan::Param location{group, Quorvel::Kvan::STRING, &locationInfo, Quorvel::Kvan::NEVER_SAVE};
  Quorvel::Kvan::ParamManager manager;
  std::unique_ptr<Quorvel::Kvan::SNMP::SNMPAgent> agent;
  int listenPort = 0;
};

template <class Agent>
class SNMPClientAgainst : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(agent.start("vorpal")) << agent.log(); }
  Agent agent;
};
using Agents = ::testing::Types<StockSnmpd, OwnAgent>;
TYPED_TEST_SUITE(SNMPClientAgainst, Agents);

}  // namespace

TYPED_TEST(SNMPClientAgainst, GetReadsStringAndTimeTicksByAddressAndName) {
  Vb descr, upTime;
  ASSERT_TRUE(SNMPClient::get("127.0.0.1", this->agent.port(), kSysDescr, descr));
  std::string text;
  EXPECT_EQ(descr.getOid(), kSysDescr);
  EXPECT_TRUE(descr.getString(text));
  EXPECT_FALSE(text.empty());

  ASSERT_TRUE(SNMPClient::get("localhost", this->agent.port(), std::string(".") + kSysUpTime, upTime));
  uint32_t ticks = 0;
  EXPECT_EQ(upTime.getSyntax(), Vb::SYNTAX_TIMETICKS);
  EXPECT_TRUE(upTime.getUnsigned(ticks));
  EXPECT_EQ(upTime.getOid(), kSysUpTime);
}

TYPED_TEST(SNMPClientAgainst, SetWritesBothBindingsAndLeavesOidInVb) {
  const std::string value = "set " + std::to_string(getpid());
  Vb vb(TypeParam::kOtherWritableOid);
  vb.setString(value);
  ASSERT_TRUE(SNMPClient::set("127.0.0.1", this->agent.port(), TypeParam::kWritableOid, vb));
  EXPECT_EQ(vb.getOid(), TypeParam::kWritableOid);

  for (const char* oid : {TypeParam::kWritableOid, TypeParam::kOtherWritableOid}) {
    Vb back;
    std::string text;
    ASSERT_TRUE(SNMPClient::get("127.0.0.1", this->agent.port(), oid, back));
    EXPECT_TRUE(back.getString(text));
    EXPECT_EQ(text, value) << oid;
  }
}

// SNMPv1 has no exception values: the agent answers noSuchName instead.
TYPED_TEST(SNMPClientAgainst, AbsentOrReadOnlyObjectFailsWithNoSuchName) {
  Vb vb("1.3.6.1.2.1.1.1.0");
  vb.setInteger(7);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(SNMPClient::get("127.0.0.1", this->agent.port(), "1.3.6.1.2.1.1.99.0", vb));
  EXPECT_FALSE(SNMPClient::set("127.0.0.1", this->agent.port(), kSysDescr, vb));
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("SNMPClient: get(1.3.6.1.2.1.1.99.0) failed, error '(noSuchName) There is no such variable name "
                     "in this MIB.' (2)\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("SNMPClient: set(1.3.6.1.2.1.1.1.0) failed\n"), std::string::npos) << log;
  int32_t left = 0;
  EXPECT_TRUE(vb.getInteger(left) && left == 7);  // a failed get leaves vb alone
}

TYPED_TEST(SNMPClientAgainst, FourThreadsGetAtOnce) {
  std::atomic<int> done{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 25; ++i) {
        Vb vb;
        done += SNMPClient::get("127.0.0.1", this->agent.port(), kSysDescr, vb) ? 1 : 0;
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(done, 100);
}

TEST(SNMPClient, WrongCommunityIsDroppedAndTimesOut) {
  StockSnmpd agent;
  ASSERT_TRUE(agent.start("other")) << agent.log();
  Vb vb;
  auto start = Clock::now();
  EXPECT_FALSE(SNMPClient::get("127.0.0.1", agent.port(), kSysDescr, vb));
  EXPECT_GT(secondsSince(start), 1.5);
  EXPECT_LT(secondsSince(start), 5);
}

// Each call sends its request twice (one retry) and gives up after about 2 s;
// four calls wait side by side, since no lock is held while waiting.
TEST(SNMPClient, SilentAgentTimesOutAfterOneRetryInParallel) {
  UdpSocket silent;
  std::atomic<int> failed{0};
  auto start = Clock::now();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      Vb vb(kSysDescr);
      failed += SNMPClient::get("127.0.0.1", silent.port, kSysDescr, vb) ? 0 : 1;
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failed, 4);
  EXPECT_GT(secondsSince(start), 1.5);
  EXPECT_LT(secondsSince(start), 4);  // one after the other would take 8 s
  EXPECT_EQ(silent.drain(), 8);
}

TEST(SNMPClient, UnresolvableNameFailsWithEachOperationsText) {
  Vb vb(kPrivate1);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(SNMPClient::set("nosuch.invalid", 161, kSysDescr, vb));
  EXPECT_FALSE(SNMPClient::get("nosuch.invalid", 161, kSysDescr, vb));
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("SNMPClient: set, invalid address or DNS name: nosuch.invalid\n"), std::string::npos) << log;
  EXPECT_NE(log.find("] error: invalid address or DNS name: nosuch.invalid\n"), std::string::npos) << log;
  EXPECT_EQ(vb.getOid(), kPrivate1);  // nothing was attempted
}

TEST(SNMPClient, ExceptionValueInAnswerFailsTheGet) {
  UdpSocket fake;
  Vb vb;
  testing::internal::CaptureStderr();
  auto call = std::async(std::launch::async, [&] { return SNMPClient::get("127.0.0.1", fake.port, kPrivate1, vb); });
  answerOne(fake, std::string("\x81\x00", 2));  // noSuchInstance
  EXPECT_FALSE(call.get());
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("SNMPClient: get(1.3.6.1.4.1.99.1) failed, error '129'\n"), std::string::npos) << log;
  EXPECT_EQ(vb.getSyntax(), Vb::SYNTAX_NULL);
}

TEST(SNMPClient, SetSendsCallersBindingThenOidWithOneValue) {
  UdpSocket fake;
  Vb vb(kPrivate1);
  vb.setString("zelta");
  auto call = std::async(std::launch::async, [&] { return SNMPClient::set("127.0.0.1", fake.port, kPrivate2, vb); });
  const std::string request = answerOne(fake);
  ASSERT_TRUE(call.get());
  const std::string callers("\x06\x07\x2b\x06\x01\x04\x01\x63\x01\x04\x05zelta", 16);
  const std::string target("\x06\x07\x2b\x06\x01\x04\x01\x63\x02\x04\x05zelta", 16);
  size_t first = request.find(callers);
  ASSERT_NE(first, std::string::npos);
  EXPECT_NE(request.find(target, first + callers.size()), std::string::npos);
}

TEST(SNMPClient, GetOverIpv6) {
  UdpSocket fake(AF_INET6);
  Vb vb;
  vb.setInteger(1);
  auto call = std::async(std::launch::async, [&] { return SNMPClient::get("::1", fake.port, kPrivate1, vb); });
  answerOne(fake);
  ASSERT_TRUE(call.get());
  EXPECT_EQ(vb.getSyntax(), Vb::SYNTAX_NULL);
  EXPECT_EQ(vb.getOid(), kPrivate1);
}

TEST(SNMPClientVb, RefusesMalformedValuesAndPrintsBinaryAsHex) {
  Vb vb;
  ASSERT_TRUE(vb.setIpAddress("10.0.0.1"));
  EXPECT_FALSE(vb.setIpAddress("10.0.0"));
  EXPECT_FALSE(vb.setIpAddress("256.0.0.1"));
  EXPECT_FALSE(vb.setOidValue("1.3.x"));
  EXPECT_FALSE(vb.setOidValue("1.4294967296"));
  EXPECT_EQ(vb.toString(), "10.0.0.1");

  vb.setString(std::string("\x00\x41\xff", 3));
  EXPECT_EQ(vb.toString(), "00 41 FF");
  ASSERT_TRUE(vb.setOidValue(".1.3.6.4294967295"));
  EXPECT_EQ(vb.toString(), "1.3.6.4294967295");
}
