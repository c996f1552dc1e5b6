// The helpers of Common: strings, numbers, files, processes, addresses,
// interfaces, the escaped strings of the group files, AES and Base64.
#include "zelta/common.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>

#include <cstring>
#include <regex>

#include "test_util.h"
#include "zelta/crypto.h"
#include "zelta/logging.h"

using namespace Quorvel::Kvan;
using namespace Quorvel::Kvan::Common;
using namespace Quorvel::Kvan::Crypto;
using Strings = std::vector<std::string>;

namespace {
bool failGetifaddrs = false;
}  // namespace

// Interposes the C library's getifaddrs for the whole test program, so the
// failure branch can be reached.
extern "C" int getifaddrs(ifaddrs** list) noexcept {
  if (failGetifaddrs) {
    errno = ENOMEM;
    return -1;
  }
  using Fn = int (*)(ifaddrs**);
  static Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "getifaddrs"));
  return real(list);
}

TEST(CommonStrings, SplitReplaceAndSmallHelpers) {
  // split keeps inner empty fields but no trailing one.
  EXPECT_EQ(split("", ','), Strings{});
  EXPECT_EQ(split(",", ','), Strings{""});
  EXPECT_EQ(split("a,,b", ','), (Strings{"a", "", "b"}));
  EXPECT_EQ(split(",a", ','), (Strings{"", "a"}));
  EXPECT_EQ(split("a,b,", ','), (Strings{"a", "b"}));
  Strings out{"x"};
  split("y.z", '.', out);
  EXPECT_EQ(out, (Strings{"x", "y", "z"}));
  // replace never rescans inserted text.
  EXPECT_EQ(replace("a.b.c", ".", ""), "abc");
  EXPECT_EQ(replace("x", "", "y"), "x");
  EXPECT_EQ(replace("aaa", "a", "aa"), "aaaaaa");
  EXPECT_EQ(toLower("AbC-\xC3\x89z"), "abc-\xC3\x89z");
  EXPECT_EQ(findSubstring({"alpha", "beta", "alphabet"}, "bet"), 1);
  EXPECT_EQ(findSubstring({"alpha"}, "zz"), -1);
  EXPECT_EQ(findSubstring({"alpha"}, ""), 0);
  EXPECT_EQ(findSubstring({}, ""), -1);
  EXPECT_EQ(intToBin(0) + " " + intToBin(1) + " " + intToBin(5) + " " + intToBin(256), "0 1 101 100000000");
  EXPECT_EQ(intToBin(2147483647), std::string(31, '1'));
}

// The parsers under toNumber are checked against streams in
// groupfile_scan_test; here, that each type reaches its own.
TEST(CommonNumbers, IsIntegerToNumberAndFlatten) {
  for (std::string yes : {" 42 ", "-7", "12\n", "+5", "2147483647", "-2147483648"}) EXPECT_TRUE(isInteger(yes)) << yes;
  for (std::string no : {"", "4x", "4.0", "0x10", "99999999999", "2147483648", " ", "-"})
    EXPECT_FALSE(isInteger(no)) << no;
  EXPECT_EQ(toNumber<int>("  -12xyz"), -12);
  EXPECT_EQ(toNumber<int>("-99999999999"), -2147483647 - 1);
  // unsigned long follows the 32-bit target's rules on every build; a
  // TimeTicks count of 2^31 is written as a negative long and must read back.
  EXPECT_EQ(toNumber<unsigned long>("3000000000"), 3000000000ul);
  EXPECT_EQ(toNumber<unsigned long>("99999999999999999999999"), 4294967295ul);
  EXPECT_EQ(toNumber<unsigned long>("-2147483648"), 2147483648ul);
  EXPECT_EQ(flatten(std::vector<unsigned long>{1, 2, 4294967295ul}), ".1.2.4294967295");
  EXPECT_EQ(flatten(std::vector<unsigned long>{}), "");
}

