// Loopback addresses and free UDP ports for tests, benchmarks and fuzzers:
// they only ever talk to 127.0.0.1, on a port nobody else holds.
#ifndef ZELTA_TESTS_LOOPBACK_H_
#define ZELTA_TESTS_LOOPBACK_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

namespace zelta_test {

// 127.0.0.1:port.
inline sockaddr_in loopback(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return addr;
}

// A loopback UDP port nobody uses right now: bind to port 0 and read it back.
inline int freeUdpPort() {
  int fd = socket(AF_INET, SOCK_DGRAM, 0), port = -1;
  sockaddr_in addr = loopback(0);
  socklen_t len = sizeof addr;
  auto* raw = reinterpret_cast<sockaddr*>(&addr);
  if (bind(fd, raw, len) == 0 && getsockname(fd, raw, &len) == 0) port = ntohs(addr.sin_port);
  close(fd);
  return port;
}

// A UDP socket connected to 127.0.0.1:port, or -1.
inline int connectedSocket(int port) {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) return -1;
  sockaddr_in addr = loopback(port);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

}  // namespace zelta_test

#endif  // ZELTA_TESTS_LOOPBACK_H_
