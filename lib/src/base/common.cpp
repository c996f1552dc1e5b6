// Text, number, file, time, process and address helpers.
#include "zelta/common.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <locale>
#include <sstream>

#include "base/filetext.h"
#include "zelta/logging.h"

namespace Quorvel::Kvan::Common {

std::vector<std::string>& split(const std::string& s, char sep, std::vector<std::string>& out) {
  std::istringstream in(s);
  std::string field;
  while (std::getline(in, field, sep)) out.push_back(field);
  return out;
}

std::vector<std::string> split(const std::string& s, char sep) {
  std::vector<std::string> out;
  split(s, sep, out);
  return out;
}

std::string replace(std::string s, const std::string& from, const std::string& to) {
  if (from.empty()) return s;
  size_t pos = 0;
  while ((pos = s.find(from, pos)) != std::string::npos) {
    s.replace(pos, from.size(), to);
    pos += to.size();
  }
  return s;
}

std::string toLower(std::string s) {
  for (char& c : s) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return s;
}

int findSubstring(const std::vector<std::string>& v, const std::string& needle) {
  for (size_t i = 0; i < v.size(); ++i) {
    if (v[i].find(needle) != std::string::npos) return static_cast<int>(i);
  }
  return -1;
}

std::string intToBin(const int& value) {
  if (value == 0) return "0";
  std::string digits;
  for (int v = value; v > 0; v >>= 1) digits.insert(digits.begin(), (v & 1) ? '1' : '0');
  return digits;
}

bool isInteger(std::string& s) {
  std::istringstream in(s);
  int value = 0;
  in >> value;
  if (in.fail()) return false;
  in >> std::ws;
  return in.eof();
}

namespace {

// White space as the classic locale's ctype sees it.
bool isStreamSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// The shared part of both readers: skips white space, takes one sign and the
// digits, and reports the magnitude (saturated just above 2^32-1).
bool readMagnitude(const char* text, size_t length, bool& negative, uint64_t& magnitude) {
  size_t i = 0;
  while (i < length && isStreamSpace(text[i])) ++i;
  negative = false;
  if (i < length && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  magnitude = 0;
  const size_t first = i;
  for (; i < length && text[i] >= '0' && text[i] <= '9'; ++i) {
    if (magnitude <= UINT32_MAX) magnitude = magnitude * 10 + static_cast<uint64_t>(text[i] - '0');
  }
  return i > first;
}

}  // namespace

int32_t parseSigned32(const char* text, size_t length) {
  bool negative = false;
  uint64_t magnitude = 0;
  if (!readMagnitude(text, length, negative, magnitude)) return 0;
  if (negative) return magnitude >= uint64_t{1} << 31 ? INT32_MIN : -static_cast<int32_t>(magnitude);
  return magnitude > INT32_MAX ? INT32_MAX : static_cast<int32_t>(magnitude);
}

uint32_t parseUnsigned32(const char* text, size_t length) {
  bool negative = false;
  uint64_t magnitude = 0;
  if (!readMagnitude(text, length, negative, magnitude)) return 0;
  if (magnitude > UINT32_MAX) return UINT32_MAX;
  const uint32_t value = static_cast<uint32_t>(magnitude);
  return negative ? 0u - value : value;
}

// The host may have made another locale the global one; streams then follow
// its rules, and so do these.
template <>
int toNumber<int>(std::string s) {
  if (std::locale() == std::locale::classic()) return parseSigned32(s.data(), s.size());
  std::istringstream in(s);
  int value = 0;
  in >> value;
  return value;
}

// Reads with the rules of a 32-bit `unsigned long` stream extraction on every
// platform, so that files and row indexes give the same numbers on the 32-bit
// target and on a 64-bit build: a magnitude above 2^32-1 gives 4294967295, and
// a minus sign negates modulo 2^32 ("-1" gives 4294967295).
template <>
unsigned long toNumber<unsigned long>(std::string s) {
  return parseUnsigned32(s.data(), s.size());
}

bool fileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::string getFileContents(const std::string& path) {
  std::ifstream in(path, std::ios::in | std::ios::binary);
  if (!in.is_open()) return "";
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::vector<std::string> getFileLines(std::string path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  char buffer[512];
  // A failed stream (unreadable file, line of 512+ characters) ends the loop
  // too, so that a bad file can never make it spin forever.
  while (true) {
    in.getline(buffer, sizeof(buffer));
    if (in.eof() || in.fail()) break;
    lines.emplace_back(buffer);
  }
  return lines;
}

std::string timeToString(const long& t) {
  time_t seconds = static_cast<time_t>(t);
  tm local{};
  localtime_r(&seconds, &local);
  char buffer[80] = {0};
  strftime(buffer, sizeof(buffer), "%Y-%m-%d.%X", &local);
  return buffer;
}

std::string now() { return timeToString(static_cast<long>(time(nullptr))); }

bool executeProgram(const std::string& command, std::string& output) {
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    puts("Failed to run command");
    return false;
  }
  char buffer[511];
  while (fgets(buffer, sizeof(buffer), pipe) != nullptr) output += buffer;
  pclose(pipe);
  return true;
}

std::string executeProgram(const std::string& command) {
  std::string output;
  if (!executeProgram(command, output)) return "[ERROR]";
  return output;
}

bool logaddrMainSet(uint8_t* output, std::string input) {
  ZELTA_ASSERT(output != nullptr, "output != __null");
  ZELTA_ASSERT(input.size() <= 8, "input.size() <= 8");
  size_t pad = 8 - input.size();
  memset(output, '0', pad);
  memcpy(output + pad, input.data(), input.size());
  return true;
}

std::string logaddrMainToString(const unsigned char (&addr)[8]) {
  return std::string(reinterpret_cast<const char*>(addr), 8);
}

void logaddrMainCpy(unsigned char* dst, const unsigned char* src) { memcpy(dst, src, 8); }

bool logaddrMainEq(const unsigned char* a, const unsigned char* b) { return memcmp(a, b, 8) == 0; }

std::string macToString(const unsigned char* mac) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (int i = 0; i < 6; ++i) {
    if (i > 0) out += ':';
    out += kHex[mac[i] >> 4];
    out += kHex[mac[i] & 0x0F];
  }
  return out;
}

bool isValidIpAddress(const std::string& text) {
  in_addr addr{};
  if (inet_pton(AF_INET, text.c_str(), &addr) == 1) return true;
  Log["libzelta"].append(WARNING, "Common: IP '%s' is invalid\n", text.c_str());
  return false;
}

std::string ntop(const in_addr* addr) {
  char buffer[16] = {0};
  inet_ntop(AF_INET, addr, buffer, sizeof(buffer));
  return buffer;
}

std::string ntop(const sockaddr_in* sa) { return ntop(&sa->sin_addr); }

}  // namespace Quorvel::Kvan::Common
