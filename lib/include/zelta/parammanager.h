// The registry of all parameters of a host program, by key, and the entry
// point for loading and saving their group files.
//
// Thread safety: add(), loadAllGroups() and loadGroup() are for start-up, on
// one thread, before the SNMP agent starts. operator[] and getParams() only
// read the registry and may be called from any thread afterwards.
// saveAllGroups() may be called from any thread, hooks included.
// loadFromFile() writes the values of each piece of the file it reads (16 KiB,
// whole lines) under the library lock, so it may run while the agent serves
// requests, which then see each line's values whole.
#ifndef ZELTA_PARAMMANAGER_H_
#define ZELTA_PARAMMANAGER_H_

#include <regex.h>

#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "zelta/export.h"
#include "zelta/param.h"

namespace Quorvel::Kvan {

// Registry of parameters and reader of their group files. Each line of a
// group file is "key.index = column:type:value ..." (see README).
class ZELTA_EXPORT ParamManager {
 public:
  ParamManager();
  ~ParamManager();
  ParamManager(const ParamManager&) = delete;
  ParamManager& operator=(const ParamManager&) = delete;

  // Registers `param` under `key`, which becomes its name, and collects its
  // group. REQUIRES: a non-empty new key and a non-null param (asserted).
  // Keys hold letters and digits only: one with an underscore is registered
  // with a WARNING but cannot be read back from a file.
  bool add(std::string key, Param* param);
  // REQUIRES: `key` is registered (asserted).
  Param*& operator[](std::string key);
  const std::unordered_map<std::string, Param*>& getParams() const { return params; }
  const std::set<ParamGroup*>& getGroups() const { return groups; }

  // Reads every known group's file, each with its group inactive, so loading
  // schedules no save and runs no hook.
  void loadAllGroups();
  void loadGroup(ParamGroup& group);
  // Saves every known group now.
  void saveAllGroups();

  // Reads one group file into the registered parameters. Bad lines are
  // logged and skipped; other parameters keep their values.
  void loadFromFile(std::string path);

 private:
  std::set<ParamGroup*> groups;
  std::unordered_map<std::string, Param*> params;
  regex_t cfgRe;
  regex_t trpRe;
};

}  // namespace Quorvel::Kvan

#endif  // ZELTA_PARAMMANAGER_H_
