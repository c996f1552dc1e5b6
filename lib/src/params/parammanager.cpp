// ParamManager: the registry of parameters and the reader of group files.
#include "zelta/parammanager.h"

#include "params/groupfile.h"
#include "zelta/logging.h"

namespace Quorvel::Kvan {

ParamManager::ParamManager() : patterns(std::make_unique<Patterns>()) {
  regex_t& cfgRe = patterns->cfgRe;
  regex_t& trpRe = patterns->trpRe;
  int cfg = regcomp(&cfgRe, groupfile::kLinePattern, REG_EXTENDED | REG_NEWLINE);
  ZELTA_ASSERT(cfg == 0, "regcomp(&cfgRe, cfgPattern, REG_EXTENDED | REG_NEWLINE) == 0");
  int trp = regcomp(&trpRe, groupfile::kTripletPattern, REG_EXTENDED | REG_NEWLINE);
  ZELTA_ASSERT(trp == 0, "regcomp(&trpRe, trpPattern, REG_EXTENDED | REG_NEWLINE) == 0");
}

ParamManager::~ParamManager() {
  regfree(&patterns->cfgRe);
  regfree(&patterns->trpRe);
}

bool ParamManager::add(std::string key, Param* param) {
  ZELTA_ASSERT(key.size() > 0, "key.size() > 0");
  ZELTA_ASSERT(param != nullptr, "param != __null");
  ZELTA_ASSERT(params.find(key) == params.end(), "params.find(key) == params.end()");
  if (key.find('_') != std::string::npos) Log["libzelta"].append(WARNING, "ParamManager: key contains underscores!\n");
  params[key] = param;
  param->setName(key);
  groups.insert(param->getGroup());
  return true;
}

Param*& ParamManager::operator[](std::string key) {
  ZELTA_ASSERT(key.size() > 0, "key.size() > 0");
  auto it = params.find(key);
  ZELTA_ASSERT(it != params.end(), "params.find(key) != params.end()");
  // The host may have cleared the stored pointer through the returned
  // reference: the name is checked only on a pointer that is there.
  ZELTA_ASSERT(it->second == nullptr || it->second->getName() == key, "params[key]->getName() == key");
  ZELTA_ASSERT(it->second != nullptr, "params[key] != __null");
  return it->second;
}

void ParamManager::loadAllGroups() { loadGroups(std::vector<ParamGroup*>(groups.begin(), groups.end())); }

void ParamManager::loadGroup(ParamGroup& group) { loadGroups({&group}); }

void ParamManager::loadGroups(const std::vector<ParamGroup*>& which) {
  groupfile::GroupFileReader reader(patterns->cfgRe, patterns->trpRe, params, checkedLoading);
  for (ParamGroup* group : which) {
    group->setActiveMode(false);
    reader.load(group->getFilePath(), group);
    group->setActiveMode(true);
  }
  reader.finish();
}

void ParamManager::saveAllGroups() {
  for (ParamGroup* group : groups) group->save();
}

void ParamManager::loadFromFile(std::string path) {
  groupfile::GroupFileReader reader(patterns->cfgRe, patterns->trpRe, params, checkedLoading);
  reader.load(path);
  reader.finish();
}

std::vector<ParamGroup*> ParamManager::chosen(const std::vector<ParamGroup*>& which) const {
  return which.empty() ? std::vector<ParamGroup*>(groups.begin(), groups.end()) : which;
}

}  // namespace Quorvel::Kvan
