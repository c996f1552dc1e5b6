// SNMPAgent: the agent thread around the Net-SNMP engine.
#include "zelta/snmpagent.h"

#include <functional>

#include "base/liblock.h"
#include "snmp/agentengine.h"
#include "snmp/notifier.h"
#include "zelta/logging.h"
#include "zelta/parammanager.h"

namespace Quorvel::Kvan::SNMP {

SNMPAgent::SNMPAgent(ParamManager* paramManager, int port)
    : manager(paramManager), engine(std::make_unique<AgentEngine>()), notifier(std::make_unique<Notifier>()) {
  options.port = port;
}

SNMPAgent::SNMPAgent(ParamManager* paramManager, const Options& agentOptions)
    : options(agentOptions),
      manager(paramManager),
      engine(std::make_unique<AgentEngine>()),
      notifier(std::make_unique<Notifier>()) {}

SNMPAgent::~SNMPAgent() {
  // The owner stops and joins first; a forgotten join must not abort the
  // process through std::thread's destructor.
  if (thread && thread->joinable()) {
    stop();
    thread->join();
  }
}

void SNMPAgent::start() {
  if (thread && thread->joinable()) {
    Log["libzelta"].append(WARNING, "SNMPAgent: already started\n");
    return;
  }
  stopRequested = false;
  finished = false;
  thread = std::make_unique<std::thread>(&SNMPAgent::handleRequests, this);
}

void SNMPAgent::stop() {
  stopRequested = true;
  running = false;
  engine->wakeUp();  // no need to sit out the rest of a 2-second wait
}

void SNMPAgent::waitForFinish() {
  if (thread && thread->joinable()) thread->join();
}

bool SNMPAgent::isConnectedToMaster() const {
  return running && !options.agentxMaster.empty() && AgentEngine::isConnectedToMaster();
}

void SNMPAgent::addEntry(const std::string& key, MibEntry* entry) { extraEntries.emplace_back(key, entry); }

bool SNMPAgent::notifyChange(const MibEntry& entry) {
  bool queued = false;
  {
    LibraryLockGuard lock(libraryMutex());
    queued = Notifier::leafChange_nolock(entry);
  }
  if (queued) engine->wakeUp();
  return queued;
}

bool SNMPAgent::notifyChange(const DynMibTable& table, const std::vector<unsigned long>& index, unsigned int column) {
  bool queued = false;
  {
    LibraryLockGuard lock(libraryMutex());
    queued = Notifier::cellChange_nolock(table, index, column);
  }
  if (queued) engine->wakeUp();
  return queued;
}

bool SNMPAgent::notifyRowStatus(const DynMibTable& table, const std::vector<unsigned long>& index) {
  bool queued = false;
  {
    LibraryLockGuard lock(libraryMutex());
    queued = Notifier::rowChange_nolock(table, index);
  }
  if (queued) engine->wakeUp();
  return queued;
}

void SNMPAgent::handleRequests() {
  if (!initializeAgent()) {
    Log["libzelta"].append(WARNING, "SNMPAgent: Cannot initialize SNMP Agent!\n");
    finished = true;
    return;
  }
  running = !stopRequested;
  notifier->start(options);
  notifier->flush();
  while (running && !stopRequested) {
    engine->serveOnce(2);
    notifier->flush();
  }
  notifier->stop();
  engine->shutdown();
  running = false;
  // Written when the loop ends, not when it starts: log readers know it so.
  Log["libzelta"].append(INFO, "SNMPAgent: thread successfully started\n");
  finished = true;
}

bool SNMPAgent::initializeAgent() {
  initMib();
  AgentConfig config;
  config.listenAddress = options.listenAddress;
  config.port = options.port;
  config.roCommunity = options.roCommunity;
  config.rwCommunity = options.rwCommunity;
  config.v3User = options.v3User;
  config.v3AuthPass = options.v3AuthPassphrase;
  config.v3PrivPass = options.v3PrivPassphrase;
  config.engineId = options.engineId;
  config.engineStateFile = options.engineStateFile;
  config.roSources = options.roCommunitySources;
  config.rwSources = options.rwCommunitySources;
  config.v3Sources = options.v3UserSources;
  config.systemGroup = options.systemGroup;
  config.sysDescr = options.sysDescr;
  config.sysName = options.sysName;
  config.sysContact = options.sysContact;
  config.sysLocation = options.sysLocation;
  config.persistentDir = options.persistentDir;
  config.agentxMaster = options.agentxMaster;
  config.agentxPingSeconds = options.agentxPingSeconds;
  std::vector<MibEntry*> toServe;
  std::vector<const std::string*> keys;
  toServe.reserve(entries.size());
  keys.reserve(entries.size());
  for (auto& [key, entry] : entries) {
    toServe.push_back(const_cast<MibEntry*>(entry));
    keys.push_back(&key);
  }
  if (!engine->initialize(config, toServe, &keys)) {
    if (config.isSubagent())
      Log["libzelta"].append(WARNING, "SNMPAgent: cannot start the AgentX subagent of %s\n",
                             config.agentxMaster.c_str());
    else
      Log["libzelta"].append(WARNING, "SNMPAgent: SNMP cannot listen on port %d\n", options.port);
    return false;
  }
  if (config.isSubagent())
    Log["libzelta"].append(INFO, "SNMPAgent: AgentX subagent of the master at %s\n", config.agentxMaster.c_str());
  else
    Log["libzelta"].append(INFO, "SNMPAgent: SNMP listen port %d\n", options.port);
  Log["libzelta"].append(INFO, "SNMPAgent: handling %d RO entries, %d RW entries\n", readOnlyCount, readWriteCount);
  return true;
}

void SNMPAgent::forEachPublished(const std::function<void(const std::string&, MibEntry*, mib_access)>& visit) const {
  // A parameter's access as its SNMPInfo gives it decides, whatever its
  // object was set to since.
  auto publish = [&](const std::string& key, MibEntry* entry, mib_access access) {
    if (entry != nullptr && access != NOACCESS) visit(key, entry, access);
  };
  if (manager != nullptr) {
    // The parameters lie all over the heap: asking for the ones a few steps
    // ahead keeps a large registry from waiting on memory at every step.
    const auto& params = manager->getParams();
    auto ahead = params.begin();
    for (int i = 0; i < 4 && ahead != params.end(); ++i) ++ahead;
    for (auto& [key, param] : params) {
      if (ahead != params.end()) __builtin_prefetch((ahead++)->second);
      if (param == nullptr || param->getSnmpInfo() == nullptr) continue;
      SNMPInfo* info = param->getSnmpInfo();
      publish(key, info->getEntry(), info->getAccess());
    }
  }
  for (auto& [key, entry] : extraEntries) publish(key, entry, entry->get_access());
}

std::vector<std::pair<std::string, MibEntry*>> SNMPAgent::publishedEntries() const {
  std::vector<std::pair<std::string, MibEntry*>> published;
  forEachPublished([&](const std::string& key, MibEntry* entry, mib_access) { published.emplace_back(key, entry); });
  return published;
}

// The published objects, counted by access.
void SNMPAgent::initMib() {
  entries.clear();
  readOnlyCount = 0;
  readWriteCount = 0;
  forEachPublished([&](const std::string& key, MibEntry* entry, mib_access access) {
    entries.emplace_back(key, entry);
    if (access == READONLY) {
      ++readOnlyCount;
    } else {
      ++readWriteCount;
    }
  });
}

}  // namespace Quorvel::Kvan::SNMP
