// ParamGroup: a set of parameters stored in one file, with its auto-save.
#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "liblock.h"
#include "trace.h"
#include "zelta/logging.h"
#include "zelta/param.h"

namespace Quorvel::Kvan {

namespace {

const char kNoName[] = "__NO_NAME__";

// Saves of one group file never overlap (an auto-save and saveAllGroups may
// meet); one mutex for all groups is enough, saves are rare.
std::mutex& saveMutex() {
  static auto* mutex = new std::mutex();
  return *mutex;
}

bool writeAll(FILE* file, const std::string& text) {
  return text.empty() || fwrite(text.data(), 1, text.size(), file) == text.size();
}

std::string directoryOf(const std::string& path) {
  std::vector<char> copy(path.begin(), path.end());
  copy.push_back('\0');
  return dirname(copy.data());
}

}  // namespace

ParamGroup::ParamGroup() : name(kNoName) {}

ParamGroup::ParamGroup(const std::string& groupName, const std::string& path) { setParams(groupName, path); }

ParamGroup::ParamGroup(const ParamGroup& other)
    : name(other.name),
      filePath(other.filePath),
      params(other.params),
      active(other.active.load()),
      atomicSave(other.atomicSave) {}

ParamGroup& ParamGroup::operator=(const ParamGroup& other) {
  if (this != &other) {
    name = other.name;
    filePath = other.filePath;
    params = other.params;
    atomicSave = other.atomicSave;
  }
  return *this;
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

bool ParamGroup::save() {
  ZELTA_ASSERT(name != kNoName, "name != \"__NO_NAME__\"");
  std::lock_guard<std::mutex> saving(saveMutex());
  Log["libzelta"].append(DEBUG, "ParamGroup: saving [%s] params on file '%s'\n", name.c_str(), filePath.c_str());
  // The text is taken under the library lock; the slow part, writing and
  // syncing, runs without it so SNMP requests are not held up.
  std::string text;
  int count = 0;
  {
    std::lock_guard<std::recursive_mutex> lock(libraryLock());
    for (Param* param : params) {
      text += param->toFileText();
      ++count;  // NEVER_SAVE parameters are counted too
    }
  }
  if (!writeFile(text)) {
    Log["libzelta"].append(ERROR, "ParamGroup: - cannot save group [%s] on file '%s'\n", name.c_str(),
                           filePath.c_str());
    return false;
  }
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
  std::string tmpl = filePath + ".XXXXXX";
  std::vector<char> tmpPath(tmpl.begin(), tmpl.end());
  tmpPath.push_back('\0');
  int fd = mkstemp(tmpPath.data());
  if (fd < 0) return false;
  FILE* file = fdopen(fd, "w");
  if (file == nullptr) {
    close(fd);
    unlink(tmpPath.data());
    return false;
  }
  fchmod(fd, 0644);
  bool ok = writeAll(file, text);
  ok = fflush(file) == 0 && ok;
  ok = fsync(fd) == 0 && ok;
  ok = fclose(file) == 0 && ok;
  if (!ok || rename(tmpPath.data(), filePath.c_str()) != 0) {
    unlink(tmpPath.data());
    return false;
  }
  int dir = open(directoryOf(filePath).c_str(), O_RDONLY | O_DIRECTORY);
  if (dir >= 0) {
    fsync(dir);
    close(dir);
  }
  return true;
}

void ParamGroup::onChange(Param* param, const std::string& reason, const ExtraInfo* /*info*/) {
  Log["libzelta"].append(DEBUG, "ParamGroup: change on param '%s': %s [%s]\n", param->getName().c_str(),
                         param->getValue().toString().c_str(), reason.c_str());
  ticks = 2;
  if (workerRunning.exchange(true)) return;  // the running countdown sees the new ticks
  // Detached: nobody joins a save worker, and a joinable thread left behind
  // would abort the process at exit.
  std::thread(&ParamGroup::workerCode, this).detach();
}

void ParamGroup::workerCode() {
  do {
    Log["libzelta"].append(VERBOSE, "ParamGroup: name: %s, ticks: %d\n", name.c_str(), ticks.load());
    sleep(1);
    --ticks;
  } while (ticks > 0);
  Log["libzelta"].append(DEBUG, "ParamGroup: name: %s, ticks elapsed, saving...\n", name.c_str());
  save();
  ticks = 0;
  workerRunning = false;
}

}  // namespace Quorvel::Kvan
