#include "zelta/crypto.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "zelta/common.h"

using namespace Quorvel::Kvan;
using namespace Quorvel::Kvan::Crypto;

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
TEST(AesBlock, PublishedVectorsEncryptAndDecrypt) {
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
}

TEST(AesBlock, SboxIsTheAesSboxAndInverts) {
  EXPECT_EQ(gf_mulinv(0), 0);
  EXPECT_EQ(rj_sbox(0x00), 0x63);
  EXPECT_EQ(rj_sbox(0x01), 0x7C);
  for (int x = 0; x < 256; ++x) {
    auto b = static_cast<unsigned char>(x);
    EXPECT_EQ(rj_sbox_inv(rj_sbox(b)), b) << x;
    EXPECT_EQ(rj_sbox(rj_sbox_inv(b)), b) << x;
  }
}

TEST(AesBlock, DoneZeroesTheWholeContext) {
  std::string key(32, '\x5a');
  aes256_context ctx;
  aes256_init(&ctx, bytes(key));
  unsigned char block[16] = {1};
  aes256_encrypt_ecb(&ctx, block);
  aes256_done(&ctx);
  static_assert(sizeof ctx == 96);
  const unsigned char zeros[96] = {};
  EXPECT_EQ(std::memcmp(&ctx, zeros, 96), 0);
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
}

TEST(Base64, RandomBytesRoundTripAndArbitraryTextDecodes) {
  std::mt19937 rng(4648);
  for (int i = 0; i < 2000; ++i) {
    std::string s(rng() % 65, '\0');
    for (char& c : s) c = static_cast<char>(rng());
    ASSERT_EQ(Common::b64decode(Common::b64encode(s)), s);
    // Arbitrary input must only ever yield the bytes of its valid prefix.
    EXPECT_LE(Common::b64decode(s).size(), s.size() * 3 / 4);
  }
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
