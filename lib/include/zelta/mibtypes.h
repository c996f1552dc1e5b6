// SNMP exposure of parameters: SNMPInfo (where and how a parameter is
// published), the seven scalar leaves and DynMibTable, the conceptual table
// with a RowStatus column that publishes a table-valued parameter.
//
// Every object here can be built before any agent exists; the agent only
// registers the objects with Net-SNMP when it starts and unregisters them when
// it stops. An SNMPInfo owns its entry, so an entry stays valid for the
// parameter across agent restarts.
//
// Thread safety: the Net-SNMP handler steps (check_set, set_value,
// get_request and the table's steps) run on the agent thread with the agent
// lock held. DynMibTable's public operations take that lock themselves, so
// the loading thread may call them while the agent runs. Bound Variants are not locked beyond that: whatever serialises
// the parameter's value with the host's own threads is the parameter's business.
#ifndef ZELTA_MIBTYPES_H_
#define ZELTA_MIBTYPES_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "zelta/export.h"
#include "zelta/tabledef.h"

// Net-SNMP's types, declared here so that no Net-SNMP header is needed.
struct variable_list;                 // netsnmp_variable_list
struct netsnmp_agent_request_info_s;  // netsnmp_agent_request_info
struct netsnmp_request_info_s;        // netsnmp_request_info
struct netsnmp_handler_registration_s;
struct netsnmp_tdata_s;
struct netsnmp_table_registration_info_s;

namespace Quorvel::Kvan {
class ValueCodec;
}

namespace Quorvel::Kvan::SNMP {

// Access of a published object; 0 means "not published".
enum mib_access { NOACCESS = 0, READONLY = 1, READWRITE = 2, READCREATE = 3 };

class AgentEngine;
class Notifier;

// Base of every published object: its OID, its access and how it registers
// with the agent. Objects are tied to their address (Net-SNMP points at
// them), so they cannot be copied.
class ZELTA_EXPORT MibEntry {
 public:
  virtual ~MibEntry();
  MibEntry(const MibEntry&) = delete;
  MibEntry& operator=(const MibEntry&) = delete;

  // The OID as given, without a leading dot.
  const std::string& getOid() const { return oidText; }
  mib_access get_access() const { return static_cast<mib_access>(access.load()); }
  // True while registered with a running agent.
  bool isRegistered() const { return registration != nullptr; }
  // Sub-identifiers of the OID; empty when the text is not a valid OID.
  const std::vector<unsigned long>& oidParts() const { return oidSubIds; }
  // Opts the object in to change notifications: every change of it that a
  // SET commits (a value, a cell, a row's RowStatus) is sent to the agent's
  // notification targets, once per changed binding. Off by default; any
  // thread, also while the agent runs.
  void setChangeNotification(bool on) { changeNotification.store(on); }
  bool sendsChangeNotification() const { return changeNotification.load(); }

 protected:
  MibEntry(const std::string& oid, mib_access access);

  void storeAccess(mib_access mode) { access.store(static_cast<int>(mode)); }

  // Registers the object's handler with the agent. REQUIRES: agent lock held,
  // agent initialising. False (with an ERROR line) when Net-SNMP refuses.
  virtual bool registerEntry() = 0;
  // Undoes registerEntry; harmless when not registered. REQUIRES: agent lock.
  virtual void unregisterEntry() = 0;

  // Set while registered; owned by Net-SNMP.
  netsnmp_handler_registration_s* registration = nullptr;

 private:
  friend class AgentEngine;
  friend class ScalarIndex;

  std::string oidText;
  std::vector<unsigned long> oidSubIds;
  std::atomic<int> access;
  std::atomic<bool> changeNotification{false};
};

// Lets the host change an object's access at run time; the next request
// sees the new mode.
class ZELTA_EXPORT IAccessModeChangeable {
 public:
  virtual void setAccess(mib_access access) = 0;

 protected:
  ~IAccessModeChangeable() = default;
};

// Where and how one parameter is published: OID text (with or without a
// leading dot), access and, once built, the object that serves it.
class ZELTA_EXPORT SNMPInfo {
 public:
  SNMPInfo(const std::string& oid, mib_access access);
  ~SNMPInfo();
  SNMPInfo(const SNMPInfo&) = delete;
  SNMPInfo& operator=(const SNMPInfo&) = delete;

  const std::string& getOid() const { return oid; }
  mib_access getAccess() const { return access; }
  // Takes ownership of `entry`. REQUIRES: no entry set yet (asserted:
  // "mibEntry == __null").
  void setEntry(MibEntry* entry);
  MibEntry* getEntry() const { return mibEntry.get(); }
  // The entry as T*, or null when it is of another class.
  // REQUIRES: an entry is set (asserted: "mibEntry != __null").
  template <class T>
  T* entryAs() {
    ZELTA_ASSERT(mibEntry != nullptr, "mibEntry != __null");
    return dynamic_cast<T*>(mibEntry.get());
  }

