// ParamGroup: a set of parameters stored in one file, with its auto-save.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

#include "base/atomicfile.h"
#include "base/liblock.h"
#include "base/trace.h"
#include "zelta/logging.h"
#include "zelta/param.h"
#include "zelta/text.h"

namespace Quorvel::Kvan {

namespace {

const char kNoName[] = "__NO_NAME__";

// Every text taken for a save gets the next number, in the order the texts
// are taken.
uint64_t lastSnapshot GUARDED_BY(libraryMutex()) = 0;

uint64_t nextSnapshot_nolock() REQUIRES(libraryMutex()) { return ++lastSnapshot; }

// Writes of group files never overlap (an auto-save, saveAllGroups and a hook
// that saves may meet); one mutex for all groups is enough, saves are rare.
// It is taken after the text, never while waiting for the library lock: a
// hook that saves holds the library lock already.
struct FileWrites {
  Mutex mutex ACQUIRED_AFTER(libraryMutex());
  // Per file path, the number of the text it holds, so that a save that took
  // its text earlier but reached the file later does not overwrite a newer
  // text.
  std::map<std::string, uint64_t> written GUARDED_BY(mutex);
};

FileWrites& fileWrites() {
  static auto* writes = new FileWrites();  // never destroyed: workers may save during exit
  return *writes;
}

// Parameters destroyed while their group lives. A parameter built later at
// the same address in that group already has its entry in the group's list:
// it takes that entry (and its place in the file) instead of a second one.
// Empty unless the host destroys parameters, so that enrolling stays one
// push; the live groups are known so that a parameter outliving its group
// leaves nothing behind.
struct Departures {
  Mutex mutex ACQUIRED_AFTER(libraryMutex());
  std::unordered_set<const ParamGroup*> groups GUARDED_BY(mutex);
  std::set<std::pair<const ParamGroup*, const Param*>> params GUARDED_BY(mutex);
  std::atomic<bool> any{false};  // params is not empty
};

Departures& departures() {
  static auto* all = new Departures();  // never destroyed: groups and parameters may end during exit
  return *all;
}

void groupBorn(const ParamGroup* group) {
  Departures& all = departures();
  MutexLock lock(all.mutex);
  all.groups.insert(group);
}

bool writeAll(FILE* file, const std::string& text) {
  return text.empty() || fwrite(text.data(), 1, text.size(), file) == text.size();
}

std::string fileNameOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Removes the temporary files a power cut during a crash-safe save left next
// to `path`; under the file-writes mutex, no save of ours is writing one.
void removeStaleTemporaries([[maybe_unused]] FileWrites& writes, const std::string& path) REQUIRES(writes.mutex) {
  const std::string prefix = fileNameOf(path) + internal::kTempInfix;
  DIR* dir = opendir(internal::directoryOf(path).c_str());
  if (dir == nullptr) return;
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name.size() != prefix.size() + internal::kTempSuffixLength || name.compare(0, prefix.size(), prefix) != 0)
      continue;
    if (unlinkat(dirfd(dir), entry->d_name, 0) == 0)
      Log["libzelta"].append(INFO, "ParamGroup: - removed '%s', left by an interrupted save\n", name.c_str());
  }
  closedir(dir);
}

// The auto-save workers of every group. A countdown waits on `wake`, so that
// the process exiting or its group going away cuts it short; `ended` tells
// who waits that a worker is done with its group.
struct SaveWorkers {
  std::mutex mutex;
  std::condition_variable wake;
  std::condition_variable ended;
  int running = 0;
  bool exiting = false;
};

SaveWorkers& saveWorkers() {
  static auto* workers = new SaveWorkers();  // never destroyed: workers may run during exit
  return *workers;
}

// How long exit, or a group going away, waits for a save in flight.
const auto kWorkerWaitLimit = std::chrono::seconds(10);

