// The engine as an AgentX subagent: options and the watch on the master.
#include "snmp/snmpinternal.h"
// clang-format off
#include <net-snmp/agent/agent_callbacks.h>
// clang-format on

#include <poll.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "snmp/agentengine.h"
#include "snmp/agentxlink.h"
#include "zelta/logging.h"

// Net-SNMP's own subagent state (libnetsnmpagent exports it; no installed
// header declares it).
extern "C" {
extern netsnmp_session* main_session;
extern netsnmp_session* agentx_callback_sess;
extern netsnmp_session* callback_master_sess;
extern int callback_master_num;
int subagent_startup(int majorID, int minorID, void* serverarg, void* clientarg);
int handle_subagent_response(int op, netsnmp_session* session, int reqid, netsnmp_pdu* pdu, void* magic);
}

namespace Quorvel::Kvan::SNMP::agentx {

namespace {

// Net-SNMP 5.9 sets its subagent up once per process: init_agent does it only
// while an internal count is zero, and only a shut-down made while connected
// to the master sets the count back. After a shut-down without master the
// next start would never connect. True while that count is not zero.
bool netSnmpSubagentSetUp GUARDED_BY(libraryMutex()) = false;

// Net-SNMP's agent roles (snmpd.h, not installed).
constexpr int kMasterAgent = 0;
constexpr int kSubAgent = 1;

struct Watch {
  bool watching = false;
  bool everConnected = false;
  std::string master;
  int pingSeconds = 0;
};
Watch watchState GUARDED_BY(libraryMutex());
bool connected GUARDED_BY(libraryMutex()) = false;

// Net-SNMP's sessions between its subagent and its agent: a request from the
// master goes to the agent through the pipe of one, the answer back through
// the other's. Taken after init_snmp, used only while Net-SNMP still has them.
netsnmp_session* internalSessions[2] GUARDED_BY(libraryMutex()) = {nullptr, nullptr};

// Net-SNMP splits a registration around the ones that lie inside it, and
// after a loss registers each piece with the master again: all but the first
// are refused as duplicates, each with an ERROR line. Pieces of a
// registration already sent are marked as sent.
void markRepeatedPieces() {
  std::set<std::tuple<std::vector<oid>, int, int, oid>> seen;
  auto visit = [&](netsnmp_subtree* piece) {
    if (piece->namelen <= 1) return;
    const bool first = seen.emplace(std::vector<oid>(piece->name_a, piece->name_a + piece->namelen), piece->priority,
                                    piece->range_subid, piece->range_ubound)
                           .second;
    if (!first) piece->flags |= SUBTREE_ATTACHED;
  };
  for (netsnmp_subtree* piece = netsnmp_subtree_find_first(""); piece != nullptr; piece = piece->next) {
    visit(piece);
    for (netsnmp_subtree* child = piece->children; child != nullptr; child = child->children) visit(child);
  }
}

// Called when a session is open, right before Net-SNMP registers everything:
// like every call of Net-SNMP's, with the library lock held.
int onSessionStart(int /*major*/, int /*minor*/, void* /*serverarg*/, void* /*clientarg*/) {
  libraryMutex().assertHeld();
  markRepeatedPieces();
  if (!watchState.watching) return 0;
  connected = true;
  Log["libzelta"].append(INFO, "AgentX: %s the master at %s\n",
                         watchState.everConnected ? "reconnected to" : "connected to", watchState.master.c_str());
  watchState.everConnected = true;
  return 0;
}

int onSessionStop(int /*major*/, int /*minor*/, void* /*serverarg*/, void* /*clientarg*/) {
  libraryMutex().assertHeld();
  if (!watchState.watching || !connected) return 0;
  connected = false;
  Log["libzelta"].append(WARNING, "AgentX: lost the master at %s; trying again every %d s\n", watchState.master.c_str(),
                         watchState.pingSeconds);
  return 0;
}

}  // namespace

void setOptions(const SNMPAgent::Options& config) {
  // Both roles keep their session to the other side under this name (the
  // master its listening session), and shut-down leaves it pointing at the
  // closed session. A subagent would take that for a connection: it would
  // neither send its registrations nor connect.
  main_session = nullptr;
  if (!isSubagent(config)) {
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, kMasterAgent);
    netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL, 0);
    return;
  }
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, kSubAgent);
  netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, config.agentxMaster.c_str());
  // It would warn at every failed attempt; the watch tells it once.
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_NO_CONNECTION_WARNINGS, 1);
}

