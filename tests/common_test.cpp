#include "zelta/common.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>

#include "zelta/logging.h"

using namespace Quorvel::Kvan;
using namespace Quorvel::Kvan::Common;
using Strings = std::vector<std::string>;

namespace {

// A private temporary directory per test, removed afterwards.
class CommonFiles : public testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/zelta-common-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }
  std::string write(const std::string& name, const std::string& bytes) {
    std::string path = dir_ + "/" + name;
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  std::string dir_;
};

std::string randomBytes(std::mt19937& rng, size_t maxLen) {
  std::string s(rng() % (maxLen + 1), '\0');
  for (char& c : s) c = static_cast<char>(rng() & 0xFF);
  return s;
}

}  // namespace

TEST(CommonStrings, SplitKeepsInnerEmptyFieldsButNoTrailingOne) {
  EXPECT_EQ(split("", ','), Strings{});
  EXPECT_EQ(split(",", ','), Strings{""});
  EXPECT_EQ(split("a,,b", ','), (Strings{"a", "", "b"}));
  EXPECT_EQ(split(",a", ','), (Strings{"", "a"}));
  EXPECT_EQ(split("a,b,", ','), (Strings{"a", "b"}));
  Strings out{"x"};
  split("y.z", '.', out);
  EXPECT_EQ(out, (Strings{"x", "y", "z"}));
}

TEST(CommonStrings, ReplaceNeverRescansInsertedText) {
  EXPECT_EQ(replace("a.b.c", ".", ""), "abc");
  EXPECT_EQ(replace("x", "", "y"), "x");
  EXPECT_EQ(replace("aaa", "a", "aa"), "aaaaaa");
  EXPECT_EQ(replace("Network settings", " ", "_"), "Network_settings");
}

TEST(CommonStrings, SmallHelpers) {
  EXPECT_EQ(toLower("AbC-\xC3\x89z"), "abc-\xC3\x89z");
  EXPECT_EQ(findSubstring({"alpha", "beta", "alphabet"}, "bet"), 1);
  EXPECT_EQ(findSubstring({"alpha"}, "zz"), -1);
  EXPECT_EQ(findSubstring({"alpha"}, ""), 0);
  EXPECT_EQ(findSubstring({}, ""), -1);
  EXPECT_EQ(intToBin(0), "0");
  EXPECT_EQ(intToBin(1), "1");
  EXPECT_EQ(intToBin(5), "101");
  EXPECT_EQ(intToBin(256), "100000000");
  EXPECT_EQ(intToBin(2147483647), std::string(31, '1'));
}

TEST(CommonNumbers, IsIntegerNeedsTheWholeText) {
  for (std::string yes : {" 42 ", "-7", "12\n", "+5", "2147483647", "-2147483648"}) EXPECT_TRUE(isInteger(yes)) << yes;
  for (std::string no : {"", "4x", "4.0", "0x10", "99999999999", "2147483648", " ", "-"})
    EXPECT_FALSE(isInteger(no)) << no;
}

TEST(CommonNumbers, ToNumberReadsAPrefixAndSaturates) {
  EXPECT_EQ(toNumber<int>("  -12xyz"), -12);
  EXPECT_EQ(toNumber<int>("abc"), 0);
  EXPECT_EQ(toNumber<int>("12abc"), 12);
  EXPECT_EQ(toNumber<int>("99999999999"), 2147483647);
  EXPECT_EQ(toNumber<int>("-99999999999"), -2147483647 - 1);
}

// unsigned long follows the 32-bit target's rules on every build.
TEST(CommonNumbers, ToNumberUnsignedLongIs32BitEverywhere) {
  EXPECT_EQ(toNumber<unsigned long>("3000000000"), 3000000000ul);
  EXPECT_EQ(toNumber<unsigned long>("4294967295"), 4294967295ul);
  EXPECT_EQ(toNumber<unsigned long>("4294967296"), 4294967295ul);
  EXPECT_EQ(toNumber<unsigned long>("99999999999999999999999"), 4294967295ul);
  EXPECT_EQ(toNumber<unsigned long>("-1"), 4294967295ul);
  // A TimeTicks count of 2^31 is written as a negative long and must read back.
  EXPECT_EQ(toNumber<unsigned long>("-2147483648"), 2147483648ul);
  EXPECT_EQ(toNumber<unsigned long>(" 17 rest"), 17ul);
  EXPECT_EQ(toNumber<unsigned long>("x17"), 0ul);
  EXPECT_EQ(toNumber<unsigned long>("-"), 0ul);
}

TEST(CommonNumbers, FlattenIsTheIndexSuffix) {
  EXPECT_EQ(flatten(std::vector<unsigned long>{1, 2, 3}), ".1.2.3");
  EXPECT_EQ(flatten(std::vector<unsigned long>{0}), ".0");
  EXPECT_EQ(flatten(std::vector<unsigned long>{4294967295ul}), ".4294967295");
  EXPECT_EQ(flatten(std::vector<unsigned long>{}), "");
}