// Constructed with the first worker, so after the global Log: at exit it is
// destroyed first, and its destructor has every pending countdown save at
// once and waits for the saves in flight. Nothing is lost, and no worker logs
// into a log or a lock that exit has already torn down.
struct SaveAtExit {
  ~SaveAtExit() {
    SaveWorkers& workers = saveWorkers();
    std::unique_lock<std::mutex> lock(workers.mutex);
    workers.exiting = true;
    workers.wake.notify_all();
    workers.ended.wait_for(lock, kWorkerWaitLimit, [&] { return workers.running == 0; });
  }
};

}  // namespace

ParamGroup::ParamGroup() : name(kNoName) { groupBorn(this); }

ParamGroup::ParamGroup(const std::string& groupName, const std::string& path) {
  setParams(groupName, path);
  groupBorn(this);
}

ParamGroup::~ParamGroup() {
  {
    Departures& all = departures();
    MutexLock lock(all.mutex);
    all.groups.erase(this);
    auto& gone = all.params;
    auto first = gone.lower_bound({this, nullptr}), last = first;
    while (last != gone.end() && last->first == this) ++last;
    gone.erase(first, last);
    all.any = !gone.empty();
  }
  // A worker still counting for this group ends without saving: the group's
  // parameters may be gone already. A save in flight is waited for.
  SaveWorkers& workers = saveWorkers();
  std::unique_lock<std::mutex> lock(workers.mutex);
  if (!workerRunning) return;
  abandoned = true;
  workers.wake.notify_all();
  if (!workers.ended.wait_for(lock, kWorkerWaitLimit, [&] { return !workerRunning; }))
    Log["libzelta"].append(ERROR, "ParamGroup: [%s] destroyed while its save still runs\n", name.c_str());
}

ParamGroup::ParamGroup(const ParamGroup& other)
    : name(other.name),
      filePath(other.filePath),
      params(other.params),
      active(other.active.load()),
      atomicSave(other.atomicSave),
      keepForeign(other.keepForeign),
      checkedLoading(other.checkedLoading),
      foreignLines(other.getForeignLines()) {
  groupBorn(this);
}

ParamGroup& ParamGroup::operator=(const ParamGroup& other) {
  if (this != &other) {
    name = other.name;
    filePath = other.filePath;
    params = other.params;
    atomicSave = other.atomicSave;
    keepForeign = other.keepForeign;
    checkedLoading = other.checkedLoading;
    std::string lines = other.getForeignLines();
    LibraryLockGuard lock(libraryMutex());
    foreignLines = std::move(lines);
  }
  return *this;
}

std::string ParamGroup::getForeignLines() const {
  LibraryLockGuard lock(libraryMutex());
  return foreignLines;
}

void ParamGroup::setParams(const std::string& groupName, const std::string& path) {
  name = groupName;
  filePath = path == kNoName ? Common::replace(groupName, " ", "_") + ".txt" : path;
}

void ParamGroup::addOwnedParam(Param* param) {
  if (std::find(params.begin(), params.end(), param) != params.end()) {
    ZELTA_TRACE();
    return;
  }
  params.push_back(param);
}

// A parameter under construction cannot be enrolled yet, unless one at its
// address was destroyed: no search, so that a device with many parameters
// enrols them in linear time, and nothing beside the list.
void ParamGroup::enrol(Param* param) {
  Departures& all = departures();
  if (all.any.load()) {
    MutexLock lock(all.mutex);
    if (all.params.erase({this, param}) != 0) {
      all.any = !all.params.empty();
      ZELTA_TRACE_AS("addOwnedParam");
      return;
    }
  }
  params.push_back(param);
}

void ParamGroup::leave(const ParamGroup* group, const Param* param) {
  Departures& all = departures();
  MutexLock lock(all.mutex);
  if (all.groups.count(group) == 0) return;  // the group is gone: never dereferenced
  all.params.insert({group, param});
  all.any = true;
}

