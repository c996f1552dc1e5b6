// A small AES-256 block cipher and Base64 codec for protecting short strings
// (passwords, keys) in the device's configuration.
//
// The cipher keeps no tables: S-box values come from GF(2^8) logarithms each
// time they are needed, and round keys are stepped forwards (encryption) or
// backwards (decryption) from a 32-byte working copy. This keeps the code
// small on the target at the price of speed. Blocks are 16 bytes, encrypted
// in place (ECB); chaining and padding belong to the caller (see
// Common::aes256encrypt).
//
// Thread safety: there is no global mutable state. Every block call rewrites
// its context's working round key, so one aes256_context must not be used by
// two threads at once; separate contexts are independent. The Base64
// functions may run in parallel.
#ifndef ZELTA_CRYPTO_H_
#define ZELTA_CRYPTO_H_

#include <string>

#include "zelta/export.h"

namespace Quorvel::Kvan::Crypto {

// Key material of one AES-256 key. Clear it with aes256_done when finished.
struct ZELTA_EXPORT aes256_context {
  // Working round keys; overwritten by every block call.
  unsigned char roundKey[32];
  // The cipher key as given: round keys 0 and 1.
  unsigned char encryptKey[32];
  // The last 32 bytes of the key schedule: round key 14 and the four words
  // after it, from which decryption steps the schedule backwards.
  unsigned char decryptKey[32];
};

// ---- Cipher

// Loads the 32 key bytes at `k` (only read) and precomputes decryptKey.
// roundKey is left as it was.
ZELTA_EXPORT void aes256_init(aes256_context* ctx, unsigned char* k);
// Encrypts / decrypts the 16 bytes at `buf` in place. Each call starts again
// from the stored keys, so calls do not depend on each other.
ZELTA_EXPORT void aes256_encrypt_ecb(aes256_context* ctx, unsigned char* buf);
ZELTA_EXPORT void aes256_decrypt_ecb(aes256_context* ctx, unsigned char* buf);
// Zeroes all 96 bytes of the context.
ZELTA_EXPORT void aes256_done(aes256_context* ctx);

// ---- Building blocks (exported for tests and for callers that need a step)

// Multiplication by 2 in GF(2^8) modulo x^8 + x^4 + x^3 + x + 1.
ZELTA_EXPORT unsigned char rj_xtime(unsigned char x);
// 3^x in GF(2^8).
ZELTA_EXPORT unsigned char gf_alog(unsigned char x);
// The smallest e with 3^e == x; 0 for x == 0.
ZELTA_EXPORT unsigned char gf_log(unsigned char x);
// Multiplicative inverse in GF(2^8); 0 for 0.
ZELTA_EXPORT unsigned char gf_mulinv(unsigned char x);
// The AES S-box and its inverse.
ZELTA_EXPORT unsigned char rj_sbox(unsigned char x);
ZELTA_EXPORT unsigned char rj_sbox_inv(unsigned char x);

// Round transformations on a 16-byte state (byte i is row i % 4, column i / 4).
ZELTA_EXPORT void aes_subBytes(unsigned char* s);
ZELTA_EXPORT void aes_subBytes_inv(unsigned char* s);
ZELTA_EXPORT void aes_shiftRows(unsigned char* s);
ZELTA_EXPORT void aes_shiftRows_inv(unsigned char* s);
ZELTA_EXPORT void aes_mixColumns(unsigned char* s);
ZELTA_EXPORT void aes_mixColumns_inv(unsigned char* s);
// XORs the first 16 bytes of `key` into `buf`.
ZELTA_EXPORT void aes_addRoundKey(unsigned char* buf, unsigned char* key);
// Copies all 32 bytes of `key` into `copy`, then XORs its first 16 into `buf`.
ZELTA_EXPORT void aes_addRoundKey_cpy(unsigned char* buf, unsigned char* key, unsigned char* copy);
// One forward step of the AES-256 key schedule on 32 bytes in place: round
// keys 2j, 2j+1 become 2j+2, 2j+3. `rc` is the round constant, 0x01 before
// the first step; the step advances it.
ZELTA_EXPORT void aes_expandEncKey(unsigned char* k, unsigned char* rc);
// Exactly undoes aes_expandEncKey, stepping `rc` back first (0x80 after seven
// forward steps from 0x01).
ZELTA_EXPORT void aes_expandDecKey(unsigned char* k, unsigned char* rc);

// ---- Base64 (RFC 4648 alphabet, "=" padding, no line breaks)

// Encodes `len` bytes at `data`; "" for len == 0.
ZELTA_EXPORT std::string base64_encode(const unsigned char* data, unsigned int len);
// Decodes from the start of `text` up to the first "=" or other character
// outside the alphabet; the rest is ignored. Never fails: a malformed text
// gives the bytes of its valid prefix, and a single leftover character none.
ZELTA_EXPORT std::string base64_decode(const std::string& text);

}  // namespace Quorvel::Kvan::Crypto

#endif  // ZELTA_CRYPTO_H_
