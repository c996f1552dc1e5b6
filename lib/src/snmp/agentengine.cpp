// The Net-SNMP agent (master or AgentX subagent): in-code configuration, the
// request loop and a shut-down that leaves the process ready for another start.
#include "snmp/snmpinternal.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstring>

#include "base/liblock.h"
#include "base/ratelimit.h"
#include "snmp/agentengine.h"
#include "snmp/agentxlink.h"
#include "snmp/dynmibtable.h"
#include "snmp/enginestate.h"
#include "snmp/scalarindex.h"
#include "snmp/sourcefilter.h"
#include "zelta/logging.h"

// Standard MIB groups of libnetsnmpmibs; their headers are not installed.
extern "C" {
void init_snmp_mib(void);
void init_snmpTargetAddrEntry(void);
void init_snmpTargetParamsEntry(void);
void init_target_counters(void);
void init_snmpNotifyTable(void);
void init_snmpNotifyFilterProfileTable(void);
void init_snmpNotifyFilterTable(void);
void init_system_mib(void);
void init_sysORTable(void);
void init_snmpEngine(void);
// The agent's main session (libnetsnmpagent exports it; no installed header
// declares it).
extern netsnmp_session* main_session;
}

namespace Quorvel::Kvan::SNMP {

namespace {

const char kAppName[] = "libzelta";

// The initialised engine, if any.
AgentEngine* activeEngine GUARDED_BY(libraryMutex()) = nullptr;

// Counts the times a thread other than the agent thread may have read one of
// Net-SNMP's sessions.
unsigned readsElsewhere GUARDED_BY(libraryMutex()) = 0;

// Net-SNMP logs a line for every malformed datagram: alike lines are limited
// to a few per minute, and what was held back is summed up once a minute.
struct NetSnmpLogLimit {
  Mutex mutex ACQUIRED_AFTER(libraryMutex());
  LogRateLimiter limiter GUARDED_BY(mutex){5, std::chrono::minutes(1)};
};

NetSnmpLogLimit& netSnmpLogLimit() {
  static auto* limit = new NetSnmpLogLimit();  // never destroyed: logging may outlive statics
  return *limit;
}

// Logs the summaries that are due now, or, with `all`, every one.
void logSuppressedLines(bool all) {
  std::vector<LogRateLimiter::Summary> due;
  LogRateLimiter::Clock::duration window;
  {
    NetSnmpLogLimit& limit = netSnmpLogLimit();
    MutexLock lock(limit.mutex);
    window = limit.limiter.window();
    due = limit.limiter.takeDue(LogRateLimiter::Clock::now() + (all ? window : LogRateLimiter::Clock::duration()));
  }
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(window).count();
  for (const auto& summary : due)
    Log["libzelta"].append(static_cast<EventType>(summary.level),
                           "Net-SNMP: %u more lines like \"%s\" in the last %lld s were not logged\n",
                           summary.suppressed, summary.kind.c_str(), static_cast<long long>(seconds));
}

// Net-SNMP's log messages go to our channel at the matching level.
int logCallback(int /*major*/, int /*minor*/, void* serverarg, void* /*clientarg*/) {
  const auto* message = static_cast<const snmp_log_message*>(serverarg);
  if (message == nullptr || message->msg == nullptr) return 0;
  EventType level = DEBUG;
  if (message->priority <= LOG_ERR)
    level = ERROR;
  else if (message->priority == LOG_WARNING)
    level = WARNING;
  else if (message->priority <= LOG_INFO)
    level = INFO;
  // Lines the channel drops anyway cost no more than the level check.
  if (level > Log["libzelta"].level.load(std::memory_order_relaxed)) return 0;
  if (agentx::isSessionLine(message->msg)) return 0;
  {
    NetSnmpLogLimit& limit = netSnmpLogLimit();
    MutexLock lock(limit.mutex);
    if (!limit.limiter.admit(message->msg, level, LogRateLimiter::Clock::now())) return 0;
  }
  size_t len = strlen(message->msg);
  bool newline = len > 0 && message->msg[len - 1] == '\n';
  Log["libzelta"].append(level, "Net-SNMP: %s%s", message->msg, newline ? "" : "\n");
  return 0;
}

void installLogging() {
  snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, logCallback, nullptr);
  netsnmp_register_loghandler(NETSNMP_LOGHANDLER_CALLBACK, LOG_DEBUG);
}

// Hands one configuration line to Net-SNMP as if read from a file; it is
// applied by init_snmp.
void remember(const std::string& line) {
  std::vector<char> buf(line.begin(), line.end());
  buf.push_back('\0');
  netsnmp_config_remember(buf.data());
}

// A configuration word: quoted when it holds blanks. Texts with quotes or
// line ends cannot be written as one word and are refused.
bool configWord(const std::string& text, std::string& out) {
  if (text.empty() || text.find_first_of("\"\r\n") != std::string::npos) return false;
  out = text.find_first_of(" \t") == std::string::npos ? text : "\"" + text + "\"";
  return true;
}

// One community line per source the community is accepted from ("default":
// any). A limit whose entries are all unusable leaves the community out, so
// that it is open to nobody rather than to everybody. True when the
// community is accepted from any source.
bool rememberCommunity(const std::string& token, const std::string& community, const std::vector<std::string>& sources,
                       const char* whose) {
  std::string word;
  if (!configWord(community, word)) {
    if (!community.empty())
      Log["libzelta"].append(WARNING, "AgentEngine: %s ignored: it holds quotes or line ends\n", whose);
    return false;
  }
  if (sources.empty()) remember(token + " " + word + " default");
  for (const SourcePrefix& prefix : parseSources(sources, whose)) remember(token + " " + word + " " + prefix.text());
  return sources.empty();
}

// The v3 user's lines; false when there is no usable user.
bool rememberV3User(const SNMPAgent::Options& config) REQUIRES(libraryMutex()) {
  std::string user, auth, priv;
  if (config.v3User.empty()) return false;
  if (!configWord(config.v3User, user) || !configWord(config.v3AuthPassphrase, auth)) {
    Log["libzelta"].append(WARNING,
                           "AgentEngine: SNMPv3 user ignored: it needs a name and an authentication "
                           "passphrase without quotes or line ends\n");
    return false;
  }
  // A host that asked for privacy never gets cleartext instead.
  if (!config.v3PrivPassphrase.empty() && !configWord(config.v3PrivPassphrase, priv)) {
    Log["libzelta"].append(WARNING,
                           "AgentEngine: SNMPv3 user ignored: its privacy passphrase holds quotes or line ends\n");
    return false;
  }
  if (!priv.empty()) {
    remember("createUser " + user + " SHA " + auth + " AES " + priv);
    remember("rwuser " + user + " priv");
  } else {
    remember("createUser " + user + " SHA " + auth);
    remember("rwuser " + user + " auth");
  }
  if (!config.v3UserSources.empty())
    limitV3UserSources(config.v3User, parseSources(config.v3UserSources, "SNMPv3 user"));
  return true;
}

// The engine ID and boots count this start serves under. Without a state
// file nothing remembers earlier starts, so an SNMPv3 user is served under a
// new random engine ID each time, never under a fixed one whose boots count
// starts at 1 again.
void rememberEngineIdentity(const SNMPAgent::Options& config, bool servesV3) REQUIRES(libraryMutex()) {
  std::string idText;
  if (!configWord(config.engineId, idText)) idText.clear();
  EngineIdentity identity;
  if (!config.engineStateFile.empty()) {
    identity = startFromStateFile(config.engineStateFile, idText);
  } else if (!servesV3 && !idText.empty()) {
    identity.idText = idText;
  } else {
    if (servesV3)
      Log["libzelta"].append(WARNING,
                             "AgentEngine: SNMPv3 without an engine state file: the engine ID changes at every "
                             "start%s\n",
                             idText.empty() ? "" : "; the fixed engine ID is not used without one");
    identity.engineId = randomEngineId();
  }
  configureEngineIdentity(identity);
}

void rememberConfig(const SNMPAgent::Options& config) REQUIRES(libraryMutex()) {
  // No MIB file is parsed: the agent needs none, and parsing costs start-up
  // time and file reads.
  remember("mibs :");
  // A subagent's managers talk to the master, which checks who they are.
  // It still names an engine ID of its own: Net-SNMP keeps the kind of the
  // previous start's engine ID and cannot make up one of that kind itself.
  if (isSubagent(config)) {
    EngineIdentity identity;
    identity.engineId = randomEngineId();
    configureEngineIdentity(identity);
    return;
  }
  rememberCommunity("rocommunity", config.roCommunity, config.roCommunitySources, "read-only community");
  if (rememberCommunity("rwcommunity", config.rwCommunity, config.rwCommunitySources, "read-write community") &&
      !isLoopbackAddress(config.listenAddress))
    Log["libzelta"].append(WARNING,
                           "AgentEngine: the read-write community is accepted from any source address on %s, "
                           "port %d; limit its sources or listen on a loopback address\n",
                           config.listenAddress.empty() ? "every interface" : config.listenAddress.c_str(),
                           config.port);
  rememberEngineIdentity(config, rememberV3User(config));

  if (config.systemGroup) {
    const std::pair<const char*, const std::string*> texts[] = {{"sysdescr", &config.sysDescr},
                                                                {"sysname", &config.sysName},
                                                                {"syscontact", &config.sysContact},
                                                                {"syslocation", &config.sysLocation}};
    for (const auto& [token, text] : texts)
      if (!text->empty() && text->find_first_of("\r\n") == std::string::npos)
        remember(std::string(token) + " " + *text);
  }
}

void setOptions(const SNMPAgent::Options& config, const std::string& persistentDir) REQUIRES(libraryMutex()) {
  // Nothing is read from /etc/snmp or ~/.snmp, and no state is written.
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
  netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_PERSISTENT_DIR, persistentDir.c_str());
  netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_CONFIGURATION_DIR, persistentDir.c_str());
  // MIB directories are scanned even when no MIB is loaded; point the scan
  // at a directory of ours.
  netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_MIBDIRS, persistentDir.c_str());
  // The largest answer a UDP datagram carries: above it Net-SNMP would not
  // cut a GETBULK answer down for SNMPv1/v2c and the send would fail, the
  // manager left without an answer.
  netsnmp_ds_set_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_MSG_SEND_MAX, 65507);
  // Alarms (the AgentX ping among them) run from the request loop, not
  // from a SIGALRM handler in whichever host thread the signal meets.
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_ALARM_DONT_USE_SIG, 1);
  // Either role, without AgentX master socket, embedded Perl or connection
  // log.
  agentx::setOptions(config);
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_MASTER, 0);
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_DISABLE_PERL, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_DONT_LOG_TCPWRAPPERS_CONNECTS, 1);
}

