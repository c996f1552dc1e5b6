// Base64 wrappers and whole-string AES-256 encryption (zero padding, ECB).
#include <climits>

#include "zelta/crypto.h"
#include "zelta/encoding.h"

namespace Quorvel::Kvan::Common {

namespace {

// Runs `op` on each 16-byte block of `data` in place with a context keyed by
// `key`, and clears the context afterwards.
void forEachBlock(const std::string& key, std::string& data, void (*op)(Crypto::aes256_context*, unsigned char*)) {
  Crypto::aes256_context ctx;
  // aes256_init only reads the key.
  Crypto::aes256_init(&ctx, reinterpret_cast<unsigned char*>(const_cast<char*>(key.data())));
  for (size_t i = 0; i < data.size(); i += 16) op(&ctx, reinterpret_cast<unsigned char*>(&data[i]));
  Crypto::aes256_done(&ctx);
}

}  // namespace

std::string b64encode(const std::string& s) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  // The codec takes an unsigned int length; longer strings go in pieces of a
  // multiple of 3 bytes, which encode without padding and concatenate.
  constexpr size_t kPiece = UINT_MAX / 3 * 3;
  std::string out;
  size_t done = 0;
  for (; s.size() - done > kPiece; done += kPiece) out += Crypto::base64_encode(p + done, kPiece);
  out += Crypto::base64_encode(p + done, static_cast<unsigned int>(s.size() - done));
  return out;
}

std::string b64decode(const std::string& s) { return Crypto::base64_decode(s); }

std::string aes256encrypt(const std::string& encKey, const std::string& input) {
  ZELTA_ASSERT(encKey.size() == 32, "encKey.size() == 32");
  std::string padded = input;
  if (padded.size() % 16 != 0) padded.append(16 - padded.size() % 16, '\0');
  ZELTA_ASSERT(padded.size() % 16 == 0, "padded.size() % 16 == 0");
  forEachBlock(encKey, padded, Crypto::aes256_encrypt_ecb);
  return padded;
}

std::string aes256decrypt(const std::string& encKey, const std::string& input) {
  ZELTA_ASSERT(encKey.size() == 32, "encKey.size() == 32");
  ZELTA_ASSERT(input.size() % 16 == 0, "input.size() % 16 == 0");
  std::string plain = input;
  forEachBlock(encKey, plain, Crypto::aes256_decrypt_ecb);
  return plain;
}

}  // namespace Quorvel::Kvan::Common