TEST(CommonFiles, LinesContentsAndExistence) {
  zelta_test::TempDir dir;
  std::string path = dir.write("a.txt", "a\nb\n");
  EXPECT_TRUE(fileExists(path));
  EXPECT_FALSE(fileExists(dir.file("missing")));
  EXPECT_EQ(getFileContents(path), "a\nb\n");
  EXPECT_EQ(getFileContents(dir.file("missing")), "");
  std::string binary("x\0y\xff", 4);
  EXPECT_EQ(getFileContents(dir.write("c.bin", binary)), binary);
  EXPECT_EQ(getFileLines(path), (Strings{"a", "b"}));
  // An unterminated last line is not returned; unreadable input ends the list.
  EXPECT_EQ(getFileLines(dir.write("b.txt", "a\nb")), Strings{"a"});
  EXPECT_EQ(getFileLines(dir.file("missing")), Strings{});
  EXPECT_EQ(getFileLines(dir.path()), Strings{});
  EXPECT_EQ(getFileLines(dir.write("long.txt", "ok\n" + std::string(600, 'z') + "\nnever\n")), Strings{"ok"});
}

TEST(CommonProcess, TimeAndExecuteProgram) {
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(timeToString(1706745599L), "2024-01-31.23:59:59");
  EXPECT_EQ(now().size(), 19u);
  std::string out = "x";
  EXPECT_TRUE(executeProgram("echo hi", out));
  EXPECT_EQ(out, "xhi\n");  // appended; the exit status is ignored
  EXPECT_EQ(executeProgram("false"), "");
  EXPECT_EQ(executeProgram("head -c 3000 /dev/zero | tr '\\0' 'a'"), std::string(3000, 'a'));
}

TEST(CommonAddressDeathTest, LogaddrIsRightAlignedZeroPaddedAndAtMostEightLong) {
  unsigned char a[8], b[8];
  EXPECT_TRUE(logaddrMainSet(a, ""));
  EXPECT_EQ(logaddrMainToString(a), "00000000");
  logaddrMainSet(a, "A1");
  EXPECT_EQ(logaddrMainToString(a), "000000A1");
  logaddrMainSet(a, std::string("ab\0c", 4));
  EXPECT_EQ(logaddrMainToString(a), std::string("0000ab\0c", 8));
  logaddrMainSet(a, "12345678");
  logaddrMainCpy(b, a);
  EXPECT_EQ(logaddrMainToString(b), "12345678");
  EXPECT_TRUE(logaddrMainEq(a, b));
  logaddrMainSet(b, "1234567a");
  logaddrMainSet(a, "1234567A");
  EXPECT_FALSE(logaddrMainEq(a, b));
  EXPECT_DEATH(logaddrMainSet(a, "123456789"), "input.size\\(\\) <= 8");
  EXPECT_DEATH(logaddrMainSet(nullptr, "1"), "output != __null");
}

