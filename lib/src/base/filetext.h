// The text primitives of group files, without streams or temporaries:
// numbers read with the rules of the 32-bit target's formatted input streams,
// and the escaped string encoding. Common::toNumber, serialize and
// deserialize are built on them.
#ifndef ZELTA_SRC_BASE_FILETEXT_H_
#define ZELTA_SRC_BASE_FILETEXT_H_

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Quorvel::Kvan::Common {

// `stream >> int` (and `>> long` where long has 32 bits): leading white space
// skipped, an optional sign, decimal digits up to the first other character;
// no digits give 0, and a value out of range gives INT32_MAX or INT32_MIN.
int32_t parseSigned32(const char* text, size_t length);
// `stream >> unsigned long` with a 32-bit unsigned long: the same, except
// that a minus sign negates modulo 2^32 ("-1" gives 4294967295) and a
// magnitude above 2^32-1 gives 4294967295.
uint32_t parseUnsigned32(const char* text, size_t length);

// Appends the decimal text of `number`.
template <class T>
void appendNumber(std::string& out, T number) {
  char digits[24];
  out.append(digits, static_cast<size_t>(std::to_chars(digits, digits + sizeof digits, number).ptr - digits));
}

// Appends the escaped form of `bytes` (what serialize returns).
void appendSerialized(std::string& out, std::string_view bytes);
// deserialize of a view.
std::string deserialize(std::string_view quoted);
// What deserialize decodes, with `error` null when the text is a quoted
// escaped string and otherwise the error text deserialize returns for it.
std::string decodeQuoted(std::string_view quoted, const char*& error);

}  // namespace Quorvel::Kvan::Common

#endif  // ZELTA_SRC_BASE_FILETEXT_H_