bool ParamGroup::save() {
  ZELTA_ASSERT(name != kNoName, "name != \"__NO_NAME__\"");
  Log["libzelta"].append(DEBUG, "ParamGroup: saving [%s] params on file '%s'\n", name.c_str(), filePath.c_str());
  // The text is taken under the library lock; the slow part, writing and
  // syncing, runs without it so SNMP requests are not held up.
  std::string text;
  int count = 0;
  uint64_t snapshot = 0;
  {
    LibraryLockGuard lock(libraryMutex());
    for (Param* param : params) {
      param->appendFileText(text);
      ++count;  // NEVER_SAVE parameters are counted too
    }
    text += foreignLines;
    snapshot = nextSnapshot_nolock();
  }
  FileWrites& writes = fileWrites();
  MutexLock writing(writes.mutex);
  uint64_t& written = writes.written[filePath];
  if (snapshot < written) {
    Log["libzelta"].append(DEBUG, "ParamGroup: - [%s] already holds a newer text\n", name.c_str());
    return true;
  }
  removeStaleTemporaries(writes, filePath);
  if (!writeFile(text)) {
    Log["libzelta"].append(ERROR, "ParamGroup: - cannot save group [%s] on file '%s'\n", name.c_str(),
                           filePath.c_str());
    return false;
  }
  written = snapshot;
  Log["libzelta"].append(DEBUG, "ParamGroup: - saved %d params\n", count);
  return true;
}

bool ParamGroup::writeFile(const std::string& text) {
  if (!atomicSave) {
    FILE* file = fopen(filePath.c_str(), "w");
    if (file == nullptr) return false;
    writeAll(file, text);
    fflush(file);
    fsync(fileno(file));
    fclose(file);
    return true;
  }
  // Crash-safe variant: the old file stays complete until the rename.
  return internal::replaceFile(filePath, text);
}

void ParamGroup::onChange(Param* param, const std::string& reason, const ExtraInfo* /*info*/) {
  // Under the library lock: the value is read, and the hand-over at the end of
  // workerCode must see either the new ticks or a cleared workerRunning.
  LibraryLockGuard lock(libraryMutex());
  Log["libzelta"].append(DEBUG, "ParamGroup: change on param '%s': %s [%s]\n", param->getName().c_str(),
                         param->getValue().toString().c_str(), reason.c_str());
  ticks = 2;
  SaveWorkers& workers = saveWorkers();
  {
    std::lock_guard<std::mutex> registry(workers.mutex);
    if (workerRunning) return;  // the running countdown sees the new ticks
    workerRunning = true;
    ++workers.running;
  }
  static SaveAtExit saveAtExit;
  // Detached: nobody joins a save worker, and a joinable thread left behind
  // would abort the process at exit.
  std::thread(&ParamGroup::workerCode, this).detach();
}

bool ParamGroup::waitOneTick() {
  SaveWorkers& workers = saveWorkers();
  std::unique_lock<std::mutex> lock(workers.mutex);
  workers.wake.wait_for(lock, std::chrono::seconds(1), [&] { return workers.exiting || abandoned; });
  return !workers.exiting && !abandoned;
}

void ParamGroup::workerCode() {
  // One-second ticks; a change during a tick restarts the count at 2 without
  // shortening the tick under way. At exit the countdown is cut short and the
  // save made at once.
  bool counted = true;
  do {
    Log["libzelta"].append(VERBOSE, "ParamGroup: name: %s, ticks: %d\n", name.c_str(), ticks.load());
    counted = waitOneTick();
  } while (counted && --ticks > 0);
  SaveWorkers& workers = saveWorkers();
  if (!abandoned) {
    Log["libzelta"].append(DEBUG, "ParamGroup: name: %s, ticks elapsed, saving...\n", name.c_str());
    save();
  }
  LibraryLockGuard lock(libraryMutex());
  // A change announced while the file was written found this worker running
  // and started none; it reaches the file with the next save. This is the
  // group's documented countdown, kept as existing devices expect it.
  ticks = 0;
  std::lock_guard<std::mutex> registry(workers.mutex);
  // Last touch of the group: once this reads false the group may go.
  workerRunning = false;
  --workers.running;
  workers.ended.notify_all();
}

}  // namespace Quorvel::Kvan
