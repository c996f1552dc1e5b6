// SNMP exposure of parameters: SNMPInfo (where and how a parameter is
// published), the seven scalar leaves and DynMibTable, the conceptual table
// with a RowStatus column that publishes a table-valued parameter.
//
// Every object here can be built before any agent exists; the agent only
// registers the objects with Net-SNMP when it starts and unregisters them when
// it stops. An SNMPInfo owns its entry, so an entry stays valid for the
// parameter across agent restarts.
//
// Thread safety: the agent serves requests on its own thread with the library
// lock held, and DynMibTable's public operations take that lock themselves,
// so the loading thread may call them while the agent runs. Bound Variants are
// not locked beyond that: whatever serialises the parameter's value with the
// host's own threads is the parameter's business.
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

namespace Quorvel::Kvan::SNMP {

// Access of a published object; 0 means "not published".
enum mib_access { NOACCESS = 0, READONLY = 1, READWRITE = 2, READCREATE = 3 };

class SNMPInfo;

// Base of every published object: its OID and its access. Objects are tied to
// their address (the agent points at them), so they cannot be copied.
class ZELTA_EXPORT MibEntry {
 public:
  virtual ~MibEntry();
  MibEntry(const MibEntry&) = delete;
  MibEntry& operator=(const MibEntry&) = delete;

  // The OID as given, without a leading dot.
  std::string getOid() const;
  mib_access get_access() const { return static_cast<mib_access>(access.load()); }
  // True while registered with a running agent.
  bool isRegistered() const { return registered; }
  // Sub-identifiers of the OID; empty when the text is not a valid OID.
  std::vector<unsigned long> oidParts() const { return std::vector<unsigned long>(oidData(), oidData() + oidCount); }
  // The same in place, without a copy: oidLength() sub-identifiers.
  const uint32_t* oidData() const { return oidCount <= kInlineSubIds ? inlineIds : heapIds; }
  size_t oidLength() const { return oidCount; }
  // Opts the object in to change notifications: every change of it that a
  // SET commits (a value, a cell, a row's RowStatus) is sent to the agent's
  // notification targets, once per changed binding. Off by default; any
  // thread, also while the agent runs.
  void setChangeNotification(bool on) { changeNotification.store(on); }
  bool sendsChangeNotification() const { return changeNotification.load(); }

 protected:
  // An object published where `info` says; `info` owns it, and so outlives it.
  explicit MibEntry(const SNMPInfo& info);

  void storeAccess(mib_access mode) { access.store(static_cast<uint8_t>(mode)); }
  // Set by the agent as it registers and unregisters the object.
  void setRegistered(bool on) { registered = on; }

 private:
  // Sub-identifiers are 32 bits on the wire; most OIDs fit in place, so a
  // published scalar needs no second heap block for its OID.
  static constexpr uint8_t kInlineSubIds = 12;

  const std::string* oidText;  // the SNMPInfo's
  uint8_t oidCount = 0;
  std::atomic<uint8_t> access;
  std::atomic<bool> changeNotification{false};
  bool registered = false;
  union {
    uint32_t inlineIds[kInlineSubIds];
    uint32_t* heapIds;  // owned, when there are more
  };
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
  bool getBounds(long& min, long& max) const;

  // The steps of a request on the leaf (a GET, the checks and the commit of a
  // SET) over Net-SNMP's types; defined with the library's sources, of no use
  // to a host.
  struct Internal;

 protected:
  // Bounds: value bounds of an integer, length bounds of a string.
  MibLeaf(SNMPInfo* info, Variant* value, ValueType type);
  MibLeaf(SNMPInfo* info, Variant* value, ValueType type, uint32_t min, uint32_t max);

 private:
  Variant* value;
  ValueType type;
  bool bounded = false;
  // The bounds' 32 bits as the host gave them: signed for an integer,
  // unsigned for a string's lengths.
  uint32_t boundMin = 0;
  uint32_t boundMax = 0;
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

// A table-valued parameter as an SNMP conceptual table with a RowStatus
// column. The SNMPInfo's OID is the table's entry OID (ending in .1); a cell
// is entry.column.index. Index columns are not accessible; every row has
// numIdx index components (any number when numIdx is -1).
//
// The agent serves the Table inside the Variant itself, its rows and their
// RowStatus (Table::getRowStatus): GET and GETNEXT answer from it after the
// Variant's filler has run, in OID order by binary search, and SETs write it
// at commit. Every change a SET makes reaches the Variant's listener with a
// new ExtraInfo (row index, action code, column) that the listener owns.
class ZELTA_EXPORT DynMibTable : public MibEntry, public IAccessModeChangeable {
 public:
  DynMibTable(SNMPInfo* info, Variant* value);
  ~DynMibTable() override;

  void setAccess(mib_access access) override;
  // The table's shape (index columns, RowStatus column, value columns), or
  // null for a table without definition.
  const TableDef* getDefinition() const;

  // Adds (or updates) a row as loaded from a file: the Table row takes the
  // given cells (created with defaults if absent) and is active at once,
  // with no notice. False, and nothing changed, when the index has the wrong
  // number of components, none, or one above 32 bits.
  bool addRow(std::vector<unsigned long> indexes, std::map<unsigned int, Variant> row);
  // True when the row exists and its RowStatus is active.
  bool isRowActive(const std::vector<unsigned long>& indexes);
  // Removes the row from the Table, announcing "new row deactivated" (if it
  // was active) and "removed row".
  void removeRow(const std::vector<unsigned long>& indexes);
  // The same with the index as dotted text ("1.9").
  void removeRow(const std::string& index);
  // The Table's cell, or null (with a trace line) when the row or the cell
  // does not exist. Valid until the row is removed.
  Variant* getCell(const std::vector<unsigned long>& indexes, const unsigned int& column);
  // Writes one cell of an existing row, converted for the column's type (no
  // notice). False (with a trace line) when the row or the column is missing
  // or the cell cannot take the value (a number for a string column, text
  // that is not an address).
  bool setCellValue(const std::vector<unsigned long>& indexes, const unsigned int& column, const long& value);
  bool setCellValue(const std::vector<unsigned long>& indexes, const unsigned int& column, const std::string& value);
  // The most rows a manager can make the table hold, so that nobody can
  // flood it: a SET that would create a row beyond it answers
  // resourceUnavailable and changes nothing. Rows a PDU destroys make room
  // for those it creates. Rows the host adds (addRow, a file, Param's
  // setValue) are not limited. 0 (the default) = no limit. Any thread.
  void setMaxRows(size_t limit);
  size_t getMaxRows() const;
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
  // A row created over SNMP is the Table's row from the start: nothing is
  // left to copy. REQUIRES: the row exists (asserted: "mtRow != __null").
  void refreshDataOnCreateRow(const std::vector<unsigned long>& indexes);
  // Asks the Variant's filler about one cell (ExtraInfo {index, 5, column});
  // false when it refuses.
  bool callFiller(const std::vector<unsigned long>& indexes, unsigned int column);

  // What serves the table (its shape as published, the agent's handler and
  // the steps of a request); defined with the library's sources, of no use to
  // a host.
  struct Impl;

 private:
  std::unique_ptr<Impl> impl;
};

}  // namespace Quorvel::Kvan::SNMP

#endif  // ZELTA_MIBTYPES_H_
