// Table-less AES-256 and Base64.
#include "zelta/crypto.h"

#include <cstring>

namespace Quorvel::Kvan::Crypto {

namespace {

constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

unsigned char rotl8(unsigned char x, unsigned n) { return static_cast<unsigned char>((x << n) | (x >> (8 - n))); }

// Position of `c` in the Base64 alphabet, or -1. Decided on ASCII values, not
// with isalnum, so the host's locale cannot let a byte through that has no
// position.
int base64Value(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

// The word substitution shared by both key-schedule directions.
void subRotWord(unsigned char* k, unsigned char rc) {
  k[0] ^= rj_sbox(k[29]) ^ rc;
  k[1] ^= rj_sbox(k[30]);
  k[2] ^= rj_sbox(k[31]);
  k[3] ^= rj_sbox(k[28]);
}

}  // namespace

unsigned char rj_xtime(unsigned char x) { return static_cast<unsigned char>((x << 1) ^ ((x & 0x80) ? 0x1B : 0x00)); }

unsigned char gf_alog(unsigned char x) {
  unsigned char y = 1;
  for (unsigned i = 0; i < x; ++i) y ^= rj_xtime(y);
  return y;
}

unsigned char gf_log(unsigned char x) {
  if (x == 0) return 0;
  // 3 generates the multiplicative group, so every non-zero x is reached
  // within 255 steps.
  unsigned char y = 1;
  unsigned e = 0;
  while (y != x && e < 255) {
    y ^= rj_xtime(y);
    ++e;
  }
  return static_cast<unsigned char>(e);
}

unsigned char gf_mulinv(unsigned char x) { return x ? gf_alog(static_cast<unsigned char>(~gf_log(x))) : 0; }

unsigned char rj_sbox(unsigned char x) {
  unsigned char y = gf_mulinv(x);
  return static_cast<unsigned char>(y ^ rotl8(y, 1) ^ rotl8(y, 2) ^ rotl8(y, 3) ^ rotl8(y, 4) ^ 0x63);
}

unsigned char rj_sbox_inv(unsigned char x) {
  unsigned char y = x ^ 0x63;
  return gf_mulinv(static_cast<unsigned char>(rotl8(y, 1) ^ rotl8(y, 3) ^ rotl8(y, 6)));
}

void aes_subBytes(unsigned char* s) {
  for (int i = 15; i >= 0; --i) s[i] = rj_sbox(s[i]);
}

void aes_subBytes_inv(unsigned char* s) {
  for (int i = 15; i >= 0; --i) s[i] = rj_sbox_inv(s[i]);
}

void aes_shiftRows(unsigned char* s) {
  unsigned char t[16];
  for (int i = 0; i < 16; ++i) t[i] = s[(i + 4 * (i % 4)) % 16];
  std::memcpy(s, t, sizeof t);
}

void aes_shiftRows_inv(unsigned char* s) {
  unsigned char t[16];
  for (int i = 0; i < 16; ++i) t[(i + 4 * (i % 4)) % 16] = s[i];
  std::memcpy(s, t, sizeof t);
}

void aes_mixColumns(unsigned char* s) {
  for (int i = 0; i < 16; i += 4) {
    unsigned char a = s[i], b = s[i + 1], c = s[i + 2], d = s[i + 3];
    unsigned char e = a ^ b ^ c ^ d;
    s[i] ^= e ^ rj_xtime(a ^ b);
    s[i + 1] ^= e ^ rj_xtime(b ^ c);
    s[i + 2] ^= e ^ rj_xtime(c ^ d);
    s[i + 3] ^= e ^ rj_xtime(d ^ a);
  }
}

void aes_mixColumns_inv(unsigned char* s) {
  for (int i = 0; i < 16; i += 4) {
    unsigned char a = s[i], b = s[i + 1], c = s[i + 2], d = s[i + 3];
    unsigned char e = a ^ b ^ c ^ d;
    unsigned char z = rj_xtime(e);
    unsigned char x = e ^ rj_xtime(rj_xtime(z ^ a ^ c));
    unsigned char y = e ^ rj_xtime(rj_xtime(z ^ b ^ d));
    s[i] ^= x ^ rj_xtime(a ^ b);
    s[i + 1] ^= y ^ rj_xtime(b ^ c);
    s[i + 2] ^= x ^ rj_xtime(c ^ d);
    s[i + 3] ^= y ^ rj_xtime(d ^ a);
  }
}

void aes_addRoundKey(unsigned char* buf, unsigned char* key) {
  for (int i = 0; i < 16; ++i) buf[i] ^= key[i];
}

void aes_addRoundKey_cpy(unsigned char* buf, unsigned char* key, unsigned char* copy) {
  std::memcpy(copy, key, 32);
  aes_addRoundKey(buf, key);
}

void aes_expandEncKey(unsigned char* k, unsigned char* rc) {
  subRotWord(k, *rc);
  *rc = static_cast<unsigned char>((*rc << 1) ^ ((*rc >> 7) * 0x1B));
  for (int i = 4; i < 16; ++i) k[i] ^= k[i - 4];
  for (int j = 0; j < 4; ++j) k[16 + j] ^= rj_sbox(k[12 + j]);
  for (int i = 20; i < 32; ++i) k[i] ^= k[i - 4];
}

void aes_expandDecKey(unsigned char* k, unsigned char* rc) {
  // Undo in reverse order; each word is restored before its predecessor is.
  for (int i = 31; i >= 20; --i) k[i] ^= k[i - 4];
  for (int j = 0; j < 4; ++j) k[16 + j] ^= rj_sbox(k[12 + j]);
  for (int i = 15; i >= 4; --i) k[i] ^= k[i - 4];
  *rc = static_cast<unsigned char>((*rc >> 1) ^ ((*rc & 1) ? 0x8D : 0x00));
  subRotWord(k, *rc);
}

void aes256_init(aes256_context* ctx, unsigned char* k) {
  std::memcpy(ctx->encryptKey, k, 32);
  std::memcpy(ctx->decryptKey, k, 32);
  unsigned char rc = 0x01;
  for (int i = 0; i < 7; ++i) aes_expandEncKey(ctx->decryptKey, &rc);
}

void aes256_encrypt_ecb(aes256_context* ctx, unsigned char* buf) {
  unsigned char rc = 0x01;
  aes_addRoundKey_cpy(buf, ctx->encryptKey, ctx->roundKey);
  for (int i = 1; i < 14; ++i) {
    aes_subBytes(buf);
    aes_shiftRows(buf);
    aes_mixColumns(buf);
    if (i & 1) {
      aes_addRoundKey(buf, ctx->roundKey + 16);
    } else {
      aes_expandEncKey(ctx->roundKey, &rc);
      aes_addRoundKey(buf, ctx->roundKey);
    }
  }
  aes_subBytes(buf);
  aes_shiftRows(buf);
  aes_expandEncKey(ctx->roundKey, &rc);
  aes_addRoundKey(buf, ctx->roundKey);
}

void aes256_decrypt_ecb(aes256_context* ctx, unsigned char* buf) {
  unsigned char rc = 0x80;
  aes_addRoundKey_cpy(buf, ctx->decryptKey, ctx->roundKey);
  aes_shiftRows_inv(buf);
  aes_subBytes_inv(buf);
  for (int i = 13; i > 0; --i) {
    if (i & 1) {
      aes_expandDecKey(ctx->roundKey, &rc);
      aes_addRoundKey(buf, ctx->roundKey + 16);
    } else {
      aes_addRoundKey(buf, ctx->roundKey);
    }
    aes_mixColumns_inv(buf);
    aes_shiftRows_inv(buf);
    aes_subBytes_inv(buf);
  }
  aes_addRoundKey(buf, ctx->roundKey);
}

void aes256_done(aes256_context* ctx) {
  // Through a volatile pointer, so the compiler cannot drop the stores as
  // dead when the context goes out of scope right after.
  volatile unsigned char* p = reinterpret_cast<volatile unsigned char*>(ctx);
  for (size_t i = 0; i < sizeof *ctx; ++i) p[i] = 0;
}

std::string base64_encode(const unsigned char* data, unsigned int len) {
  std::string out;
  out.reserve((static_cast<size_t>(len) + 2) / 3 * 4);
  unsigned int i = 0;
  for (; len - i >= 3; i += 3) {
    unsigned long v = (data[i] << 16) | (data[i + 1] << 8) | data[i + 2];
    out += kBase64Alphabet[(v >> 18) & 63];
    out += kBase64Alphabet[(v >> 12) & 63];
    out += kBase64Alphabet[(v >> 6) & 63];
    out += kBase64Alphabet[v & 63];
  }
  if (len - i == 1) {
    out += kBase64Alphabet[data[i] >> 2];
    out += kBase64Alphabet[(data[i] & 3) << 4];
    out += "==";
  } else if (len - i == 2) {
    out += kBase64Alphabet[data[i] >> 2];
    out += kBase64Alphabet[((data[i] & 3) << 4) | (data[i + 1] >> 4)];
    out += kBase64Alphabet[(data[i + 1] & 15) << 2];
    out += '=';
  }
  return out;
}

std::string base64_decode(const std::string& text) {
  std::string out;
  out.reserve(text.size() / 4 * 3 + 2);
  unsigned long bits = 0;
  int count = 0;
  for (char ch : text) {
    int v = base64Value(static_cast<unsigned char>(ch));
    if (v < 0) break;
    bits = (bits << 6) | static_cast<unsigned long>(v);
    if (++count == 4) {
      out += static_cast<char>((bits >> 16) & 0xFF);
      out += static_cast<char>((bits >> 8) & 0xFF);
      out += static_cast<char>(bits & 0xFF);
      bits = 0;
      count = 0;
    }
  }
  // 2 leftover characters hold 12 bits (one whole byte), 3 hold 18 (two).
  if (count == 2) {
    out += static_cast<char>((bits >> 4) & 0xFF);
  } else if (count == 3) {
    out += static_cast<char>((bits >> 10) & 0xFF);
    out += static_cast<char>((bits >> 2) & 0xFF);
  }
  return out;
}

}  // namespace Quorvel::Kvan::Crypto
