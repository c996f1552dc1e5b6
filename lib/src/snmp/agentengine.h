// The Net-SNMP agent inside the host process, a master on its own port or an
// AgentX subagent: set-up from in-code options, one turn of the request loop,
// and shut-down.
//
// Net-SNMP keeps global state, so one engine runs per process at a time; a
// stopped engine can be initialised again. Every Net-SNMP call happens on the
// agent thread (the thread that calls initialize, serveOnce and shutdown),
// with agentLock() held. Other threads take the same lock before they touch
// Net-SNMP state or an entry's agent-side data.
#ifndef ZELTA_SRC_SNMP_AGENTENGINE_H_
#define ZELTA_SRC_SNMP_AGENTENGINE_H_

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Quorvel::Kvan::SNMP {

class MibEntry;
class ScalarIndex;

// What the agent serves and to whom. Applied anew by every initialize().
struct AgentConfig {
  // IPv4 address to listen on; "" listens on all IPv4 interfaces.
  std::string listenAddress;
  // UDP port.
  int port = 161;
  // Community for reads (SNMPv1 and v2c).
  std::string roCommunity = "public";
  // Community for reads and writes; SNMPClient uses "vorpal" too.
  std::string rwCommunity = "vorpal";
  // Optional SNMPv3 read-write user with SHA authentication and AES privacy;
  // empty = none. Net-SNMP wants passphrases of at least 8 characters. With
  // no privacy passphrase the user authenticates only.
  std::string v3User;
  std::string v3AuthPass;
  std::string v3PrivPass;
  // SNMPv3 engine ID as text; empty = Net-SNMP's default.
  std::string engineId;
  // The file that keeps the engine ID and snmpEngineBoots over restarts
  // (snmp/enginestate.h); empty = none: with a v3 user, every start then
  // takes a new random engine ID.
  std::string engineStateFile;
  // Source addresses or prefixes ("10.0.0.0/8") each community and the v3
  // user are accepted from; empty = any.
  std::vector<std::string> roSources;
  std::vector<std::string> rwSources;
  std::vector<std::string> v3Sources;
  // Whether SNMPv2-MIB's system group (sysDescr, sysObjectID, sysUpTime, ...)
  // and sysORTable are served, and its texts (empty = Net-SNMP's defaults).
  bool systemGroup = true;
  std::string sysDescr;
  std::string sysName;
  std::string sysContact;
  std::string sysLocation;
  // Directory for Net-SNMP's persistent state; "" = a private temporary
  // directory, removed by shutdown(). Nothing is written there in practice,
  // since persistence is switched off.
  std::string persistentDir;
  // AgentX subagent role: the master agent's AgentX address (a Unix socket
  // path, or "tcp:HOST:PORT"); "" serves SNMP on the UDP port above. A
  // subagent opens no port and registers no standard group: the master
  // answers the managers, checks their communities and serves those groups.
  std::string agentxMaster;
  // Seconds between pings of the master, and between attempts to reach it
  // while it is away (at least 1).
  int agentxPingSeconds = 5;

  bool isSubagent() const { return !agentxMaster.empty(); }
};

// Runs Net-SNMP's agent: set-up, one turn of the request loop, shut-down.
class AgentEngine {
 public:
  AgentEngine();
  // Shuts the agent down if it is still initialised.
  ~AgentEngine();
  AgentEngine(const AgentEngine&) = delete;
  AgentEngine& operator=(const AgentEngine&) = delete;

  // On the agent thread: sets Net-SNMP up from `config`, registers the
  // standard groups and `entries` (an entry Net-SNMP refuses is logged and
  // skipped) and opens the port. False when the port cannot be opened or
  // another engine runs in the process (WARNING line); everything is then
  // cleaned up, so a later call can succeed. The entries stay owned by the
  // caller and must live until shutdown().
  // A subagent registers no standard group and opens no port: it connects
  // to its master here, or keeps trying from serveOnce() when the master is
  // not there: a master that is away does not fail it.
  // `keys`, when given, names each entry (its parameter's key) in the ERROR
  // line of an entry that cannot be published.
  bool initialize(const AgentConfig& config, const std::vector<MibEntry*>& entries,
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
  // REQUIRES: agent lock held.
  static void forgetEntry_nolock(MibEntry* entry);

  bool isInitialized() const { return initialized; }
  // Subagent role: true while the master holds our registrations. Any thread.
  static bool isConnectedToMaster();
  // Entries registered by the last successful initialize(): the tables and
  // other objects, then the scalars in OID order.
  std::vector<MibEntry*> registeredEntries() const;

 private:
  void cleanUp_nolock();

  bool initialized = false;
  std::vector<MibEntry*> registered;  // all but the scalars, which the index holds
  std::unique_ptr<ScalarIndex> scalars;
  std::string ownedTempDir;
  int wakePipe[2] = {-1, -1};
};

// Process-wide lock held while Net-SNMP state is touched or a request is
// processed (not while waiting for packets). Recursive, so that hooks run
// inside request processing may call back into the library. It is the
// library's one lock (libraryLock()), so parameters and the agent never
// wait for each other in two orders.
std::recursive_mutex& agentLock();

}  // namespace Quorvel::Kvan::SNMP

#endif  // ZELTA_SRC_SNMP_AGENTENGINE_H_