TEST(CommonAddress, MacIpv4AndInterfaces) {
  const unsigned char zeros[6] = {}, mac[6] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
  EXPECT_EQ(macToString(mac), "00:1A:2B:3C:4D:5E");
  in_addr addr{};
  addr.s_addr = htonl(0x7F000001);
  sockaddr_in sa{};
  sa.sin_addr = addr;
  EXPECT_EQ(ntop(&addr) + " " + ntop(&sa), "127.0.0.1 127.0.0.1");
  std::string err = zelta_test::captureLog(WARNING, [] { EXPECT_TRUE(isValidIpAddress("192.168.1.1")); });
  EXPECT_EQ(err, "");
  for (const char* bad : {"192.168.1", "256.1.1.1", "::1", "", "host"}) {
    err = zelta_test::captureLog(WARNING, [&] { EXPECT_FALSE(isValidIpAddress(bad)); });
    EXPECT_NE(err.find("Common: IP '" + std::string(bad) + "' is invalid\n"), std::string::npos) << err;
  }

  auto ifaces = getIfacesInfo();
  ASSERT_EQ(ifaces.count("lo"), 1u);
  EXPECT_EQ(ifaces["lo"].address.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(ifaces["lo"].netmask.s_addr, htonl(0xFF000000));
  EXPECT_EQ(memcmp(ifaces["lo"].mac, zeros, 6), 0);
  uint8_t found[6] = {1, 2, 3, 4, 5, 6};
  EXPECT_FALSE(getMacAddress(found, "nosuchif0"));
  EXPECT_FALSE(getMacAddress(found, std::string(16, 'e')));  // no room for the terminator
  EXPECT_EQ(found[0] + found[5], 7);                         // left alone
  EXPECT_TRUE(getMacAddress(found, "lo"));
  EXPECT_EQ(memcmp(found, zeros, 6), 0);

  // A failed listing gives an empty map and the red trace marker.
  failGetifaddrs = true;
  err = zelta_test::captureLog(WARNING, [] { EXPECT_TRUE(getIfacesInfo().empty()); });
  failGetifaddrs = false;
  EXPECT_TRUE(std::regex_match(err, std::regex("\033\\[00;31m\\[TRACE\\] .*ifaces\\.cpp:getIfacesInfo:[0-9]+: "
                                               "here!\033\\[00m\n\n")))
      << err;
}

TEST(Serialize, WorkedExamplesAndErrorTexts) {
  const char* written[][2] = {{"a=b", "a\\x3db"},         {"C:\\tmp", "C:\\\\tmp"}, {"say \"hi\"", "say \\x22hi\\x22"},
                              {"it's!", "it\\x27s\\x21"}, {"\t\n", "\\x09\\x0a"},   {"\xC3\xA9", "\\xc3\\xa9"},
                              {"[error]", "[error]"},     {"`", "\\x60"},           {"Hello world", "Hello world"}};
  EXPECT_EQ(serialize(""), "");
  EXPECT_EQ(serialize(std::string(1, '\0')), "\\x00");
  EXPECT_EQ(serialize(" #$%&()*+,-./:;<>?@[]^_{|}~"), " #$%&()*+,-./:;<>?@[]^_{|}~");
  for (const auto& [plain, text] : written) EXPECT_EQ(serialize(plain), text) << plain;
  // The reader is more permissive than the writer.
  const std::pair<std::string, std::string> read[] = {
      {"\"a\\x3Db\"", "a=b"},   {"\"a\\\"b\"", "a\"b"},   {"\"C:\\\\tmp\"", "C:\\tmp"},        {"\"\"", ""},
      {"\"ab\"cd", "ab"},       {"\"a!='`b\"", "a!='`b"}, {"\"\\x00\"", std::string(1, '\0')}, {"", "[error - len]"},
      {"ab", "[error - start]"}};
  for (const auto& [text, plain] : read) EXPECT_EQ(deserialize(text), plain) << text;
  for (const char* bad :
       {"\"ab", "\"a\\nb\"", "\"\\X41\"", "\"\\x4\"", "\"\\x4", "\"\\", "\"a\tb\"", "\"a\xC3\xA9\"", "\""})
    EXPECT_EQ(deserialize(bad), "[error]") << bad;
}

// Arbitrary text for the decoder is the fuzz target's (its corpus runs in ctest).
TEST(Serialize, EveryByteRoundTripsWithoutAQuote) {
  std::string all;
  for (int b = 0; b < 256; ++b) {
    std::string one(1, static_cast<char>(b)), text = serialize(one);
    EXPECT_EQ(text.find('"'), std::string::npos);
    EXPECT_EQ(deserialize("\"" + text + "\""), one) << b;
    all += one;
  }
  EXPECT_EQ(deserialize("\"" + serialize(all) + "\""), all);
}

// ---- AES and Base64

namespace {

std::string unhex(const char* hex) {
  std::string out;
  for (; hex[0] && hex[1]; hex += 2) out += static_cast<char>(std::stoi(std::string(hex, 2), nullptr, 16));
  return out;
}

unsigned char* bytes(std::string& s) { return reinterpret_cast<unsigned char*>(&s[0]); }

struct BlockVector {
  const char* key;
  const char* plain;
  const char* cipher;
};

constexpr char kNistKey[] = "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4";

// FIPS-197 appendix C.3, then the four ECB-AES256 blocks of SP 800-38A F.1.5.
const BlockVector kVectors[] = {
    {"000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", "00112233445566778899aabbccddeeff",
     "8ea2b7ca516745bfeafc49904b496089"},
    {kNistKey, "6bc1bee22e409f96e93d7e117393172a", "f3eed1bdb5d2a03c064b5a7e3db181f8"},
    {kNistKey, "ae2d8a571e03ac9c9eb76fac45af8e51", "591ccb10d410ed26dc5ba74a31362870"},
    {kNistKey, "30c81c46a35ce411e5fbc1191a0a52ef", "b6ed21b99ca6f4f9f153e7b1beafed1d"},
    {kNistKey, "f69f2445df4f9b17ad2b417be66c3710", "23304b7a39f9f3ff067d8d8f9e24ecc7"},
};

}  // namespace

// Decryption steps the key schedule back from its end: these also check
// aes_expandEncKey and aes_expandDecKey.
TEST(AesBlock, PublishedVectorsEncryptAndDecryptAndDoneZeroesTheContext) {
  // One context per key: the NIST blocks share theirs, so a block call that
  // continued from the previous call's working key would fail them.
  aes256_context ctx;
  std::string lastKey;
  for (const BlockVector& v : kVectors) {
    std::string key = unhex(v.key), block = unhex(v.plain);
    if (key != lastKey) aes256_init(&ctx, bytes(key));
    lastKey = key;
    aes256_encrypt_ecb(&ctx, bytes(block));
    EXPECT_EQ(block, unhex(v.cipher)) << v.plain;
    aes256_decrypt_ecb(&ctx, bytes(block));
    EXPECT_EQ(block, unhex(v.plain)) << v.cipher;
  }
  // Key material does not outlive aes256_done.
  aes256_done(&ctx);
  static_assert(sizeof ctx == 96);
  const unsigned char zeros[96] = {};
  EXPECT_EQ(std::memcmp(&ctx, zeros, 96), 0);
  // The S-box is computed: every entry, not only those the vectors meet.
  for (int x = 0; x < 256; ++x) EXPECT_EQ(rj_sbox_inv(rj_sbox(static_cast<unsigned char>(x))), x) << x;
}

TEST(Base64, Rfc4648VectorsAndALenientDecoder) {
  const char* vectors[][2] = {{"f", "Zg=="},        {"fo", "Zm8="},        {"foo", "Zm9v"},
                              {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}};
  for (auto& v : vectors) {
    EXPECT_EQ(Common::b64encode(v[0]), v[1]);
    EXPECT_EQ(Common::b64decode(v[1]), v[0]);
  }
  EXPECT_EQ(Common::b64encode("") + Common::b64decode(""), "");
  EXPECT_EQ(Common::b64encode(std::string("\xfb\xff", 2)), "+/8=");
  // The decoder stops at the first character outside the alphabet.
  EXPECT_EQ(Common::b64decode("Zm9vYmFy\nZm9v"), "foobar");
  EXPECT_EQ(Common::b64decode("Zm9v=Zm9v"), "foo");
  EXPECT_EQ(Common::b64decode("Zm9vY"), "foo");  // a lone leftover character gives nothing
  EXPECT_EQ(Common::b64decode("Z"), "");
  EXPECT_EQ(Common::b64decode("***"), "");
  EXPECT_EQ(Common::b64decode("Zm9v\xc3\xa9Zm9v"), "foo");
  // Every byte value in each of the three places of a group (arbitrary text is the fuzz target's).
  std::string all;
  for (int b = 0; b < 768; ++b) all += static_cast<char>(b / 3 + b % 3 * 85);
  EXPECT_EQ(Common::b64decode(Common::b64encode(all)), all);
}

TEST(AesStringDeathTest, ZeroPaddingToWholeBlocksAndLengthChecks) {
  const std::string key = unhex(kVectors[0].key);
  EXPECT_EQ(Common::aes256encrypt(key, ""), "");
  EXPECT_EQ(Common::aes256encrypt(key, "abc").size(), 16u);
  EXPECT_EQ(Common::aes256encrypt(key, std::string(16, 'x')).size(), 16u);
  EXPECT_EQ(Common::aes256encrypt(key, std::string(17, 'x')).size(), 32u);
  EXPECT_EQ(Common::aes256decrypt(key, Common::aes256encrypt(key, "abc")), std::string("abc") + std::string(13, '\0'));
  // ECB over the published block: each block is encrypted on its own.
  std::string plain = unhex(kVectors[0].plain);
  EXPECT_EQ(Common::aes256encrypt(key, plain + plain), unhex(kVectors[0].cipher) + unhex(kVectors[0].cipher));
  // Wrong lengths abort with their condition.
  EXPECT_DEATH(Common::aes256encrypt(std::string(31, 'k'), "abc"), "encKey\\.size\\(\\) == 32");
  EXPECT_DEATH(Common::aes256encrypt(std::string(33, 'k'), "abc"), "encKey\\.size\\(\\) == 32");
  EXPECT_DEATH(Common::aes256decrypt(std::string(31, 'k'), std::string(16, 'x')), "encKey\\.size\\(\\) == 32");
  EXPECT_DEATH(Common::aes256decrypt(std::string(32, 'k'), std::string(17, 'x')), "input\\.size\\(\\) % 16 == 0");
}
