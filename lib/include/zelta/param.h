// Parameters and their groups.
//
// A Param is one named, typed configuration value of the device. It owns its
// Variant, belongs to exactly one ParamGroup (the unit of persistence: one
// text file), may be published over SNMP through an SNMPInfo, and carries the
// host's hooks: a validator, a filler and post-set hooks.
//
// Thread safety: one recursive lock, the library lock, serialises every
// parameter value with the SNMP agent's request processing and with the text a
// group save takes. setValue(), setTableCellValue(), getValueCopy() and
// getTableCellValue() may be called from any thread at any time, also while
// the agent serves requests and groups save. Validators, fillers and post-set
// hooks run with the lock held, on the thread that made the change (the agent
// thread for SNMP requests), so they may call setValue() on any parameter, and
// save a group, without deadlock; SNMP waits while they run. getValue()
// returns a reference, unlocked: for start-up code (before the agent starts)
// and for hooks, validators and fillers; other threads use getValueCopy().
// Construction, setValidator(), setFiller(), addPostSet() and
// addFormerName() belong to start-up; a hook must not add hooks.
#ifndef ZELTA_PARAM_H_
#define ZELTA_PARAM_H_

#include <atomic>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "zelta/export.h"
#include "zelta/mibtypes.h"
#include "zelta/tabledef.h"

namespace Quorvel::Kvan {

class ParamGroup;

// Whether changes of a parameter are written to its group's file.
enum ParamSavePolicy : int {
  SAVE_ON_CHANGE = 0,  // saved with its group; a change schedules the group's save
  NEVER_SAVE = 1,      // never written; changes do not tell the group
};

// One named, typed parameter. Neither copied nor moved: its value's listener
// and its group point at it.
class ZELTA_EXPORT Param : public IChangeListener {
 public:
  // (min, max); NO_RANGE in either member means no range.
  using Range = std::pair<unsigned long, unsigned long>;

  // With an explicit initial value (its kind should match `type`).
  Param(ParamGroup& group, ValueType type, Variant value, SNMP::SNMPInfo* snmpInfo,
        ParamSavePolicy policy = SAVE_ON_CHANGE, Range range = Range(NO_RANGE, NO_RANGE));
  // With the default value of `type`.
  Param(ParamGroup& group, ValueType type, SNMP::SNMPInfo* snmpInfo, ParamSavePolicy policy = SAVE_ON_CHANGE,
        Range range = Range(NO_RANGE, NO_RANGE));
  // A key this parameter had in an earlier version of the host program; for
  // a table also that version's column numbers, mapped to today's.
  struct FormerName {
    std::string key;
    std::map<unsigned int, unsigned int> columns;  // former column -> today's; 0 drops the cell
  };
  // Stays in its group's list: a parameter built again at this address in
  // the same group takes the same entry.
  virtual ~Param();
  Param(const Param&) = delete;
  Param& operator=(const Param&) = delete;

  void setName(const std::string& name);
  std::string getName() const;
  ParamGroup* getGroup() const { return group; }
  ValueType getType() const { return type; }
  ParamSavePolicy getSavePolicy() const { return savePolicy; }
  const Range& getRange() const { return range; }
  Variant& getValue() { return value; }
  const Variant& getValue() const { return value; }
  // A consistent copy of the value, safe from any thread.
  Variant getValueCopy() const;
  SNMP::SNMPInfo* getSnmpInfo() const { return snmpInfo; }
  bool isSnmpEntry() const { return snmpInfo != nullptr; }
  // The value the parameter was constructed with: what a factory reset
  // restores (ParamManager::factoryReset).
  const Variant& getFactoryValue() const { return factoryValue; }

  // Names the parameter had before. A load takes the lines of a former key
  // when the current key has none; the next save writes the current key
  // only. A table's cells under the former key are numbered by `columns`
  // (a column missing from the map keeps its number). Give a table whose
  // columns are renumbered a new key: a version that knows only the old
  // layout then keeps the new lines as foreign lines (see
  // ParamGroup::setKeepForeignLines) instead of misreading them.
  // REQUIRES: start-up, before the first load.
  void addFormerName(const std::string& key, const std::map<unsigned int, unsigned int>& columns = {});
  const std::vector<FormerName>& getFormerNames() const;

