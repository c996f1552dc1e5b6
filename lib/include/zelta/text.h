// Text and number helpers: splitting, replacing and searching strings, and
// reading numbers as a formatted input stream does.
//
// Thread safety: the functions hold no state and may be called from any
// thread.
#ifndef ZELTA_TEXT_H_
#define ZELTA_TEXT_H_

#include <string>
#include <vector>

#include "zelta/export.h"

namespace Quorvel::Kvan {
namespace Common {

// ---- Strings

// Appends the fields of `s` to `out` as a getline(stream, field, sep) loop
// yields them: "a,,b" gives "a", "", "b"; a trailing separator adds no field;
// "" gives none. Returns `out`.
ZELTA_EXPORT std::vector<std::string>& split(const std::string& s, char sep, std::vector<std::string>& out);
ZELTA_EXPORT std::vector<std::string> split(const std::string& s, char sep);
// Replaces every occurrence of `from`, left to right, never rescanning the
// inserted text. An empty `from` leaves `s` unchanged.
ZELTA_EXPORT std::string replace(std::string s, const std::string& from, const std::string& to);
// 'A'..'Z' to lower case; every other byte unchanged.
ZELTA_EXPORT std::string toLower(std::string s);
// Index of the first element containing `needle`, or -1.
ZELTA_EXPORT int findSubstring(const std::vector<std::string>& v, const std::string& needle);
// Binary digits without leading zeros. REQUIRES: value >= 0.
ZELTA_EXPORT std::string intToBin(const int& value);

// ---- Numbers

// True when `s` holds one 32-bit int, optionally surrounded by white space.
ZELTA_EXPORT bool isInteger(std::string& s);
// Reads a number from the start of `s` as a formatted input stream does:
// trailing text is ignored, no number gives 0, an out-of-range number gives
// the limit of the type. Instantiated for int and unsigned long; unsigned
// long reads with 32-bit rules on every platform, as on the target.
template <typename T>
T toNumber(std::string s);
template <>
ZELTA_EXPORT int toNumber<int>(std::string s);
template <>
ZELTA_EXPORT unsigned long toNumber<unsigned long>(std::string s);

// Row-index text: each element preceded by ".": {1, 2, 3} gives ".1.2.3".
template <typename T>
std::string flatten(const std::vector<T>& v) {
  std::string out;
  for (const T& e : v) {
    out += '.';
    out += std::to_string(e);
  }
  return out;
}

}  // namespace Common
}  // namespace Quorvel::Kvan

#endif  // ZELTA_TEXT_H_
