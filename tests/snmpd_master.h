// Debian's snmpd as the AgentX master of tests and benchmarks: a configuration
// of its own (-C -c, no system file) and its state in a temporary directory,
// a free UDP port on 127.0.0.1, communities public (read) and vorpal
// (read-write), AgentX on a socket in the directory or on a loopback TCP port,
// and on request the same UDP port on ::1 too. Stopped by its PID.
#ifndef ZELTA_TESTS_SNMPD_MASTER_H_
#define ZELTA_TESTS_SNMPD_MASTER_H_

#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "loopback.h"

namespace zelta_test {

// Starts the program `args` with only `env`, no standard streams, and gone
// with a test that crashes; returns its PID. The child only execs: everything
// is made before fork.
inline pid_t spawnDaemon(std::vector<std::string> args, std::vector<std::string> env) {
  std::vector<char*> argv, envp;
  for (std::string& a : args) argv.push_back(a.data());
  for (std::string& e : env) envp.push_back(e.data());
  argv.push_back(nullptr), envp.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int devnull = open("/dev/null", O_RDWR);
    dup2(devnull, 0), dup2(devnull, 1), dup2(devnull, 2);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  return pid;
}

class SnmpdMaster {
 public:
  explicit SnmpdMaster(bool tcp = false, bool alsoIpv6 = false) : udpPort(freeUdpPort()), ipv6(alsoIpv6) {
    char pattern[] = "/tmp/zelta-snmpd-XXXXXX";
    dir = mkdtemp(pattern) != nullptr ? pattern : "/nonexistent";
    address = dir + "/agentx";
    if (tcp) {  // a port nobody listens on right now
      int fd = socket(AF_INET, SOCK_STREAM, 0);
      sockaddr_in at = loopback(0);
      socklen_t length = sizeof at;
      bind(fd, reinterpret_cast<sockaddr*>(&at), length);
      getsockname(fd, reinterpret_cast<sockaddr*>(&at), &length);
      close(fd);
      tcpPort = ntohs(at.sin_port);
      address = "tcp:127.0.0.1:" + std::to_string(tcpPort);
    }
    writeConfig();
    mkdir((dir + "/state").c_str(), 0700);  // apart from snmpd.conf, which snmpd would overwrite
  }
  ~SnmpdMaster() {
    stop(SIGTERM);
    nftw(dir.c_str(), removeOne, 8, FTW_DEPTH);
  }

  // Starts snmpd (again); false unless it listens within 10 s. The UDP port
  // was free when chosen, but another program may take it before snmpd binds
  // it: snmpd then exits, and the next attempt has another port.
  bool start() {
    for (int attempt = 0; attempt < 4; ++attempt) {
      if (attempt > 0) udpPort = freeUdpPort(), writeConfig();
      pid = spawnDaemon({"/usr/sbin/snmpd", "-f", "-Lf", dir + "/snmpd.log", "-C", "-c", dir + "/snmpd.conf", "-I",
                         "-smux" + skipped},
                        {"SNMP_PERSISTENT_DIR=" + dir + "/state", "MIBS="});
      for (int i = 0; i < 500; ++i) {
        if (waitpid(pid, nullptr, WNOHANG) != 0) {
          pid = -1;
          break;
        }
        if (listening()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
      if (pid > 0) break;  // alive but deaf for 10 s: no port is to blame
    }
    stop(SIGKILL);
    fprintf(stderr, "snmpd did not start; its log:\n%s\n", log().c_str());
    return false;
  }
  // Sends `signal` and reaps the process.
  void stop(int signal) {
    if (pid > 0) kill(pid, signal), waitpid(pid, nullptr, 0);
    pid = -1;
  }

  // Sends snmpd's notifications, and those its subagents send it, to a
  // receiver on `port` of 127.0.0.1 (SNMPv2c traps). Before start().
  void sendTrapsTo(int port) {
    trapPort = port;
    writeConfig();
  }

  // Leaves one of snmpd's own modules out (its objects are then free for a
  // subagent to register). Before start().
  void skipModule(const std::string& module) { skipped += "," + module; }

  bool running() const { return pid > 0; }
  pid_t process() const { return pid; }
  int port() const { return udpPort; }
  std::string target() const { return "127.0.0.1:" + std::to_string(udpPort); }
  const std::string& agentx() const { return address; }  // what a subagent is given

 private:
  void writeConfig() const {
    if (FILE* f = fopen((dir + "/snmpd.conf").c_str(), "w")) {
      fprintf(f, "master agentx\nagentXSocket %s\nagentaddress udp:127.0.0.1:%d", address.c_str(), udpPort);
      if (ipv6) fprintf(f, ",udp6:[::1]:%d\nrwcommunity6 vorpal ::1", udpPort);
      fputs("\nrocommunity public 127.0.0.1\nrwcommunity vorpal 127.0.0.1\n", f);
      if (trapPort != 0) fprintf(f, "trap2sink 127.0.0.1:%d public\n", trapPort);
      fclose(f);
    }
  }
  std::string log() const {
    std::string text;
    if (FILE* f = fopen((dir + "/snmpd.log").c_str(), "r")) {
      char chunk[4096];
      for (size_t n; (n = fread(chunk, 1, sizeof chunk, f)) > 0;) text.append(chunk, n);
      fclose(f);
    }
    return text;
  }
  static int removeOne(const char* path, const struct stat*, int, FTW*) { return ::remove(path); }
  // snmpd opens its AgentX socket last.
  bool listening() const {
    sockaddr_in tcp = loopback(tcpPort);
    sockaddr_un local{};
    local.sun_family = AF_UNIX;
    snprintf(local.sun_path, sizeof local.sun_path, "%s", address.c_str());
    int fd = socket(tcpPort != 0 ? AF_INET : AF_UNIX, SOCK_STREAM, 0);
    const bool accepts = tcpPort != 0 ? connect(fd, reinterpret_cast<sockaddr*>(&tcp), sizeof tcp) == 0
                                      : connect(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) == 0;
    close(fd);
    return accepts;
  }

  int udpPort, tcpPort = 0, trapPort = 0;
  bool ipv6;
  std::string dir, address, skipped;
  pid_t pid = -1;
};

}  // namespace zelta_test

#endif  // ZELTA_TESTS_SNMPD_MASTER_H_
