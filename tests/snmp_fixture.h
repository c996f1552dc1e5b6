// Test fixture for the SNMP agent: an engine on a free loopback port, served
// by a thread of the test's own, and the Net-SNMP command-line tools run with
// a hard time limit.
#ifndef ZELTA_TESTS_SNMP_FIXTURE_H_
#define ZELTA_TESTS_SNMP_FIXTURE_H_

#include <arpa/inet.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "../lib/src/agentengine.h"
#include "zelta/mibtypes.h"
#include "zelta/tabledef.h"

namespace zelta_test {

using namespace Quorvel::Kvan;
using namespace Quorvel::Kvan::SNMP;

// A loopback UDP port nobody uses right now: bind to port 0 and read it back.
inline int freeUdpPort() {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  int port = -1;
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
    port = ntohs(addr.sin_port);
  if (fd >= 0) close(fd);
  return port;
}

inline int removeOne(const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }

// Where the tools keep their own state (they create files there), removed at
// exit. Never freed, so that the exit handler can still read it.
inline const std::string& toolStateDir() {
  static const std::string* dir = [] {
    char pattern[] = "/tmp/zelta-snmp-tools-XXXXXX";
    auto* made = new std::string(mkdtemp(pattern) != nullptr ? pattern : "");
    if (!made->empty()) std::atexit([] { nftw(toolStateDir().c_str(), removeOne, 8, FTW_DEPTH | FTW_PHYS); });
    return made;
  }();
  return *dir;
}

struct ToolResult {
  int exitCode = -1;
  std::string out;  // standard output and error together
};

// Runs one tool under `timeout 10`, without a shell, with no MIB files, and
// waits for that child by its PID.
inline ToolResult runTool(const std::vector<std::string>& args) {
  const std::string& stateDir = toolStateDir();
  // Requests and answers travel through the kernel, which ThreadSanitizer
  // does not see; the agent handles requests under the agent lock. Taking it
  // once before and once after the tool orders what the test did before
  // before the handling, and the handling before what the test reads after.
  { std::lock_guard<std::recursive_mutex> before(agentLock()); }
  std::vector<std::string> full{"timeout", "10"};
  full.insert(full.end(), args.begin(), args.end());
  int fds[2];
  ToolResult result;
  if (pipe(fds) != 0) return result;
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 1);
    dup2(fds[1], 2);
    close(fds[0]);
    close(fds[1]);
    setenv("MIBS", "", 1);
    setenv("SNMPCONFPATH", stateDir.c_str(), 1);
    setenv("SNMP_PERSISTENT_DIR", stateDir.c_str(), 1);
    std::vector<char*> argv;
    for (std::string& a : full) argv.push_back(a.data());
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(fds[1]);
  char buf[4096];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0) result.out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  { std::lock_guard<std::recursive_mutex> handled(agentLock()); }  // see above
  return result;
}

// SNMP error-status names as the tools print them, by number.
inline int errorStatus(const std::string& out) {
  static const std::map<std::string, int> names{{"tooBig", 1},
                                                {"noSuchName", 2},
                                                {"badValue", 3},
                                                {"readOnly", 4},
                                                {"genError", 5},
                                                {"noAccess", 6},
                                                {"wrongType", 7},
                                                {"wrongLength", 8},
                                                {"wrongEncoding", 9},
                                                {"wrongValue", 10},
                                                {"noCreation", 11},
                                                {"inconsistentValue", 12},
                                                {"resourceUnavailable", 13},
                                                {"commitFailed", 14},
                                                {"undoFailed", 15},
                                                {"authorizationError", 16},
                                                {"notWritable", 17},
                                                {"inconsistentName", 18}};
  size_t at = out.find("Reason: ");
  if (at == std::string::npos) return 0;
  std::string word;
  for (size_t i = at + 8; i < out.size() && out[i] != ' ' && out[i] != '\n'; ++i)
    if (out[i] != '(' && out[i] != ')') word += out[i];
  auto it = names.find(word);
  return it == names.end() ? -1 : it->second;
}

// One change seen by a listener.
struct Change {
  std::string reason;
  int action;
  int column;
  RowIdx row;
  bool operator==(const Change& o) const {
    return reason == o.reason && action == o.action && column == o.column && row == o.row;
  }
};

inline std::ostream& operator<<(std::ostream& os, const Change& c) {
  return os << "{" << c.reason << ", " << c.action << ", " << c.column << ", " << Common::flatten(c.row) << "}";
}

// Stands in for Param: answers fill/validate as told, records every change
// and deletes the ExtraInfo it is given, as Param does.
class RecordingListener final : public IChangeListener {
 public:
  bool fill(Variant& /*value*/, const ExtraInfo* info) override {
    if (fillThrows) throw std::runtime_error("filler failed");
    fills.push_back(info != nullptr ? Change{"fill", info->action, info->column, info->rowIdx}
                                    : Change{"fill", 0, 0, {}});
    return fillResult;
  }
  bool validate(const Variant& proposed, const ExtraInfo* /*info*/) override {
    ++validations;
    return !validator || validator(proposed);
  }
  void onChange(const std::string& reason, const ExtraInfo* info) override {
    changes.push_back(info != nullptr ? Change{reason, info->action, info->column, info->rowIdx}
                                      : Change{reason, 0, 0, {}});
    delete info;
  }

  bool fillResult = true;
  bool fillThrows = false;
  std::function<bool(const Variant&)> validator;
  int validations = 0;
  std::vector<Change> fills;
  std::vector<Change> changes;
};

// Starts an engine on 127.0.0.1 with the entries of the test, served by a
// thread of the fixture until TearDown.
class AgentTest : public ::testing::Test {
 protected:
  bool startAgent(const std::vector<MibEntry*>& entries, AgentConfig config = AgentConfig()) {
    port = freeUdpPort();
    config.listenAddress = "127.0.0.1";
    config.port = port;
    auto started = std::make_shared<std::promise<bool>>();
    std::future<bool> ready = started->get_future();
    stopFlag = false;
    server = std::thread([this, entries, config, started] {
      bool ok = engine.initialize(config, entries);
      started->set_value(ok);
      // Bounded in time too, should a test never stop it.
      auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(10);
      while (ok && !stopFlag && std::chrono::steady_clock::now() < deadline) engine.serveOnce(1);
      engine.shutdown();
    });
    bool ok = ready.get();
    if (!ok) server.join();
    return ok;
  }
  void stopAgent() {
    if (!server.joinable()) return;
    stopFlag = true;
    engine.wakeUp();
    server.join();
  }
  void TearDown() override { stopAgent(); }

  std::string target() const { return "127.0.0.1:" + std::to_string(port); }
  // A tool call with the common options; `version` is "1" or "2c".
  ToolResult tool(const std::string& name, const std::string& version, const std::string& community,
                  std::vector<std::string> rest) {
    std::vector<std::string> args{name, "-v", version, "-c", community, "-On", "-Oe", "-t", "1", "-r", "0", target()};
    args.insert(args.end(), rest.begin(), rest.end());
    return runTool(args);
  }
  ToolResult get(const std::string& version, const std::vector<std::string>& oids) {
    return tool("snmpget", version, "public", oids);
  }
  ToolResult set(const std::string& version, const std::vector<std::string>& triples) {
    return tool("snmpset", version, "vorpal", triples);
  }

  AgentEngine engine;
  std::thread server;
  std::atomic<bool> stopFlag{false};
  int port = 0;
};

}  // namespace zelta_test

#endif  // ZELTA_TESTS_SNMP_FIXTURE_H_
