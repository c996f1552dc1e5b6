// The AgentX subagent role of the engine: Net-SNMP's options for it, and a
// watch on the session to the master agent that logs each loss and each
// return once, in place of Net-SNMP's own lines.
//
// Net-SNMP does the work: it registers every object with the master, pings
// it, and after a loss tries again every ping interval, registering
// everything anew. Everything here runs on the agent thread with the library
// lock held.
#ifndef ZELTA_SRC_SNMP_AGENTXLINK_H_
#define ZELTA_SRC_SNMP_AGENTXLINK_H_

#include "base/liblock.h"
#include "zelta/snmpagent.h"

struct netsnmp_large_fd_set_s;

namespace Quorvel::Kvan::SNMP::agentx {

// Default-store options of the role (or, for a master, the ones it must not
// inherit from an earlier subagent start). Before init_agent.
void setOptions(const SNMPAgent::Options& options) REQUIRES(libraryMutex());
// Sets the ping interval and watches the session to the master. After
// init_agent and before init_snmp, which makes the first attempt.
void watch(const SNMPAgent::Options& options) REQUIRES(libraryMutex());
// After init_snmp: tells once that the master is not there yet.
void started() REQUIRES(libraryMutex());
// Before snmp_shutdown: the session closes without a loss being told.
void unwatch() REQUIRES(libraryMutex());
// True while the master holds our registrations. Any thread; takes the
// library lock.
bool isConnected();
// Net-SNMP passes each request from the master to the agent, and the answer
// back, through internal sessions of its own, each with a pipe. Sets in `fds`
// (cleared first) the pipes that hold something, and says whether any does.
bool queuedInside(netsnmp_large_fd_set_s* fds) REQUIRES(libraryMutex());
// Net-SNMP's own lines about the master session, which the watch replaces.
bool isSessionLine(const char* message);

}  // namespace Quorvel::Kvan::SNMP::agentx

#endif  // ZELTA_SRC_SNMP_AGENTXLINK_H_
