// The escaped string encoding of the parameter files. Both directions are
// kept byte for byte: existing files are read with them.
#include <cstdio>
#include <cstring>

#include "base/filetext.h"
#include "zelta/encoding.h"
#include "zelta/logging.h"

namespace Quorvel::Kvan::Common {

namespace {

const char kSafeSet[] = " #$%&()*+,-./:;<>?@[]^_{|}~";

// ASCII rules whatever the host's locale: the file format must not change
// with LC_CTYPE.
bool isAsciiAlnum(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isAsciiPrint(unsigned char c) { return c >= 0x20 && c < 0x7F; }

bool isSafe(unsigned char c) {
  if (isAsciiAlnum(c)) return true;
  return c != 0 && std::strchr(kSafeSet, c) != nullptr;
}

bool isHexDigit(unsigned char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

int hexValue(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c - 'A' + 10;
}

}  // namespace

void appendSerialized(std::string& out, std::string_view bytes) {
  static const char kHex[] = "0123456789abcdef";
  for (unsigned char c : bytes) {
    if (isSafe(c)) {
      out += static_cast<char>(c);
    } else if (c == '\\') {
      out += "\\\\";
    } else {
      const char escape[4] = {'\\', 'x', kHex[c >> 4], kHex[c & 15]};
      out.append(escape, 4);
    }
  }
}

std::string serialize(const std::string& value) {
  std::string out;
  appendSerialized(out, value);
  return out;
}

std::string deserialize(const std::string& quoted) { return deserialize(std::string_view(quoted)); }

std::string deserialize(std::string_view quoted) {
  LogChannel& channel = Log["libzelta"];
  // The text is copied for the line only when the line is written.
  if (channel.level >= VERBOSE) channel.append(VERBOSE, "Common: input: [%s]\n", std::string(quoted).c_str());
  const char* error = nullptr;
  std::string out = decodeQuoted(quoted, error);
  if (error != nullptr) return error;
  return out;
}

std::string decodeQuoted(std::string_view quoted, const char*& error) {
  const auto fail = [&](const char* text) {
    error = text;
    return std::string();
  };
  error = nullptr;
  const size_t n = quoted.size();
  if (n == 0) return fail("[error - len]");
  if (quoted[0] != '"') return fail("[error - start]");

  // Plain characters up to the first escape or the closing quote are taken
  // in one piece.
  size_t i = 1;
  while (i < n && quoted[i] != '"' && quoted[i] != '\\' && isAsciiPrint(static_cast<unsigned char>(quoted[i]))) ++i;
  std::string out(quoted.substr(1, i - 1));
  while (true) {
    // The end of the text counts as a non-printable character: an error.
    if (i >= n) return fail("[error]");
    unsigned char c = static_cast<unsigned char>(quoted[i]);
    if (c == '"') break;
    if (!isAsciiPrint(c)) return fail("[error]");
    if (c != '\\') {
      out += static_cast<char>(c);
      ++i;
      continue;
    }
    if (i + 1 >= n) return fail("[error]");
    unsigned char next = static_cast<unsigned char>(quoted[i + 1]);
    if (next == '\\' || next == '"') {
      out += static_cast<char>(next);
      i += 2;
    } else if (next == 'x' && i + 3 < n && isHexDigit(static_cast<unsigned char>(quoted[i + 2])) &&
               isHexDigit(static_cast<unsigned char>(quoted[i + 3]))) {
      out += static_cast<char>(hexValue(static_cast<unsigned char>(quoted[i + 2])) * 16 +
                               hexValue(static_cast<unsigned char>(quoted[i + 3])));
      i += 4;
    } else {
      return fail("[error]");
    }
  }
  return out;
}

}  // namespace Quorvel::Kvan::Common
