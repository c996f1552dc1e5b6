// The SNMP agent of the library: a thread of its own that opens a UDP port and
// serves the SNMP object of every published parameter of a ParamManager, with
// the standard snmp, snmpEngine, target, notification and system groups, and
// sends coldStart and change notifications (README, "Notifications"). It
// limits who may talk to it by community, user and source address, and keeps
// its SNMPv3 engine's boots count over restarts (README, "Security"). As an AgentX
// subagent (Options::agentxMaster) it opens no port: it registers the same
// objects with the device's master agent (snmpd with `master agentx`), which
// answers the managers and serves the standard groups itself. It waits for a
// master that is not there yet and comes back to one that restarts.
//
// Thread safety: stop() may be called from any host thread at any time.
// start(), waitForFinish() and the destructor may be called from any host
// thread, but one at a time (the owner's calls). Every MIB callback, and so
// every validator, filler and post-set hook reached over SNMP, runs on the
// agent thread with the library lock held (see param.h). getEntries() is
// filled by the agent thread: read it once isRunning() is true or after
// waitForFinish(). addEntry() belongs to the time before start(). The
// notifyChange() calls may come from any thread at any time. One agent
// runs per process at a time; a second start() while one runs fails with a
// WARNING.
#ifndef ZELTA_SNMPAGENT_H_
#define ZELTA_SNMPAGENT_H_

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "zelta/export.h"
#include "zelta/mibtypes.h"

namespace Quorvel::Kvan {
class ParamManager;

namespace SNMP {

// Where the agent sends its notifications besides the targets a manager
// configures in SNMP-TARGET-MIB and SNMP-NOTIFICATION-MIB. SNMPv2c unless
// v3User is set; SNMPv3 uses SHA authentication and, with a privacy
// passphrase, AES privacy.
struct NotifyTarget {
  std::string address = "127.0.0.1";  // IPv4 address or host name (resolved once, at start)
  int port = 162;                     // UDP port of the receiver
  bool inform = false;                // confirmed (InformRequest) rather than SNMPv2-Trap
  std::string community = "public";   // SNMPv2c community
  std::string v3User;                 // SNMPv3 USM user; "" = SNMPv2c
  std::string v3AuthPassphrase;       // at least 8 characters when v3User is set
  std::string v3PrivPassphrase;       // "" = authNoPriv
  std::string v3EngineId;             // receiver's engine ID in hex ("0x8000..."), needed for v3 informs
  int timeoutMs = 1000;               // an inform's wait for its acknowledgement, per attempt
  int retries = 3;                    // an inform's further attempts after the first
};

// Serves the published parameters of a ParamManager over SNMP.
class ZELTA_EXPORT SNMPAgent {
 public:
  // Who may talk to the agent and what it tells about itself.
  struct Options {
    int port = 161;                           // UDP port to listen on
    std::string listenAddress;                // IPv4 address to bind; "" = all IPv4 interfaces
    std::string roCommunity = "public";       // read-only community; "" = none
    std::string rwCommunity = "vorpal";       // read-write community (the one SNMPClient uses); "" = none
    std::string v3User;                       // SNMPv3 USM user (SHA auth, AES priv); "" = no v3 user
    std::string v3AuthPassphrase;             // at least 8 characters when v3User is set
    std::string v3PrivPassphrase;             // at least 8 characters when v3User is set
    std::string engineId;                     // SNMP engine ID text; "" = Net-SNMP's default
    bool systemGroup = true;                  // serve SNMPv2-MIB system group (sysDescr, sysUpTime, ...)
    std::string sysDescr = "libzelta agent";  // system.sysDescr
    std::string sysName;                      // system.sysName; "" = host name
    std::string sysContact;                   // system.sysContact
    std::string sysLocation;                  // system.sysLocation
    std::string persistentDir;                // where the engine may keep state; "" = a private temporary directory
    std::vector<NotifyTarget> notifyTargets;  // receivers of coldStart and change notifications
    std::string changeNotificationOid;        // snmpTrapOID of change notifications; "" = none are sent
    size_t maxPendingInforms = 256;           // unacknowledged informs kept for retries; the oldest go first
    std::string agentxMaster;                 // AgentX master (socket path, tcp:HOST:PORT) to serve through; "" = port
    int agentxPingSeconds = 5;                // subagent: seconds between pings of the master, and between reconnects
    // Keeps the engine ID and snmpEngineBoots over restarts, so that an SNMPv3
    // message captured before a restart is refused after it (README,
    // "Security"); "" = none: with v3User set, each start then takes a new
    // random engine ID and engineId is not used.
    std::string engineStateFile;
    // Source addresses or prefixes ("192.0.2.7", "10.0.0.0/8") each community
    // and the v3 user are accepted from; empty = any. A request from
    // elsewhere is dropped; an entry that is no IPv4 address or prefix is
    // logged and matches nothing.
    std::vector<std::string> roCommunitySources;
    std::vector<std::string> rwCommunitySources;
    std::vector<std::string> v3UserSources;
  };

  // No I/O: the port is opened by the agent thread.
  SNMPAgent(ParamManager* manager, int port);
  SNMPAgent(ParamManager* manager, const Options& options);
  // The owner calls stop() and waitForFinish() first.
  ~SNMPAgent();
  SNMPAgent(const SNMPAgent&) = delete;
  SNMPAgent& operator=(const SNMPAgent&) = delete;

  // Starts the agent thread and returns at once.
  void start();
  // Asks the loop to end; noticed within one 2-second turn.
  void stop();
  // Joins the agent thread (if any).
  void waitForFinish();
  // True while the request loop runs.
  bool isRunning() const;
  // True once the agent thread has ended: after a stop, or at once when the
  // port could not be opened. False again after start().
  bool hasFinished() const;
  // Subagent role: true while the master holds our objects (registered, and
  // answering pings). Any thread.
  bool isConnectedToMaster() const;

  // Publishes one more object with the next start, besides the manager's
  // parameters. The SNMPInfo keeps owning the entry.
  void addEntry(const std::string& key, MibEntry* entry);
  // What the next start publishes, (key, object): every parameter of the
  // manager with SNMP information and an access other than NOACCESS, in the
  // registry's order, then the entries added with addEntry().
  std::vector<std::pair<std::string, MibEntry*>> publishedEntries() const;
  const std::vector<std::pair<std::string, const MibEntry*>>& getEntries() const;

  // A change the device made itself (front panel, own logic), told to the
  // notification receivers as if a manager had SET it: the object's instance
  // and its value now. Any thread; the value is read at the call and the
  // notification leaves from the agent thread. False, and nothing sent, when
  // the agent does not run, no change notification OID is set, the object has
  // not opted in (MibEntry::setChangeNotification) or it has no such instance.
  // A scalar leaf:
  bool notifyChange(const MibEntry& entry);
  // One cell of a table row:
  bool notifyChange(const DynMibTable& table, const std::vector<unsigned long>& index, unsigned int column);
  // A row's RowStatus now; destroy(6) for a row that no longer exists.
  bool notifyRowStatus(const DynMibTable& table, const std::vector<unsigned long>& index);

 private:
  // The agent thread, the engine it runs and what it serves.
  struct Impl;
  std::unique_ptr<Impl> impl;
};

}  // namespace SNMP
}  // namespace Quorvel::Kvan

#endif  // ZELTA_SNMPAGENT_H_
