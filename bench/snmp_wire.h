// What the SNMP benchmarks say on the wire: a minimal SNMPv2c GET client and
// GETBULK walker over a UDP socket, and snmpbulkwalk runs counted by their
// output lines.
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

// One BER element read at `p`, at most up to `end`: its tag and content.
struct Element {
  int tag = 0;
  const unsigned char* begin = nullptr;
  const unsigned char* end = nullptr;
};
inline bool readElement(const unsigned char*& p, const unsigned char* end, Element& out) {
  if (end - p < 2) return false;
  out.tag = *p++;
  size_t length = *p++;
  if (length & 0x80) {
    int bytes = static_cast<int>(length & 0x7f);
    if (bytes > 4 || end - p < bytes) return false;
    for (length = 0; bytes-- > 0;) length = length << 8 | *p++;
  }
  if (static_cast<size_t>(end - p) < length) return false;
  out.begin = p;
  out.end = p += length;
  return true;
}

// Varbinds of a walk of `root` by GETBULKs of 25 repetitions, as a manager
// that keeps the values instead of printing them walks: what the agent
// serves, without the client's per-line work. -1 when an answer is missing
// or malformed.
inline long leanBulkwalk(int port, const char* root) {
  const int fd = zelta_test::connectedSocket(port);
  if (fd < 0) return -1;
  const std::string rootOid = zelta_test::berOid(root);
  const std::string prefix = rootOid.substr(2);  // the content of a short OID
  std::string next = rootOid;
  long varbinds = 0;
  std::vector<unsigned char> reply(65536);
  for (uint32_t id = 1; id < 1000000; ++id) {
    using zelta_test::berInt, zelta_test::tlv;
    const std::string packet =
        tlv(0x30, berInt(1) + tlv(0x04, "public") +
                      tlv(0xA5, berInt(id) + berInt(0) + berInt(25) + tlv(0x30, tlv(0x30, next + tlv(0x05, "")))));
    pollfd p{fd, POLLIN, 0};
    ssize_t n = -1;
    if (send(fd, packet.data(), packet.size(), 0) >= 0 && poll(&p, 1, 1000) == 1)
      n = recv(fd, reply.data(), reply.size(), 0);
    // Message, version, community, response PDU, request ID, error status
    // and index, varbind list.
    const unsigned char* at = reply.data();
    const unsigned char* end = at + (n > 0 ? n : 0);
    Element message, version, community, pdu, requestId, status, index, list;
    bool ok = readElement(at, end, message) && message.tag == 0x30;
    at = message.begin;
    ok = ok && readElement(at, message.end, version) && readElement(at, message.end, community) &&
         readElement(at, message.end, pdu) && pdu.tag == 0xA2;
    at = pdu.begin;
    ok = ok && readElement(at, pdu.end, requestId) && readElement(at, pdu.end, status) &&
         readElement(at, pdu.end, index) && readElement(at, pdu.end, list) && status.end - status.begin == 1 &&
         *status.begin == 0 && list.begin != list.end;
    if (!ok) break;
    for (at = list.begin; at != list.end;) {
      Element binding, name, value;
      const unsigned char* inner = nullptr;
      if (!readElement(at, list.end, binding) || !readElement(inner = binding.begin, binding.end, name) ||
          !readElement(inner, binding.end, value)) {
        close(fd);
        return -1;
      }
      const std::string content(name.begin, name.end);
      // Past the subtree, or the end of the agent's view: the walk is done.
      if (value.tag == 0x82 || content.compare(0, prefix.size(), prefix) != 0) {
        close(fd);
        return varbinds;
      }
      ++varbinds;
      next = tlv(0x06, content);
    }
  }
  close(fd);
  return -1;
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
