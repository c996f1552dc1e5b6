// SNMPClient against Debian's snmpd, and against a socket that plays the agent
// for what real ones do not send. Against our own agent in the same process
// it runs in stress_test.
#include <poll.h>

#include "snmp_fixture.h"
#include "zelta/snmpclient.h"

using namespace zelta_test;
using Clock = std::chrono::steady_clock;

namespace {

constexpr char kSysDescr[] = "1.3.6.1.2.1.1.1.0";
constexpr char kSysUpTime[] = "1.3.6.1.2.1.1.3.0";
// sysContact and sysLocation: writable while the configuration does not fix them.
constexpr char kContact[] = "1.3.6.1.2.1.1.4.0";
constexpr char kLocation[] = "1.3.6.1.2.1.1.6.0";

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// Debian's snmpd on a free port of 127.0.0.1 and ::1.
class SNMPClientAgainstSnmpd : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(snmpd.start());
    port = snmpd.port();
  }
  SnmpdMaster snmpd{false, true};
  int port = 0;
};

// A UDP socket on a free port of 127.0.0.1 where no agent answers.
struct UdpSocket {
  UdpSocket() : fd(socket(AF_INET, SOCK_DGRAM, 0)), port(freeUdpPort()) {
    sockaddr_in address = loopback(port);
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  }
  ~UdpSocket() { close(fd); }
  // Plays the agent once (waiting up to 3 s): answers a request with `lastValue` as its last value.
  void answerOne(const std::string& lastValue) {
    pollfd ready{fd, POLLIN, 0};
    char buffer[1500];
    sockaddr_storage from{};
    socklen_t length = sizeof from;
    if (poll(&ready, 1, 3000) != 1) return;
    ssize_t n = recvfrom(fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &length);
    std::string answer(buffer, static_cast<size_t>(std::max<ssize_t>(n, 0)));
    size_t community = answer.find("vorpal");
    if (community == std::string::npos) return;
    answer[community + 6] = '\xa2';  // the PDU tag after the community
    answer.replace(answer.size() - 2, 2, lastValue);
    sendto(fd, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr*>(&from), length);
  }
  int fd, port;
};

}  // namespace

TEST_F(SNMPClientAgainstSnmpd, GetsByAddressAndNameSetsBothBindingsAndFailsOnNoSuchName) {
  Vb descr, upTime;
  std::string text;
  uint32_t ticks = 0;
  ASSERT_TRUE(SNMPClient::get("127.0.0.1", port, kSysDescr, descr));
  EXPECT_TRUE(descr.getString(text) && !text.empty());
  EXPECT_EQ(descr.getOid(), kSysDescr);
  ASSERT_TRUE(SNMPClient::get("localhost", port, std::string(".") + kSysUpTime, upTime));
  EXPECT_TRUE(upTime.getSyntax() == Vb::SYNTAX_TIMETICKS && upTime.getUnsigned(ticks));
  EXPECT_EQ(upTime.getOid(), kSysUpTime);
  EXPECT_TRUE(SNMPClient::get("::1", port, kSysDescr, descr));

  Vb vb(kLocation);
  vb.setString("zelta");
  ASSERT_TRUE(SNMPClient::set("127.0.0.1", port, kContact, vb));
  EXPECT_EQ(vb.getOid(), kContact);
  for (const char* oid : {kContact, kLocation})
    EXPECT_TRUE(SNMPClient::get("127.0.0.1", port, oid, vb) && vb.getString(text) && text == "zelta") << oid;

  // SNMPv1 has no exception values: the agent answers noSuchName instead.
  vb = Vb(kSysDescr);
  vb.setInteger(7);
  std::string log = captureLog(WARNING, [&] {
    EXPECT_FALSE(SNMPClient::get("127.0.0.1", port, "1.3.6.1.2.1.1.99.0", vb));
    EXPECT_FALSE(SNMPClient::set("127.0.0.1", port, kSysDescr, vb));
  });
  EXPECT_PRED_FORMAT2(testing::IsSubstring, "SNMPClient: get(1.3.6.1.2.1.1.99.0) failed, error '(noSuchName)", log);
  EXPECT_PRED_FORMAT2(testing::IsSubstring, "SNMPClient: set(1.3.6.1.2.1.1.1.0) failed\n", log);
  int32_t left = 0;
  EXPECT_TRUE(vb.getInteger(left) && left == 7);  // a failed get leaves vb alone
}

// Each call sends its request twice (one retry) and gives up after about 2 s,
// as it does when an agent drops a request of the wrong community; four calls
// wait side by side, since no lock is held while waiting.
TEST(SNMPClient, SilentAgentTimesOutAfterOneRetryInParallel) {
  UdpSocket silent;
  std::atomic<int> failed{0};
  auto start = Clock::now();
  std::vector<std::thread> threads(4);
  for (auto& t : threads)
    t = std::thread([&, vb = Vb()]() mutable { failed += !SNMPClient::get("127.0.0.1", silent.port, kSysDescr, vb); });
  for (auto& t : threads) t.join();
  EXPECT_EQ(failed, 4);
  EXPECT_GT(secondsSince(start), 1.5);
  EXPECT_LT(secondsSince(start), 4);  // one after the other would take 8 s
  int requests = 0;
  for (char b[1500]; requests < 100 && recv(silent.fd, b, sizeof b, MSG_DONTWAIT) >= 0;) ++requests;
  EXPECT_EQ(requests, 8);
}

TEST(SNMPClient, UnresolvableNameOrExceptionValueFails) {
  Vb vb(kSysUpTime);
  UdpSocket fake;
  std::string log = captureLog(WARNING, [&] {
    EXPECT_FALSE(SNMPClient::set("nosuch.invalid", 161, kSysDescr, vb));
    EXPECT_FALSE(SNMPClient::get("nosuch.invalid", 161, kSysDescr, vb));
    // noSuchInstance, which an SNMPv1 answer cannot carry.
    auto call = std::async(std::launch::async, [&] { return SNMPClient::get("127.0.0.1", fake.port, kSysDescr, vb); });
    fake.answerOne(std::string("\x81\x00", 2));
    EXPECT_FALSE(call.get());
  });
  EXPECT_PRED_FORMAT2(testing::IsSubstring, "SNMPClient: set, invalid address or DNS name: nosuch.invalid\n", log);
  EXPECT_PRED_FORMAT2(testing::IsSubstring, "] error: invalid address or DNS name: nosuch.invalid\n", log);
  EXPECT_PRED_FORMAT2(testing::IsSubstring, "SNMPClient: get(1.3.6.1.2.1.1.1.0) failed, error '129'\n", log);
  EXPECT_EQ(vb.getOid(), kSysUpTime);  // left alone
}
