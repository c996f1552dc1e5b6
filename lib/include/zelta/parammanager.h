// The registry of all parameters of a host program, by key, and the entry
// point for loading and saving their group files.
//
// Thread safety: add(), loadAllGroups() and loadGroup() are for start-up, on
// one thread, before the SNMP agent starts. operator[] and getParams() only
// read the registry and may be called from any thread afterwards.
// saveAllGroups() may be called from any thread, hooks included.
// loadFromFile() writes the values of each piece of the file it reads (16 KiB,
// whole lines) under the library lock, so it may run while the agent serves
// requests, which then see each line's values whole. factoryReset() and
// importConfig() may be called from any thread, also while the agent runs
// (not from a hook): they change their values in one hold of the library
// lock, so a request sees all the old values or all the new ones.
#ifndef ZELTA_PARAMMANAGER_H_
#define ZELTA_PARAMMANAGER_H_

#include <cstddef>
#include <memory>
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

  // When true, every value a load reads is checked as an SNMP SET of it
  // would be: its type, its range or length, and the parameter's (or the
  // column's) validator, which gets an ExtraInfo with ACTION_LOADED. A
  // refused value leaves the parameter as it was (at start-up: its default;
  // a table line: its row), is logged once as a WARNING naming the key, the
  // file and the value, and its line stays in the file, written by every
  // save until the host changes the value. Off by default;
  // ParamGroup::setCheckedLoading does it for the parameters of one group.
  void setCheckedLoading(bool checked) { checkedLoading = checked; }
  bool isCheckedLoading() const { return checkedLoading; }

  // ---- Factory reset, export and import of settings
  //
  // A reset or an import sets its values under the library lock in one
  // piece: the agent serves them at once (tables too), with no notice to the
  // groups. Then, for each parameter it set whose group is active, the
  // post-set hooks run with an ExtraInfo that names the action (empty row
  // index, column -1), and each group concerned is saved once. An empty
  // `groups` means every registered group.

  // Gives every parameter of the groups that is saved (NEVER_SAVE ones hold
  // state, not settings) the value it was constructed with (constructed
  // without one: the default of its type, if it has one); the hooks get
  // ACTION_FACTORY_RESET. The groups' kept foreign lines and the lines a
  // checked load refused are dropped: the files then hold the defaults only.
  void factoryReset(const std::vector<ParamGroup*>& groups = {});

  // The groups' settings as one text: per group, in the order of their
  // names, a header line "[name]", the lines of its parameters as their
  // values are now (not lines a checked load refused), and its kept foreign
  // lines; then a last line "# end of configuration".
  std::string exportConfig(const std::vector<ParamGroup*>& groups = {}) const;
  // exportConfig written to `path`, the old file replaced only by a whole new
  // one (through a link, the file it leads to); a FIFO or a device is written
  // into as it is. False, with `error` set, when it cannot be written.
  bool exportConfigFile(const std::string& path, std::string& error, const std::vector<ParamGroup*>& groups = {}) const;

  // Applies such a text, all or nothing, to those of the groups it has a
  // header for (sections of other groups are skipped). A section is its
  // group's whole setting: a saved parameter it has no line for takes its
  // factory value, and a table takes exactly the rows of its lines. Every
  // value is checked as an SNMP SET of it would be (validators get
  // ACTION_IMPORTED); lines under former keys are read as a load reads them.
  // A group that keeps foreign lines takes the section's unknown keys,
  // comments and blank lines as its foreign lines; in other groups an
  // unknown key is refused. False, with nothing changed and `error` naming
  // the line, the key and why, when a value is refused or the text is not a
  // whole configuration (larger than kMaxConfigBytes, binary, cut short).
  bool importConfig(const std::string& text, std::string& error, const std::vector<ParamGroup*>& groups = {});
  // importConfig of a file; also false when it cannot be read or is larger
  // than kMaxConfigBytes, which is then not read.
  bool importConfigFile(const std::string& path, std::string& error, const std::vector<ParamGroup*>& groups = {});
  // The largest configuration text an import takes.
  static constexpr size_t kMaxConfigBytes = 16 * 1024 * 1024;

 private:
  // Loads the files of `which` in one pass: lines under former keys are
  // applied after every file was read, to parameters no file had a line for
  // under their current key.
  ZELTA_LOCAL void loadGroups(const std::vector<ParamGroup*>& which);
  ZELTA_LOCAL std::vector<ParamGroup*> chosen(const std::vector<ParamGroup*>& which) const;

  // The two compiled patterns of the group-file lines.
  struct Patterns;

  std::set<ParamGroup*> groups;
  std::unordered_map<std::string, Param*> params;
  std::unique_ptr<Patterns> patterns;
  bool checkedLoading = false;
};

}  // namespace Quorvel::Kvan

#endif  // ZELTA_PARAMMANAGER_H_