  // Silent writes: no validation, no notice, no save, no hook. The kind must
  // match the held one (asserted by the Variant). Safe from any thread.
  void setValue(const int& v);
  void setValue(const long& v);
  void setValue(TimeTicksValue& v);
  void setValue(const unsigned char (&v)[8]);
  void setValue(const char* v);
  void setValue(std::string& v);
  void setValue(const Table& v);
  void setValue(const Variant& v);

  void setValidator(const std::function<bool(const Variant&, const ExtraInfo*)>&& validator);
  void setFiller(const std::function<bool(Variant&, const ExtraInfo*)>&& filler);
  void addPostSet(const std::function<void(const Variant&, const ExtraInfo*)>&& hook);

  // IChangeListener: the SNMP side's way in.
  bool fill(Variant& v, const ExtraInfo* info) override;
  bool validate(const Variant& v, const ExtraInfo* info) override;
  void onChange(const std::string& reason, const ExtraInfo* info) override;
  // Tells the group (save policy, active group, table actions 3..5), runs the
  // post-set hooks while the group is active, then deletes `info`.
  void notifyAll(const std::string& reason, const ExtraInfo* info);

  // Writes one cell of a table parameter (which the agent serves as it is).
  // False only for a non-table parameter or a value kind that no cell takes;
  // a cell the Table refuses still gives true.
  bool setTableCellValue(const RowIdx& idx, const unsigned int& column, const Variant& v);
  // Copies one cell into `out` (UNDEFINED or of the cell's kind); false when
  // the row or the cell is missing.
  bool getTableCellValue(const RowIdx& idx, const unsigned int& column, Variant& out);
  // True for an index column or the RowStatus column of `def`.
  static bool isSpecialColumn(TableDef* def, unsigned int column);

  // The SNMP object of this parameter, or null when it is not published.
  // REQUIRES: a published parameter has its entry (asserted).
  template <class T>
  T* snmpEntryAs() {
    if (!isSnmpEntry()) return nullptr;
    return snmpInfo->entryAs<T>();
  }

  // Writes this parameter's lines into a group file: nothing for NEVER_SAVE,
  // the table's rows for TABLE, one single-value line otherwise.
  void save(FILE* file);
  void saveScalar(FILE* file);
  void saveTable(FILE* file);
  // The triplets of one row, each followed by a blank.
  std::string flattenTableRow(TableDef* def, TableRow& row);
  // The lines save() would write, without the file: the value's lines, or
  // the lines a checked load refused while the value has not changed since.
  std::string toFileText();
  // The same, appended to `out`.
  void appendFileText(std::string& out);
  // The value's own lines, appended to `out` (nothing for NEVER_SAVE).
  void appendValueText(std::string& out);

  // What only the library does with a parameter (the file reader's silent
  // loads, the lines a checked load refused, the hooks of a reset or an
  // import); defined with the library's sources, of no use to a host.
  struct Internal;

 private:
  // What only hosts that keep settings across versions use (former names,
  // lines a checked load refused), made on first use so that other
  // parameters stay small.
  struct Lineage;

  ZELTA_LOCAL void fillValue(const Variant& initial);
  ZELTA_LOCAL void fillWithDefaultValue();
  // Gives a published parameter the object that serves it over SNMP.
  ZELTA_LOCAL void fillSnmpInfo();
  ZELTA_LOCAL void appendTableText(std::string& out);

  std::string name;
  std::function<bool(const Variant&, const ExtraInfo*)> validator;
  std::function<bool(Variant&, const ExtraInfo*)> filler;
  std::vector<std::function<void(const Variant&, const ExtraInfo*)>> postSets;
  ParamGroup* group;
  SNMP::SNMPInfo* snmpInfo;
  Variant value;
  ValueType type;
  ParamSavePolicy savePolicy;
  Range range;
  Variant factoryValue;
  std::unique_ptr<Lineage> lineage;
};

// A named set of parameters stored together in one text file, saved about two
// seconds after the last announced change by a short-lived worker thread.
// Groups live for the life of the process: destroying one while its worker
// counts down is not supported.
//
// Thread safety: save() and onChange() may be called from any thread, also
// from a hook. A save takes its text under the library lock and writes the
// file without it; saves of one file never overlap, and a text taken earlier
// never overwrites one taken later. A change announced while the worker
// writes the file starts no countdown of its own: it reaches the file with
// the next save. setParams(), operator=, addOwnedParam(), setAtomicSave(),
// setKeepForeignLines() and setCheckedLoading() belong to start-up, before
// the first change.
class ZELTA_EXPORT ParamGroup {
 public:
  // Placeholder "__NO_NAME__" with no file; it exists to be assigned over.
  ParamGroup();
  // A file path of "__NO_NAME__" derives the path from the name: blanks
  // become "_" and ".txt" is appended.
  ParamGroup(const std::string& name, const std::string& filePath = "__NO_NAME__");
  // A countdown still running for this group ends without saving (the
  // group's parameters may be gone); a save in flight is waited for.
  ~ParamGroup();
  // Copies name, path, parameter list and active flag; never the countdown.
  ParamGroup(const ParamGroup& other);
  // Copies name, path and parameter list; the active flag stays as it was.
  ParamGroup& operator=(const ParamGroup& other);