void initStandardGroups(bool systemGroup) {
  init_snmp_mib();
  init_snmpEngine();
  init_snmpTargetAddrEntry();
  init_snmpTargetParamsEntry();
  init_target_counters();
  init_snmpNotifyTable();
  init_snmpNotifyFilterProfileTable();
  init_snmpNotifyFilterTable();
  if (systemGroup) {
    init_system_mib();
    init_sysORTable();
  }
}

// Net-SNMP's own check of an incoming packet asks TCP wrappers, which read
// /etc/hosts.allow and /etc/hosts.deny for every request: files the host did
// not give the agent, and ten system calls a request. The listen address and
// the communities decide who may talk to the agent; the packet is counted.
int acceptPacket(netsnmp_session* /*session*/, netsnmp_transport* /*transport*/, void* /*data*/, int /*length*/) {
  snmp_increment_statistic(STAT_SNMPINPKTS);
  return 1;
}

// Opens the agent's UDP port as Net-SNMP's master agent would, with the
// packet check above.
bool openPort_nolock(const SNMPAgent::Options& config) REQUIRES(libraryMutex()) {
  std::string endpoint = "udp:";
  if (!config.listenAddress.empty()) endpoint += config.listenAddress + ":";
  endpoint += std::to_string(config.port);
  netsnmp_transport* transport = netsnmp_transport_open_server("snmp", endpoint.c_str());
  if (transport == nullptr) return false;
  netsnmp_session session;
  snmp_sess_init(&session);
  session.version = SNMP_DEFAULT_VERSION;
  session.callback = handle_snmp_packet;
  session.authenticator = nullptr;
  session.flags = netsnmp_ds_get_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_FLAGS);
  session.isAuthoritative = SNMP_SESS_AUTHORITATIVE;
  // snmp_shutdown closes it.
  netsnmp_session* opened = snmp_add(&session, transport, acceptPacket, netsnmp_agent_check_parse);
  if (opened == nullptr) {
    netsnmp_transport_free(transport);
    return false;
  }
  // The master role keeps its listening session under this name.
  main_session = opened;
  return true;
}

