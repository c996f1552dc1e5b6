// A minimal SNMPv2c GET client over a connected loopback UDP socket, for the
// benchmarks: it measures the agent, not a client library.
#ifndef ZELTA_BENCH_GET_CLIENT_H_
#define ZELTA_BENCH_GET_CLIENT_H_

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "../tests/ber.h"
#include "../tests/loopback.h"

namespace zelta_bench {

class GetClient {
 public:
  GetClient(int port, const char* oid) : fd(zelta_test::connectedSocket(port)), oids{oid} {}
  ~GetClient() {
    if (fd >= 0) close(fd);
  }
  GetClient(const GetClient&) = delete;
  GetClient& operator=(const GetClient&) = delete;

  // One GET of the client's OID and its answer; false after a second without one.
  bool get() { return get(oids); }
  // One GET of `names` and its answer; false after a second without one.
  bool get(const std::vector<std::string>& names) {
    const std::string packet = zelta_test::getRequest(names, ++requestId);
    if (fd < 0 || send(fd, packet.data(), packet.size(), 0) < 0) return false;
    pollfd p{fd, POLLIN, 0};
    char reply[8192];
    return poll(&p, 1, 1000) == 1 && recv(fd, reply, sizeof reply, 0) > 0;
  }

 private:
  int fd;
  std::vector<std::string> oids;
  uint32_t requestId = 0;
};

}  // namespace zelta_bench

#endif  // ZELTA_BENCH_GET_CLIENT_H_
