// The Net-SNMP agent inside the host process, a master on its own port or an
// AgentX subagent: set-up from the agent's options, one turn of the request
// loop, and shut-down.
//
// Net-SNMP keeps global state, so one engine runs per process at a time; a
// stopped engine can be initialised again. Every Net-SNMP call happens on the
// agent thread (the thread that calls initialize, serveOnce and shutdown),
// with the library lock held. Other threads take the same lock before they
// touch Net-SNMP state or an entry's agent-side data.
#ifndef ZELTA_SRC_SNMP_AGENTENGINE_H_
#define ZELTA_SRC_SNMP_AGENTENGINE_H_

#include <memory>
#include <string>
#include <vector>

#include "base/liblock.h"
#include "zelta/snmpagent.h"

namespace Quorvel::Kvan::SNMP {

class DynMibTable;
class MibEntry;
class ScalarIndex;

// A subagent registers with a master agent (Options::agentxMaster) instead of
// opening a port.
inline bool isSubagent(const SNMPAgent::Options& options) { return !options.agentxMaster.empty(); }

// Runs Net-SNMP's agent: set-up, one turn of the request loop, shut-down.
class AgentEngine {
 public:
  AgentEngine();
  // Shuts the agent down if it is still initialised.
  ~AgentEngine();
  AgentEngine(const AgentEngine&) = delete;
  AgentEngine& operator=(const AgentEngine&) = delete;

  // On the agent thread: sets Net-SNMP up from `options` (the port, the
  // communities and the v3 user, the engine's identity and its state file,
  // the system group, the AgentX role; notifications are not its business),
  // registers the standard groups and `entries` (an entry Net-SNMP refuses
  // is logged and skipped) and opens the port. False when the port cannot be
  // opened (the caller logs it) or another engine runs in the process
  // (WARNING line); everything is then cleaned up, so a later call can
  // succeed. The entries stay owned by the
  // caller and must live until shutdown().
  // A subagent registers no standard group and opens no port: it connects
  // to its master here, or keeps trying from serveOnce() when the master is
  // not there: a master that is away does not fail it.
  // `keys`, when given, names each entry (its parameter's key) in the ERROR
  // line of an entry that cannot be published.
  bool initialize(const SNMPAgent::Options& options, const std::vector<MibEntry*>& entries,
                  const std::vector<const std::string*>* keys = nullptr);
  // One loop turn: waits up to `maxSeconds` for a request without holding the
  // lock, then processes what arrived, runs due alarms and outstanding
  // requests. Returns at once when not initialised.
  void serveOnce(int maxSeconds);
  // Unregisters the entries and shuts Net-SNMP's agent down. Harmless when
  // not initialised.
  void shutdown();
  // Makes a waiting serveOnce() return at once. Any thread.
  void wakeUp();

  // Drops an entry that is being destroyed from the running engine's list.
  static void forgetEntry_nolock(MibEntry* entry) REQUIRES(libraryMutex());

  // Subagent role: true while the master holds our registrations. Any thread.
  static bool isConnectedToMaster();
  // Entries registered by the last successful initialize(): the tables and
  // other objects, then the scalars in OID order.
  std::vector<MibEntry*> registeredEntries() const;

 private:
  void cleanUp_nolock() REQUIRES(libraryMutex());

  bool initialized GUARDED_BY(libraryMutex()) = false;
  std::vector<DynMibTable*> registered GUARDED_BY(libraryMutex());  // the tables; the index holds the scalars
  const std::unique_ptr<ScalarIndex> scalars PT_GUARDED_BY(libraryMutex());
  std::string ownedTempDir GUARDED_BY(libraryMutex());
  int wakePipe[2] = {-1, -1};
};

}  // namespace Quorvel::Kvan::SNMP

#endif  // ZELTA_SRC_SNMP_AGENTENGINE_H_