 private:
  std::string oid;
  mib_access access;
  std::unique_ptr<MibEntry> mibEntry;
};

// Value of an SNMP SET binding as a 32-bit number: TimeTicks unsigned,
// INTEGER signed; anything else gives the marker 0xDEADBEEF (as a signed
// 32-bit value, -559038737), which only a validator can refuse.
ZELTA_EXPORT long vbxToLong(const ::variable_list& vb);
// Value of a binding as bytes: an IpAddress as dotted text; an OCTET STRING
// of up to 1023 bytes as it is; anything else is logged and read as "ERROR".
ZELTA_EXPORT std::string vbxToString(const ::variable_list& vb);

// Common part of the scalar leaves, bound to the parameter's Variant (not
// owned; it must outlive the leaf). A GET runs the Variant's filler and
// answers with its value; a SET is checked (writable, type, length, the
// validator, an integer's range, in this order), then at commit written into
// the Variant and announced to its listener. The seven classes below differ
// only in the value type and the bounds they check.
class ZELTA_EXPORT MibLeaf : public MibEntry, public IAccessModeChangeable {
 public:
  ~MibLeaf() override;

  void setAccess(mib_access access) override;
  // The type of the parameter the leaf serves.
  ValueType getType() const { return type; }
  // The bounds SET values are checked against: values of an integer,
  // lengths of a string. False when the leaf has none.
  bool getBounds(long& min, long& max) const {
    min = boundMin;
    max = boundMax;
    return bounded;
  }

  // Handler steps, on the agent thread with the agent lock held.
  // The checks of a SET value: 0, or the error status (notWritable,
  // wrongType, wrongLength, wrongValue).
  int check_set(const ::variable_list& vb);
  // The parameter's verdict on a SET value, and an integer's range.
  bool value_ok(const ::variable_list& vb);
  // Writes the value into the Variant and notifies its listener once.
  // Returns an SNMP error status (0 = done). A leaf that is not writable
  // ignores the write and returns 0.
  int set_value(const ::variable_list& vb);
  // Runs the filler and answers the request; false when the filler refused.
  bool get_request(netsnmp_agent_request_info_s* reqinfo, netsnmp_request_info_s* request);
  // Asks memory for the bound value and its owner before a request reads them.
  void prefetchValue() const;

 protected:
  // Bounds: value bounds of an integer, length bounds of a string.
  MibLeaf(SNMPInfo* info, Variant* value, ValueType type, const char* reason);
  MibLeaf(SNMPInfo* info, Variant* value, ValueType type, const char* reason, long min, long max);

  bool registerEntry() override;
  void unregisterEntry() override;

  friend class Notifier;  // reads the value of a change the host reports

  Variant* value;
  ValueType type;
  const char* reason;
  bool bounded = false;
  long boundMin = 0;
  long boundMax = 0;
};

class ZELTA_EXPORT IntMibLeaf : public MibLeaf {
 public:
  IntMibLeaf(SNMPInfo* info, Variant* value);

 protected:
  IntMibLeaf(SNMPInfo* info, Variant* value, int min, int max);
};

// An integer leaf whose SET values must lie in min..max. The validator is
// asked first and thus sees out-of-range values too.
class ZELTA_EXPORT MinMaxIntMibLeaf : public IntMibLeaf {
 public:
  MinMaxIntMibLeaf(SNMPInfo* info, Variant* value, int min, int max);
};

class ZELTA_EXPORT TimeTicksMibLeaf : public MibLeaf {
 public:
  TimeTicksMibLeaf(SNMPInfo* info, Variant* value);
};

// An IpAddress leaf over a dotted-quad string parameter.
class ZELTA_EXPORT IPAddressMibLeaf : public MibLeaf {
 public:
  IPAddressMibLeaf(SNMPInfo* info, Variant* value);
};

// An OCTET STRING leaf of up to 1023 bytes.
class ZELTA_EXPORT StringMibLeaf : public MibLeaf {
 public:
  StringMibLeaf(SNMPInfo* info, Variant* value);

