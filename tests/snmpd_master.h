// Debian's snmpd as the AgentX master of tests and benchmarks: a configuration
// of its own (-C -c, no system file) in a temporary directory, with its state
// there too, a free UDP port on 127.0.0.1, communities public (read) and
// vorpal (read-write), and an AgentX socket in the directory or on a loopback
// TCP port. Stopped by its PID.
#ifndef ZELTA_TESTS_SNMPD_MASTER_H_
#define ZELTA_TESTS_SNMPD_MASTER_H_

#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "loopback.h"

namespace zelta_test {

constexpr char kSnmpd[] = "/usr/sbin/snmpd";

// A loopback TCP port nobody listens on right now.
inline int freeTcpPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0), port = -1;
  sockaddr_in addr = loopback(0);
  socklen_t len = sizeof addr;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
    port = ntohs(addr.sin_port);
  close(fd);
  return port;
}

class SnmpdMaster {
 public:
  // `tcp`: AgentX on a loopback TCP port rather than a Unix socket. `extra`:
  // more configuration lines.
  explicit SnmpdMaster(bool tcp = false, const std::vector<std::string>& extra = {}) : udpPort(freeUdpPort()) {
    char pattern[] = "/tmp/zelta-snmpd-XXXXXX";
    if (mkdtemp(pattern) != nullptr) dir = pattern;
    address = tcp ? "tcp:127.0.0.1:" + std::to_string(freeTcpPort()) : dir + "/agentx";
    std::string conf = "master agentx\nagentXSocket " + address +
                       "\nagentaddress udp:127.0.0.1:" + std::to_string(udpPort) +
                       "\nrocommunity public 127.0.0.1\nrwcommunity vorpal 127.0.0.1\n";
    for (const std::string& line : extra) conf += line + "\n";
    if (FILE* f = fopen((dir + "/snmpd.conf").c_str(), "w")) {
      fputs(conf.c_str(), f);
      fclose(f);
    }
    mkdir((dir + "/state").c_str(), 0700);  // not the directory of snmpd.conf: snmpd would overwrite it
  }
  ~SnmpdMaster() {
    stop(SIGTERM);
    if (!dir.empty()) nftw(dir.c_str(), removeOne, 8, FTW_DEPTH | FTW_PHYS);
  }
  SnmpdMaster(const SnmpdMaster&) = delete;
  SnmpdMaster& operator=(const SnmpdMaster&) = delete;

  static bool installed() { return access(kSnmpd, X_OK) == 0; }

  // Starts snmpd (again) and waits until it listens on both ends; false
  // when it did not within 10 s.
  bool start() {
    if (dir.empty() || pid > 0) return false;
    // Everything the child needs is made before fork: only exec follows it.
    std::vector<std::string> args{kSnmpd, "-f",   "-Lf", dir + "/snmpd.log", "-C", "-c", dir + "/snmpd.conf",
                                  "-I",   "-smux"};
    std::vector<std::string> env{"SNMP_PERSISTENT_DIR=" + dir + "/state", "MIBS="};
    std::vector<char*> argv, envp;
    for (std::string& a : args) argv.push_back(a.data());
    for (std::string& e : env) envp.push_back(e.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    pid = fork();
    if (pid == 0) {
      int devnull = open("/dev/null", O_RDWR);
      dup2(devnull, 0), dup2(devnull, 1), dup2(devnull, 2);
      execve(argv[0], argv.data(), envp.data());
      _exit(127);
    }
    for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10); std::chrono::steady_clock::now() < end;
         std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
      if (pid <= 0 || waitpid(pid, nullptr, WNOHANG) != 0) break;  // it gave up
      if (listening()) return true;
    }
    stop(SIGKILL);
    return false;
  }
  // Sends `signal` and reaps the process.
  void stop(int signal = SIGTERM) {
    if (pid <= 0) return;
    kill(pid, signal);
    waitpid(pid, nullptr, 0);
    pid = -1;
  }

  bool running() const { return pid > 0; }
  int port() const { return udpPort; }
  std::string target() const { return "127.0.0.1:" + std::to_string(udpPort); }
  // The AgentX address a subagent is given.
  const std::string& agentx() const { return address; }

 private:
  static int removeOne(const char* path, const struct stat*, int, FTW*) { return ::remove(path); }
  // The UDP port is taken and the AgentX socket accepts.
  bool listening() const {
    int udp = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in at = loopback(udpPort);
    const bool taken = bind(udp, reinterpret_cast<sockaddr*>(&at), sizeof at) != 0 && errno == EADDRINUSE;
    close(udp);
    if (!taken) return false;
    int fd;
    bool accepts;
    if (address.rfind("tcp:", 0) == 0) {
      fd = socket(AF_INET, SOCK_STREAM, 0);
      sockaddr_in tcp = loopback(std::stoi(address.substr(address.rfind(':') + 1)));
      accepts = connect(fd, reinterpret_cast<sockaddr*>(&tcp), sizeof tcp) == 0;
    } else {
      fd = socket(AF_UNIX, SOCK_STREAM, 0);
      sockaddr_un local{};
      local.sun_family = AF_UNIX;
      snprintf(local.sun_path, sizeof local.sun_path, "%s", address.c_str());
      accepts = connect(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) == 0;
    }
    close(fd);
    return accepts;
  }

  int udpPort;
  std::string dir, address;
  pid_t pid = -1;
};

}  // namespace zelta_test

#endif  // ZELTA_TESTS_SNMPD_MASTER_H_