// Reads the sessions that `fds` marks, and what they passed on inside.
void readAll_nolock(netsnmp_large_fd_set* fds) REQUIRES(libraryMutex()) {
  snmp_read2(fds);
  // A subagent's request from the master reaches the agent, and its answer
  // comes back, through Net-SNMP's internal pipes: read at once, the master
  // has its answer in this turn instead of two more, each a select and a
  // wake-up. Bounded, should something keep passing PDUs around.
  netsnmp_large_fd_set inside;
  netsnmp_large_fd_set_init(&inside, FD_SETSIZE);
  for (int i = 0; i < 16 && agentx::queuedInside(&inside); ++i) snmp_read2(&inside);
  netsnmp_large_fd_set_cleanup(&inside);
}

int removeOne(const char* path, const struct stat* /*sb*/, int /*flag*/, struct FTW* /*ftw*/) {
  ::remove(path);
  return 0;
}

}  // namespace

AgentEngine::AgentEngine() : scalars(std::make_unique<ScalarIndex>()) {
  // The wake-up pipe lives as long as the engine, so wakeUp() never races a
  // shut-down.
  if (pipe2(wakePipe, O_CLOEXEC | O_NONBLOCK) != 0) wakePipe[0] = wakePipe[1] = -1;
}

AgentEngine::~AgentEngine() {
  shutdown();
  for (int& fd : wakePipe) {
    if (fd >= 0) close(fd);
    fd = -1;
  }
}