 protected:
  StringMibLeaf(SNMPInfo* info, Variant* value, unsigned int min, unsigned int max);
};

// A string leaf whose SET values must be min..max bytes long; the length is
// checked before the validator, which never sees a value of the wrong length.
class ZELTA_EXPORT MinMaxStringMibLeaf : public StringMibLeaf {
 public:
  MinMaxStringMibLeaf(SNMPInfo* info, Variant* value, unsigned int min, unsigned int max);
};

// The device's logical address as an OCTET STRING of exactly 8 bytes.
class ZELTA_EXPORT LogaddrmainMibLeaf : public MibLeaf {
 public:
  LogaddrmainMibLeaf(SNMPInfo* info, Variant* value);
};

// A value as SNMP carries it: INTEGER and TimeTicks in `num`; the bytes of an
// OCTET STRING (a logical address: its 8 bytes) and the 4 bytes of an
// IpAddress in `bytes`.
struct SnmpValue {
  long num = 0;
  std::string bytes;
};

// The agent's copy of one table cell: its column, its type (the column's
// ValueType) and its current SNMP value. INTEGER and TIMETICKS values are in
// `num`; STRING and LOGADDRMAIN bytes and the 4 bytes of an IPADDRESS are in
// `bytes`. IPADDRESS and LOGADDRMAIN cells of a row created over SNMP have no
// value until one is set, and the row cannot be active before.
struct ZELTA_EXPORT MibCell : SnmpValue {
  unsigned int column = 0;
  ValueType type = INTEGER;
  bool hasValue = false;
};

// The agent's copy of one row: RowStatus (1 active, 2 notInService,
// 3 notReady) and one cell per published value column, in column order.
struct MibRow {
  int rowStatus = 1;
  std::vector<MibCell> cells;
  void* tdataRow = nullptr;  // the row's Net-SNMP twin while registered

  const MibCell* cell(unsigned int column) const {
    for (const MibCell& c : cells)
      if (c.column == column) return &c;
    return nullptr;
  }
  MibCell* cell(unsigned int column) { return const_cast<MibCell*>(static_cast<const MibRow*>(this)->cell(column)); }
  // Ready for service: every cell has a value.
  bool isReady() const {
    for (const MibCell& c : cells)
      if (!c.hasValue) return false;
    return true;
  }
};

// A table-valued parameter as an SNMP conceptual table with a RowStatus
// column. The SNMPInfo's OID is the table's entry OID (ending in .1); a cell
// is entry.column.index. Index columns are not accessible; every row has
// numIdx index components (any number when numIdx is -1).
//
// The object keeps the agent's copy of each row (RowStatus and cell values);
// GET and GETNEXT answer from it after the Variant's filler has run. The
// Table inside the Variant mirrors it: SNMP writes go to both, and every
// change reaches the Variant's listener with a new ExtraInfo (row index,
// action code, column) that the listener owns.
class ZELTA_EXPORT DynMibTable : public MibEntry, public IAccessModeChangeable {
 public:
  DynMibTable(SNMPInfo* info, Variant* value);
  ~DynMibTable() override;

  void setAccess(mib_access access) override;
  // The table's shape (index columns, RowStatus column, value columns), or
  // null for a table without definition.
  const TableDef* getDefinition() const { return definition; }

  // Adds (or updates) a row as loaded from a file: the agent's copy takes the
  // given cells and the row is active at once, with no notice. The Table row
  // is created with defaults if absent and otherwise left as it is. False,
  // and nothing changed, when the index has the wrong number of components.
  bool addRow(std::vector<unsigned long> indexes, std::map<unsigned int, Variant> row);
  // addRow without copying the index and the cells: how the file reader
  // hands over a loaded row.
  bool loadRow(const RowIdx& indexes, const TableRow& row);
  // Makes the agent's rows exactly the Table's rows, each active with the
  // Table's cells, with no notice: what a silent write of a whole new table
  // needs. Rows whose index has the wrong number of components are left out.
  void reloadFromTable();
  // True when the row exists and its RowStatus is active.
  bool isRowActive(const std::vector<unsigned long>& indexes);
  // isRowActive for every row of `table`, in index order, in one merged pass
  // over both sorted row sets: what the file writer needs for a large table.
  std::vector<bool> activeRowFlags(const Table& table);
  // Removes the row from the agent and from the Table, announcing
  // "new row deactivated" (if it was active) and "removed row".
  void removeRow(const std::vector<unsigned long>& indexes);
  // The same with the index as dotted text ("1.9").
  void removeRow(const std::string& index);
  // The agent's copy of a cell, or null (with a trace line) when the row or
  // the column does not exist. Valid until the row is removed.
  MibCell* getCell(const std::vector<unsigned long>& indexes, const unsigned int& column);
  // Writes the agent's copy of one cell only (no notice, no Table write).
  // False (with a trace line) when the cell is missing or cannot take the
  // value (a number for a string column, text that is not an address).
  bool setCellValue(const std::vector<unsigned long>& indexes, const unsigned int& column, const long& value);
  bool setCellValue(const std::vector<unsigned long>& indexes, const unsigned int& column, const std::string& value);
  // The most rows a manager can make the table hold, so that nobody can
  // flood it: a SET that would create a row beyond it answers
  // resourceUnavailable and changes nothing. Rows a PDU destroys make room
  // for those it creates. Rows the host adds (addRow, a file, Param's
  // setValue) are not limited. 0 (the default) = no limit. Any thread.
  void setMaxRows(size_t limit) { maxRowCount.store(limit); }
  size_t getMaxRows() const { return maxRowCount.load(); }
  // RowStatus of a row: -1 when absent, otherwise 1, 2 or 3.
  int getRowStatus(const std::vector<unsigned long>& indexes);
  int getRowStatus(const std::string& index);