void watch(const SNMPAgent::Options& config) {
  watchState = Watch{true, false, config.agentxMaster, std::max(1, config.agentxPingSeconds)};
  // With a ping interval Net-SNMP keeps trying to reach a master that is
  // away, at start and after a loss; without one it would try once. Set
  // here, since init_agent sets its own default of 15 s.
  netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL, watchState.pingSeconds);
  // A master that keeps its socket but stops answering holds the agent
  // thread, and host threads waiting for the library lock, for the timeout
  // of each exchange (the default 1 s) times the tries. AgentX runs over a
  // stream, where a retry only repeats the wait: one try. Sessions opened
  // from here on take it (the client's set their own); the next start's
  // initialisation restores Net-SNMP's default.
  netsnmp_ds_set_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_RETRIES, 0);
  if (netSnmpSubagentSetUp) {
    // What init_agent skipped: the session that hands the master's requests
    // to the agent, and the first attempt once the configuration is read.
    agentx_callback_sess = netsnmp_callback_open(callback_master_num, handle_subagent_response, nullptr, nullptr);
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_POST_READ_CONFIG, subagent_startup, nullptr);
  }
  netSnmpSubagentSetUp = true;
  connected = false;
  snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_START, onSessionStart, nullptr);
  snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_STOP, onSessionStop, nullptr);
}

void started() {
  internalSessions[0] = agentx_callback_sess;
  internalSessions[1] = callback_master_sess;
  if (watchState.watching && !connected)
    Log["libzelta"].append(WARNING, "AgentX: no master at %s yet; trying every %d s\n", watchState.master.c_str(),
                           watchState.pingSeconds);
}

void unwatch() {
  if (!watchState.watching) return;
  watchState.watching = false;
  connected = false;
  // snmp_shutdown clears the callbacks themselves. While connected it also
  // resets Net-SNMP's subagent count. It closes every session, the callback
  // session included, whose pointer Net-SNMP would keep and use again.
  if (main_session != nullptr) netSnmpSubagentSetUp = false;
  agentx_callback_sess = nullptr;
  for (netsnmp_session*& session : internalSessions) session = nullptr;
}

bool queuedInside(netsnmp_large_fd_set* fds) {
  NETSNMP_LARGE_FD_ZERO(fds);
  pollfd pipes[2];
  nfds_t count = 0;
  for (netsnmp_session* session : internalSessions) {
    void* handle = session != nullptr ? snmp_sess_pointer(session) : nullptr;
    const netsnmp_transport* transport = handle != nullptr ? snmp_sess_transport(handle) : nullptr;
    if (transport != nullptr && transport->sock >= 0) pipes[count++] = {transport->sock, POLLIN, 0};
  }
  bool any = false;
  if (count > 0 && poll(pipes, count, 0) > 0)
    for (nfds_t i = 0; i < count; ++i)
      if ((pipes[i].revents & POLLIN) != 0) {
        NETSNMP_LARGE_FD_SET(pipes[i].fd, fds);
        any = true;
      }
  return any;
}

bool isConnected() {
  // Taken while the agent thread (re)connects, so that the session and its
  // registrations are seen complete.
  LibraryLockGuard lock(libraryMutex());
  return connected;
}

bool isSessionLine(const char* message) {
  static const char* const kLines[] = {"AgentX master disconnected us",
                                       "AgentX master agent failed to respond to ping"};
  for (const char* line : kLines)
    if (strncmp(message, line, strlen(line)) == 0) return true;
  return strstr(message, "AgentX subagent connected") != nullptr;
}

}  // namespace Quorvel::Kvan::SNMP::agentx