bool AgentEngine::initialize(const SNMPAgent::Options& config, const std::vector<MibEntry*>& entries,
                             const std::vector<const std::string*>* keys) {
  LibraryLockGuard lock(libraryMutex());
  if (initialized || activeEngine != nullptr) {
    Log["libzelta"].append(WARNING, "AgentEngine: an SNMP agent already runs in this process, not starting another\n");
    return false;
  }
  activeEngine = this;
  initialized = true;

  std::string persistentDir = config.persistentDir;
  if (persistentDir.empty()) {
    char pattern[] = "/tmp/zelta-snmp-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
      Log["libzelta"].append(ERROR, "AgentEngine: cannot create a state directory: %s\n", strerror(errno));
      initialized = false;
      activeEngine = nullptr;
      return false;
    }
    ownedTempDir = pattern;
    persistentDir = ownedTempDir;
  }
  installLogging();
  setOptions(config, persistentDir);
  char noSmux[] = "-smux";
  add_to_init_list(noSmux);
  rememberConfig(config);

  if (init_agent(kAppName) != 0) {
    Log["libzelta"].append(ERROR, "AgentEngine: Net-SNMP agent initialisation failed\n");
    cleanUp_nolock();
    return false;
  }
  // A subagent's master serves the standard groups.
  if (!isSubagent(config)) initStandardGroups(config.systemGroup);
  // Tables and other objects first: the scalar index then knows what lies
  // between its scalars.
  auto refuse = [&](size_t position, const MibEntry* entry) {
    const std::string* key = keys != nullptr && position < keys->size() ? (*keys)[position] : nullptr;
    if (key != nullptr)
      Log["libzelta"].append(ERROR, "AgentEngine: cannot publish '%s' at .%s\n", key->c_str(), entry->getOid().c_str());
    else
      Log["libzelta"].append(ERROR, "AgentEngine: cannot publish .%s\n", entry->getOid().c_str());
  };
  std::vector<MibLeaf*> leaves;
  std::vector<size_t> leafPositions;
  for (size_t i = 0; i < entries.size(); ++i) {
    if (i + 8 < entries.size()) __builtin_prefetch(entries[i + 8]);
    MibEntry* entry = entries[i];
    if (entry == nullptr) continue;
    auto* table = dynamic_cast<DynMibTable*>(entry);
    if (auto* leaf = dynamic_cast<MibLeaf*>(entry)) {
      leaves.push_back(leaf);
      leafPositions.push_back(i);
    } else if (table != nullptr && DynMibTable::Impl::of(*table).registerEntry_nolock()) {
      registered.push_back(table);
    } else {
      refuse(i, entry);
    }
  }
  std::vector<size_t> refused;  // positions in `leaves`
  scalars->build(leaves, refused);
  for (size_t position : refused) refuse(leafPositions[position], leaves[position]);

  // init_snmp sets LC_CTYPE from the environment; the host's setting stays.
  const char* current = setlocale(LC_CTYPE, nullptr);
  std::string savedLocale = current != nullptr ? current : "C";
  if (isSubagent(config)) agentx::watch(config);
  init_snmp(kAppName);  // a subagent's first attempt to reach its master
  setlocale(LC_CTYPE, savedLocale.c_str());
  if (isSubagent(config)) agentx::started();

  if (!isSubagent(config) && !openPort_nolock(config)) {
    Log["libzelta"].append(DEBUG, "AgentEngine: cannot open UDP %s:%d\n",
                           config.listenAddress.empty() ? "*" : config.listenAddress.c_str(), config.port);
    cleanUp_nolock();
    return false;
  }
  return true;
}

