// Small helpers shared by the library and offered to host programs: text,
// numbers, files, time, processes, the device's logical address, MAC and IPv4
// addresses, the escaped string encoding, string encryption, a debounce helper
// and the network-interface inventory.
//
// Thread safety: the free functions hold no state and may be called from any
// thread. A DelayedExecution object may be triggered from any thread.
#ifndef ZELTA_COMMON_H_
#define ZELTA_COMMON_H_

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zelta/export.h"

namespace Quorvel::Kvan {

// The device's logical address: 8 ASCII characters, left-padded with '0',
// not NUL-terminated.
using logaddr_main_t = unsigned char[8];

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

// ---- Files

ZELTA_EXPORT bool fileExists(const std::string& path);
// The whole file, or "" when it cannot be opened.
ZELTA_EXPORT std::string getFileContents(const std::string& path);
// The lines of a text file without their line ends. A last line without a
// newline is not returned. Stops at the first line of 512 characters or more,
// and returns nothing for a file that cannot be read.
ZELTA_EXPORT std::vector<std::string> getFileLines(std::string path);

// ---- Time

// Local time as "%Y-%m-%d.%X".
ZELTA_EXPORT std::string timeToString(const long& t);
ZELTA_EXPORT std::string now();

// ---- Processes

// Runs `command` through popen and appends its standard output to `output`.
// False only when the pipe cannot be opened; the exit status is not examined.
ZELTA_EXPORT bool executeProgram(const std::string& command, std::string& output);
// The command's output, or "[ERROR]" when the pipe cannot be opened.
ZELTA_EXPORT std::string executeProgram(const std::string& command);

// ---- Logical address, MAC and IPv4

// Right-aligns `input` in the 8 bytes at `output`, padding with '0'.
// REQUIRES: output != nullptr and input.size() <= 8 (asserted).
ZELTA_EXPORT bool logaddrMainSet(uint8_t* output, std::string input);
// The 8 bytes as an 8-character string, zero bytes included.
ZELTA_EXPORT std::string logaddrMainToString(const unsigned char (&addr)[8]);
ZELTA_EXPORT void logaddrMainCpy(unsigned char* dst, const unsigned char* src);
ZELTA_EXPORT bool logaddrMainEq(const unsigned char* a, const unsigned char* b);
// "00:1A:2B:3C:4D:5E".
ZELTA_EXPORT std::string macToString(const unsigned char* mac);
// Dotted-decimal IPv4 only; logs a WARNING and returns false otherwise.
ZELTA_EXPORT bool isValidIpAddress(const std::string& text);
ZELTA_EXPORT std::string ntop(const in_addr* addr);
ZELTA_EXPORT std::string ntop(const sockaddr_in* sa);

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

// ---- Debounce

// Runs a callback once a burst of onChange() calls has settled: each call
// (re)arms a countdown of 2 one-second ticks; when it runs out, the callback
// runs once on a worker thread. A change that arrives while the callback runs
// is not followed by another call. The object must outlive its worker.
class ZELTA_EXPORT DelayedExecution {
 public:
  DelayedExecution();
  DelayedExecution(const DelayedExecution&) = delete;
  DelayedExecution& operator=(const DelayedExecution&) = delete;

  // Replaces the callback; a counting worker calls the new one.
  void setCallback(std::function<void()> cb);
  // Sets the countdown to 2 ticks and starts a worker unless one runs.
  // REQUIRES: a callback is set before the countdown runs out; an empty one
  // throws std::bad_function_call on the worker, which ends the process.
  void onChange();
  // The worker's body; meant only as the thread's entry.
  void workerCode();
  // True from the start of a worker until its callback has returned.
  bool isRunning() const { return running.load(); }

 private:
  std::mutex callbackMutex;
  std::function<void()> callback;
  std::atomic<bool> running{false};
  std::atomic<int> ticks{0};
};

// ---- Network interfaces

// One IPv4 interface: address and mask in network byte order, and the
// hardware address (zeros when it cannot be read).
struct Iface {
  in_addr address{};
  in_addr netmask{};
  uint8_t mac[6] = {0, 0, 0, 0, 0, 0};
};

// The IPv4 interfaces by name; an interface with several addresses holds the
// last one listed. Empty (with a red trace marker) when the list cannot be read.
ZELTA_EXPORT std::map<std::string, Iface> getIfacesInfo();
// Copies the 6-byte hardware address of `ifname` into `mac`. False, with
// `mac` untouched, when the interface is unknown or the name has 16 or more
// characters.
ZELTA_EXPORT bool getMacAddress(uint8_t* mac, const std::string& ifname);

}  // namespace Common
}  // namespace Quorvel::Kvan

#endif  // ZELTA_COMMON_H_