  // Index components as dotted text: {1, 9} gives "1.9".
  std::string convertToOidx(const std::vector<unsigned long>& indexes) const;
  // Every sub-identifier of a dotted OID, in order (empty when it does not
  // parse).
  std::vector<unsigned long> convertToIndexOids(const std::string& oid) const;
  // Locates the cell named by a full OID: the shortest tail (1 to 7
  // sub-identifiers) that names an existing row is the index, and the
  // sub-identifier before it the column.
  bool findCellCoords(const std::string& oid, std::vector<unsigned long>& indexes, int& column);
  // True when `oid` names this table's RowStatus column; `indexes` then gets
  // the sub-identifiers after the column.
  bool isNewRowCreationRequest(const std::string& oid, std::vector<unsigned long>& indexes);
  // Copies the agent's copy of a row into the Table. REQUIRES: the row exists
  // (asserted: "mtRow != __null").
  void refreshDataOnCreateRow(const std::vector<unsigned long>& indexes);
  // Asks the Variant's filler about one cell (ExtraInfo {index, 5, column});
  // false when it refuses.
  bool callFiller(const std::vector<unsigned long>& indexes, unsigned int column);

  // Net-SNMP handler of the table; internal.
  struct Handler;

 protected:
  bool registerEntry() override;
  void unregisterEntry() override;

 private:
  friend struct Handler;
  friend class Notifier;  // reads the row of a change the host reports

  // Handler steps, on the agent thread with the agent lock held. `pending`
  // is the PDU's set of changes for this table.
  // GET (and GETNEXT, turned into GET by the helpers): filler, then answer.
  void get_request(netsnmp_agent_request_info_s* reqinfo, netsnmp_request_info_s* requests);
  // RESERVE1: each binding on its own (access, index, type, length, range).
  void prepare_set_request(netsnmp_agent_request_info_s* reqinfo, netsnmp_request_info_s* requests, void* pending);
  // RESERVE2: the bindings of each row together (RowStatus, readiness).
  void check_row_transitions(netsnmp_agent_request_info_s* reqinfo, void* pending);
  // ACTION: activeRowsReadOnly and the column validators.
  void validate_set_request(netsnmp_agent_request_info_s* reqinfo, void* pending);
  // COMMIT: applies the PDU to the agent's copy and the Table, and notifies.
  void commit_set_request(netsnmp_agent_request_info_s* reqinfo, void* pending);
  void freeRegistrationData_nolock();

  void initIndexes();
  void initRowStatus();
  void initFields();
  void initValues();
  // The cell prototype of a value column: its default (or no value). False,
  // with an ERROR line, for a type that cannot be published.
  bool makeLeaf(unsigned int column, const FieldType& type, MibCell& out) const;
  MibRow newRow() const;
  std::map<RowIdx, MibRow>::iterator insertRow_nolock(std::map<RowIdx, MibRow>::iterator hint, const RowIdx& indexes);
  void loadActiveRow_nolock(MibRow& agentRow, const TableRow& row);
  bool insertTdataRow_nolock(const std::vector<unsigned long>& indexes, MibRow& row);
  void eraseRow_nolock(std::map<RowIdx, MibRow>::iterator it);
  void notify(const char* reason, const RowIdx& indexes, int action, int column);
  void row_added(const RowIdx& indexes);
  void row_activated(const RowIdx& indexes, MibRow& row);
  void row_deactivated(const RowIdx& indexes, MibRow& row);
  void row_delete(const RowIdx& indexes);
  bool writeTableCell(const RowIdx& indexes, const MibCell& cell);
  // Writes the agent's copy of one cell with the value `convert` makes for
  // the cell's type; false when there is no such cell or no such value.
  bool storeCell(const RowIdx& indexes, unsigned int column,
                 const std::function<bool(const ValueCodec&, Variant&)>& convert);

  Variant* value;
  Table* table;
  TableDef* definition;
  std::map<unsigned int, FieldType> columns;
  std::vector<MibCell> prototypes;  // one per published value column
  unsigned int rowStatusColumn = 0;
  int numIdx = -1;
  std::map<RowIdx, MibRow> rows;
  netsnmp_tdata_s* tdata = nullptr;
  netsnmp_table_registration_info_s* tableInfo = nullptr;
  std::atomic<size_t> maxRowCount{0};
};

}  // namespace Quorvel::Kvan::SNMP

#endif  // ZELTA_MIBTYPES_H_