  void setParams(const std::string& name, const std::string& filePath);
  const std::string& getName() const { return name; }
  const std::string& getFilePath() const { return filePath; }
  const std::vector<Param*>& getParams() const { return params; }

  // While inactive, parameter changes neither schedule a save nor run hooks.
  void setActiveMode(bool isActive) { active = isActive; }
  bool isActive() const { return active; }

  // Enrols a parameter once; a second enrolment only prints a trace marker.
  // Linear in the group's size (a parameter's constructor enrols it without
  // the search).
  void addOwnedParam(Param* param);

  // Writes the file now. False when it cannot be opened for writing.
  // REQUIRES: the group has a name (not "__NO_NAME__"; asserted).
  bool save();
  // Logs the change and (re)starts the two-tick auto-save countdown.
  void onChange(Param* param, const std::string& reason, const ExtraInfo* info);

  // When true, save() writes a temporary file in the same directory, syncs it
  // and renames it over the old file, then syncs the directory, so that a
  // power cut leaves either the old or the new complete file. Off by default.
  void setAtomicSave(bool enabled) { atomicSave = enabled; }
  bool isAtomicSave() const { return atomicSave; }

  // When true, a load of the group's file keeps, byte for byte, the lines no
  // registered parameter reads (keys of another version of the host program,
  // comments, blank lines, anything that is no entry), and every save writes
  // them after the group's own lines, so that after an upgrade, a downgrade
  // and an upgrade again the newer version finds its lines again. A change
  // the older version made to a parameter the newer one renamed is lost:
  // the newer version's current key wins over the former one. Lines of
  // other groups' parameters are read into those and not kept. Off by
  // default: such lines are gone after the next save.
  void setKeepForeignLines(bool keep) { keepForeign = keep; }
  bool keepsForeignLines() const { return keepForeign; }
  // The lines kept, each ending in "\n".
  std::string getForeignLines() const;
  // When true, every value loaded into a parameter of this group is checked
  // as an SNMP SET of it would be (ParamManager::setCheckedLoading does it
  // for every group).
  void setCheckedLoading(bool checked) { checkedLoading = checked; }
  bool isCheckedLoading() const { return checkedLoading; }
  // True while an auto-save countdown or its save runs.
  bool isWorkerRunning() const { return workerRunning.load(); }

  // What only the library changes (the groups' foreign lines); defined with
  // the library's sources, of no use to a host.
  struct Internal;

 private:
  friend class Param;

  // How a parameter's constructor enrols it: without addOwnedParam's search.
  ZELTA_LOCAL void enrol(Param* param);
  // A parameter of `group` is destroyed; one may be built again at its
  // address. `group` may be gone already: it is only compared.
  ZELTA_LOCAL static void leave(const ParamGroup* group, const Param* param);
  ZELTA_LOCAL void workerCode();
  // Sleeps one tick; false when the countdown is to end at once (the process
  // exits, or the group goes away).
  ZELTA_LOCAL bool waitOneTick();
  ZELTA_LOCAL bool writeFile(const std::string& text);

  std::string name;
  std::string filePath;
  std::vector<Param*> params;
  std::atomic<int> ticks{0};
  std::atomic<bool> workerRunning{false};
  std::atomic<bool> active{true};
  std::atomic<bool> abandoned{false};  // set when the group goes away during a countdown
  bool atomicSave = false;
  bool keepForeign = false;
  bool checkedLoading = false;
  std::string foreignLines;  // under the library lock
};

}  // namespace Quorvel::Kvan

#endif  // ZELTA_PARAM_H_
