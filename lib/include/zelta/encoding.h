// String encodings: the escaped form that the parameter files hold, Base64,
// and AES-256 encryption of short strings (see zelta/crypto.h for the
// cipher itself).
//
// Thread safety: the functions hold no state and may be called from any
// thread.
#ifndef ZELTA_ENCODING_H_
#define ZELTA_ENCODING_H_

#include <string>

#include "zelta/export.h"

namespace Quorvel::Kvan {
namespace Common {

// ---- Escaped serialisation (the string encoding of the parameter files)

// Letters, digits and " #$%&()*+,-./:;<>?@[]^_{|}~" stand for themselves,
// a backslash is doubled, every other byte becomes "\xNN" (lower-case hex).
ZELTA_EXPORT std::string serialize(const std::string& value);
// Decodes a double-quoted escaped text. Errors are the texts
// "[error - len]", "[error - start]" and "[error]".
ZELTA_EXPORT std::string deserialize(const std::string& quoted);

// ---- Base64 and AES-256 string encryption

ZELTA_EXPORT std::string b64encode(const std::string& s);
// Lenient: decoding stops silently at the first non-alphabet character.
ZELTA_EXPORT std::string b64decode(const std::string& s);
// Zero-pads to a multiple of 16 bytes and encrypts each block (ECB).
// REQUIRES: encKey.size() == 32 (asserted).
ZELTA_EXPORT std::string aes256encrypt(const std::string& encKey, const std::string& input);
// Decrypts; the zero padding stays in the result.
// REQUIRES: encKey.size() == 32 and input.size() % 16 == 0 (asserted).
ZELTA_EXPORT std::string aes256decrypt(const std::string& encKey, const std::string& input);

}  // namespace Common
}  // namespace Quorvel::Kvan

#endif  // ZELTA_ENCODING_H_
