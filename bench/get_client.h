// A minimal SNMPv2c GET client over a connected loopback UDP socket, for the
// benchmarks: it measures the agent, not a client library.
#ifndef ZELTA_BENCH_GET_CLIENT_H_
#define ZELTA_BENCH_GET_CLIENT_H_

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "../tests/loopback.h"

namespace zelta_bench {

inline std::string tlv(int tag, const std::string& content) {
  std::string out(1, static_cast<char>(tag));
  size_t n = content.size();
  if (n < 128) {
    out += static_cast<char>(n);
  } else {
    std::string bytes;
    for (; n != 0; n >>= 8) bytes.insert(bytes.begin(), static_cast<char>(n & 0xff));
    out += static_cast<char>(0x80 | bytes.size());
    out += bytes;
  }
  return out + content;
}

inline std::string berInt(uint32_t v) {
  std::string bytes;
  do {
    bytes.insert(bytes.begin(), static_cast<char>(v & 0xff));
    v >>= 8;
  } while (v != 0);
  if (static_cast<unsigned char>(bytes[0]) & 0x80) bytes.insert(bytes.begin(), '\0');
  return tlv(0x02, bytes);
}

inline std::string berOid(const char* dotted) {
  std::vector<unsigned long> ids;
  for (const char* p = dotted; *p != '\0';) {
    ids.push_back(strtoul(p, const_cast<char**>(&p), 10));
    if (*p == '.') ++p;
  }
  std::string out(1, static_cast<char>(ids[0] * 40 + ids[1]));
  for (size_t i = 2; i < ids.size(); ++i) {
    std::string sub(1, static_cast<char>(ids[i] & 0x7f));
    for (unsigned long v = ids[i] >> 7; v != 0; v >>= 7) sub.insert(sub.begin(), static_cast<char>(0x80 | (v & 0x7f)));
    out += sub;
  }
  return tlv(0x06, out);
}

class GetClient {
 public:
  GetClient(int port, const char* oid) : fd(zelta_test::connectedSocket(port)), name(berOid(oid)) {}
  ~GetClient() {
    if (fd >= 0) close(fd);
  }
  // One GET and its answer; false after a second without one.
  bool get() {
    std::string pdu = berInt(++requestId) + berInt(0) + berInt(0) + tlv(0x30, tlv(0x30, name + tlv(0x05, "")));
    std::string packet = tlv(0x30, berInt(1) + tlv(0x04, "public") + tlv(0xA0, pdu));
    if (fd < 0 || send(fd, packet.data(), packet.size(), 0) < 0) return false;
    pollfd p{fd, POLLIN, 0};
    char reply[1500];
    return poll(&p, 1, 1000) == 1 && recv(fd, reply, sizeof reply, 0) > 0;
  }

 private:
  int fd;
  std::string name;
  uint32_t requestId = 0;
};

}  // namespace zelta_bench

#endif  // ZELTA_BENCH_GET_CLIENT_H_
