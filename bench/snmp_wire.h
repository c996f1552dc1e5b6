// What the SNMP benchmarks say on the wire: a minimal SNMPv2c GET client over
// a UDP socket, and snmpbulkwalk runs counted by their output lines.
#ifndef ZELTA_BENCH_SNMP_WIRE_H_
#define ZELTA_BENCH_SNMP_WIRE_H_

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
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

// Runs a command without a shell and counts its output lines; -1 on failure.
inline long countOutputLines(std::vector<std::string> args) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    close(fds[1]);
    setenv("MIBS", "", 1);
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(fds[1]);
  long lines = 0;
  char buf[65536];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0)
    for (ssize_t i = 0; i < n; ++i) lines += buf[i] == '\n';
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? lines : -1;
}

// Varbinds of one snmpbulkwalk (25 repetitions per request), or -1.
inline long bulkwalk(int port, const char* oid) {
  return countOutputLines({"timeout", "60", "snmpbulkwalk", "-v2c", "-c", "public", "-Oqn", "-t", "10", "-r", "1",
                           "-Cr25", "127.0.0.1:" + std::to_string(port), oid});
}

// GETs per second of `oid` by one synchronous client, `count` in a row; 0
// when one went unanswered.
inline double getsPerSecond(int port, const char* oid, int count) {
  GetClient client(port, oid);
  auto start = std::chrono::steady_clock::now();
  int answered = 0;
  for (int i = 0; i < count; ++i) answered += client.get() ? 1 : 0;
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return answered == count ? count / seconds : 0;
}

}  // namespace zelta_bench

#endif  // ZELTA_BENCH_SNMP_WIRE_H_
