// SNMPAgent: the agent thread around the Net-SNMP engine.
#include "zelta/snmpagent.h"

#include <atomic>
#include <functional>
#include <thread>

#include "base/liblock.h"
#include "snmp/agentengine.h"
#include "snmp/notifier.h"
#include "zelta/logging.h"
#include "zelta/parammanager.h"

namespace Quorvel::Kvan::SNMP {

struct ZELTA_LOCAL SNMPAgent::Impl {
  Impl(ParamManager* paramManager, const Options& agentOptions) : options(agentOptions), manager(paramManager) {}

  void handleRequests();
  bool initializeAgent();
  void initMib();
  void forEachPublished(const std::function<void(const std::string&, MibEntry*, mib_access)>& visit) const;

  Options options;
  std::atomic<bool> running{false};
  std::atomic<bool> stopRequested{false};
  std::atomic<bool> finished{false};
  ParamManager* manager;
  std::unique_ptr<std::thread> thread;
  AgentEngine engine;
  Notifier notifier;
  int readOnlyCount = 0;
  int readWriteCount = 0;
  std::vector<std::pair<std::string, MibEntry*>> extraEntries;
  std::vector<std::pair<std::string, const MibEntry*>> entries;
};

SNMPAgent::SNMPAgent(ParamManager* paramManager, int port) : SNMPAgent(paramManager, Options()) {
  impl->options.port = port;
}

SNMPAgent::SNMPAgent(ParamManager* paramManager, const Options& agentOptions)
    : impl(std::make_unique<Impl>(paramManager, agentOptions)) {}

SNMPAgent::~SNMPAgent() {
  // The owner stops and joins first; a forgotten join must not abort the
  // process through std::thread's destructor.
  if (impl->thread && impl->thread->joinable()) {
    stop();
    impl->thread->join();
  }
}

void SNMPAgent::start() {
  if (impl->thread && impl->thread->joinable()) {
    Log["libzelta"].append(WARNING, "SNMPAgent: already started\n");
    return;
  }
  impl->stopRequested = false;
  impl->finished = false;
  impl->thread = std::make_unique<std::thread>(&Impl::handleRequests, impl.get());
}

void SNMPAgent::stop() {
  impl->stopRequested = true;
  impl->running = false;
  impl->engine.wakeUp();  // no need to sit out the rest of a 2-second wait
}

void SNMPAgent::waitForFinish() {
  if (impl->thread && impl->thread->joinable()) impl->thread->join();
}

bool SNMPAgent::isRunning() const { return impl->running.load(); }

bool SNMPAgent::hasFinished() const { return impl->finished.load(); }

bool SNMPAgent::isConnectedToMaster() const {
  return impl->running && isSubagent(impl->options) && AgentEngine::isConnectedToMaster();
}

void SNMPAgent::addEntry(const std::string& key, MibEntry* entry) { impl->extraEntries.emplace_back(key, entry); }

const std::vector<std::pair<std::string, const MibEntry*>>& SNMPAgent::getEntries() const { return impl->entries; }

bool SNMPAgent::notifyChange(const MibEntry& entry) {
  bool queued = false;
  {
    LibraryLockGuard lock(libraryMutex());
    queued = Notifier::leafChange_nolock(entry);
  }
  if (queued) impl->engine.wakeUp();
  return queued;
}

bool SNMPAgent::notifyChange(const DynMibTable& table, const std::vector<unsigned long>& index, unsigned int column) {
  bool queued = false;
  {
    LibraryLockGuard lock(libraryMutex());
    queued = Notifier::cellChange_nolock(table, index, column);
  }
  if (queued) impl->engine.wakeUp();
  return queued;
}

bool SNMPAgent::notifyRowStatus(const DynMibTable& table, const std::vector<unsigned long>& index) {
  bool queued = false;
  {
    LibraryLockGuard lock(libraryMutex());
    queued = Notifier::rowChange_nolock(table, index);
  }
  if (queued) impl->engine.wakeUp();
  return queued;
}

void SNMPAgent::Impl::handleRequests() {
  if (!initializeAgent()) {
    Log["libzelta"].append(WARNING, "SNMPAgent: Cannot initialize SNMP Agent!\n");
    finished = true;
    return;
  }
  running = !stopRequested;
  notifier.start(options);
  notifier.flush();
  while (running && !stopRequested) {
    engine.serveOnce(2);
    notifier.flush();
  }
  notifier.stop();
  engine.shutdown();
  running = false;
  // Written when the loop ends, not when it starts: log readers know it so.
  Log["libzelta"].append(INFO, "SNMPAgent: thread successfully started\n");
  finished = true;
}

bool SNMPAgent::Impl::initializeAgent() {
  initMib();
  std::vector<MibEntry*> toServe;
  std::vector<const std::string*> keys;
  toServe.reserve(entries.size());
  keys.reserve(entries.size());
  for (auto& [key, entry] : entries) {
    toServe.push_back(const_cast<MibEntry*>(entry));
    keys.push_back(&key);
  }
  if (!engine.initialize(options, toServe, &keys)) {
    if (isSubagent(options))
      Log["libzelta"].append(WARNING, "SNMPAgent: cannot start the AgentX subagent of %s\n",
                             options.agentxMaster.c_str());
    else
      Log["libzelta"].append(WARNING, "SNMPAgent: SNMP cannot listen on port %d\n", options.port);
    return false;
  }
  if (isSubagent(options))
    Log["libzelta"].append(INFO, "SNMPAgent: AgentX subagent of the master at %s\n", options.agentxMaster.c_str());
  else
    Log["libzelta"].append(INFO, "SNMPAgent: SNMP listen port %d\n", options.port);
  Log["libzelta"].append(INFO, "SNMPAgent: handling %d RO entries, %d RW entries\n", readOnlyCount, readWriteCount);
  return true;
}

void SNMPAgent::Impl::forEachPublished(
    const std::function<void(const std::string&, MibEntry*, mib_access)>& visit) const {
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
  impl->forEachPublished(
      [&](const std::string& key, MibEntry* entry, mib_access) { published.emplace_back(key, entry); });
  return published;
}

// The published objects, counted by access.
void SNMPAgent::Impl::initMib() {
  entries.clear();
  // Room for every candidate at once: the list lives as long as the agent.
  entries.reserve((manager != nullptr ? manager->getParams().size() : 0) + extraEntries.size());
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