TEST_F(CommonFiles, LinesContentsAndExistence) {
  std::string path = write("a.txt", "a\nb\n");
  EXPECT_TRUE(fileExists(path));
  EXPECT_FALSE(fileExists(dir_ + "/missing"));
  EXPECT_EQ(getFileContents(path), "a\nb\n");
  EXPECT_EQ(getFileContents(dir_ + "/missing"), "");
  EXPECT_EQ(getFileLines(path), (Strings{"a", "b"}));
  // An unterminated last line is not returned.
  EXPECT_EQ(getFileLines(write("b.txt", "a\nb")), Strings{"a"});
  std::string binary("x\0y\xff", 4);
  EXPECT_EQ(getFileContents(write("c.bin", binary)), binary);
}

TEST_F(CommonFiles, GetFileLinesStopsOnUnreadableInput) {
  EXPECT_EQ(getFileLines(dir_ + "/missing"), Strings{});
  EXPECT_EQ(getFileLines(dir_), Strings{});  // a directory
  std::string longLine(600, 'z');
  EXPECT_EQ(getFileLines(write("long.txt", "ok\n" + longLine + "\nnever\n")), Strings{"ok"});
}

TEST(CommonTime, FormatsLocalTime) {
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(timeToString(1706745599L), "2024-01-31.23:59:59");
  EXPECT_EQ(now().size(), 19u);
}

TEST(CommonProcess, ExecuteProgramAppendsOutputAndIgnoresStatus) {
  std::string out = "x";
  EXPECT_TRUE(executeProgram("echo hi", out));
  EXPECT_EQ(out, "xhi\n");
  EXPECT_EQ(executeProgram("false"), "");
  std::string big = executeProgram("head -c 3000 /dev/zero | tr '\\0' 'a'");
  EXPECT_EQ(big, std::string(3000, 'a'));
}

TEST(CommonAddress, LogaddrIsRightAlignedAndZeroPadded) {
  unsigned char a[8];
  EXPECT_TRUE(logaddrMainSet(a, ""));
  EXPECT_EQ(logaddrMainToString(a), "00000000");
  logaddrMainSet(a, "A1");
  EXPECT_EQ(logaddrMainToString(a), "000000A1");
  logaddrMainSet(a, std::string("ab\0c", 4));
  EXPECT_EQ(logaddrMainToString(a), std::string("0000ab\0c", 8));
  logaddrMainSet(a, "12345678");
  EXPECT_EQ(logaddrMainToString(a), "12345678");

  unsigned char b[8];
  logaddrMainCpy(b, a);
  EXPECT_TRUE(logaddrMainEq(a, b));
  unsigned char lower[8], upper[8];
  logaddrMainSet(lower, "0000000a");
  logaddrMainSet(upper, "0000000A");
  EXPECT_FALSE(logaddrMainEq(lower, upper));
}

TEST(CommonAddressDeathTest, LogaddrContractViolationsAbort) {
  unsigned char a[8];
  EXPECT_DEATH(logaddrMainSet(a, "123456789"), "input.size\\(\\) <= 8");
  EXPECT_DEATH(logaddrMainSet(nullptr, "1"), "output != __null");
}

TEST(CommonAddress, MacAndIpv4) {
  const unsigned char mac[6] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
  EXPECT_EQ(macToString(mac), "00:1A:2B:3C:4D:5E");

  testing::internal::CaptureStderr();
  EXPECT_TRUE(isValidIpAddress("192.168.1.1"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  for (const char* bad : {"192.168.1", "256.1.1.1", "::1", "", "host"}) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(isValidIpAddress(bad));
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Common: IP '" + std::string(bad) + "' is invalid\n"), std::string::npos) << err;
  }

  in_addr addr{};
  addr.s_addr = htonl(0x7F000001);
  EXPECT_EQ(ntop(&addr), "127.0.0.1");
  sockaddr_in sa{};
  sa.sin_addr = addr;
  EXPECT_EQ(ntop(&sa), "127.0.0.1");
}

// Whatever arrives from a file or the network must return, never crash or hang.
TEST(CommonBadInput, RandomBytesAlwaysReturn) {
  std::mt19937 rng(20261122);
  Log["libzelta"].level = ERROR;  // keep the invalid-IP warnings out of the output
  for (int i = 0; i < 3000; ++i) {
    std::string s = randomBytes(rng, 64);
    split(s, static_cast<char>(rng() & 0xFF));
    toNumber<int>(s);
    toNumber<unsigned long>(s);
    isInteger(s);
    isValidIpAddress(s);
  }
  Log["libzelta"].level = WARNING;
}