void AgentEngine::serveOnce(int maxSeconds) {
  if (maxSeconds < 0) maxSeconds = 0;
  netsnmp_large_fd_set fds;
  netsnmp_large_fd_set_init(&fds, FD_SETSIZE);
  int numfds = 0;
  int block = 0;
  struct timeval timeout = {maxSeconds, 0};
  unsigned readsBefore = 0;
  {
    LibraryLockGuard lock(libraryMutex());
    if (!initialized) {
      netsnmp_large_fd_set_cleanup(&fds);
      return;
    }
    snmp_select_info2(&numfds, &fds, &timeout, &block);
    if (wakePipe[0] >= 0) {
      NETSNMP_LARGE_FD_SET(wakePipe[0], &fds);
      if (wakePipe[0] >= numfds) numfds = wakePipe[0] + 1;
    }
    readsBefore = readsElsewhere;
  }
  if (block != 0 || timeout.tv_sec > maxSeconds) timeout = {maxSeconds, 0};

  int count = select(numfds, fds.lfs_setptr, nullptr, nullptr, &timeout);
  int selectErrno = errno;

  LibraryLockGuard lock(libraryMutex());
  if (initialized) {
    if (count > 0) {
      if (wakePipe[0] >= 0 && NETSNMP_LARGE_FD_ISSET(wakePipe[0], &fds)) {
        char drain[64];
        while (read(wakePipe[0], drain, sizeof drain) > 0) {
        }
      }
      // A host thread that destroyed a published table meanwhile has talked
      // to the master and may have read what woke us: on a stream a read
      // that finds nothing counts as a lost connection, so then only what is
      // still readable is read.
      struct timeval now = {0, 0};
      if (readsElsewhere == readsBefore ||
          select(numfds, fds.lfs_setptr, nullptr, nullptr, &now) > 0)
        readAll_nolock(&fds);
    } else if (count < 0 && selectErrno != EINTR) {
      Log["libzelta"].append(WARNING, "AgentEngine: select failed: %s\n", strerror(selectErrno));
    }
    // Every turn, not only an idle one: under steady requests the attempts
    // of outstanding informs must still time out and be retried.
    snmp_timeout();
    run_alarms();
    netsnmp_check_outstanding_agent_requests();
  }
  netsnmp_large_fd_set_cleanup(&fds);
  logSuppressedLines(false);
}

void AgentEngine::shutdown() {
  {
    LibraryLockGuard lock(libraryMutex());
    if (initialized) cleanUp_nolock();
  }
  // What was held back is told now rather than never.
  logSuppressedLines(true);
}

std::vector<MibEntry*> AgentEngine::registeredEntries() const {
  LibraryLockGuard lock(libraryMutex());
  std::vector<MibEntry*> all(registered.begin(), registered.end());
  all.insert(all.end(), scalars->begin(), scalars->end());
  return all;
}

void AgentEngine::wakeUp() {
  if (wakePipe[1] >= 0) {
    char byte = 1;
    ssize_t ignored = write(wakePipe[1], &byte, 1);
    (void)ignored;
  }
}

void AgentEngine::cleanUp_nolock() {
  // Entries first: their tables live in containers that shutdown_agent frees.
  for (DynMibTable* table : registered) DynMibTable::Impl::of(*table).unregisterEntry_nolock();
  registered.clear();
  scalars->clear();
  agentx::unwatch();
  snmp_shutdown(kAppName);
  shutdown_master_agent();
  shutdown_agent();
  if (!ownedTempDir.empty()) {
    nftw(ownedTempDir.c_str(), removeOne, 8, FTW_DEPTH | FTW_PHYS);
    ownedTempDir.clear();
  }
  initialized = false;
  activeEngine = nullptr;
}

bool AgentEngine::isConnectedToMaster() { return agentx::isConnected(); }

void AgentEngine::forgetEntry_nolock(MibEntry* entry) {
  // A subagent's table tells the master that it leaves, and reads the
  // answer, on this thread.
  ++readsElsewhere;
  if (activeEngine == nullptr) return;
  if (auto* leaf = dynamic_cast<MibLeaf*>(entry)) {
    activeEngine->scalars->forget(leaf);
    return;
  }
  auto& list = activeEngine->registered;
  list.erase(std::remove(list.begin(), list.end(), entry), list.end());
}

}  // namespace Quorvel::Kvan::SNMP
