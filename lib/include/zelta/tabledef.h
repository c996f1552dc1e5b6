// The value model: Variant, the tagged value of every parameter and table
// cell, and the table types (FieldType, TableDef, Table) that table-valued
// parameters hold.
//
// Thread safety: none of these types locks. A value is read and written under
// whatever serialises its owning parameter.
#ifndef ZELTA_TABLEDEF_H_
#define ZELTA_TABLEDEF_H_

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "zelta/export.h"

namespace Quorvel::Kvan {

// Type of a parameter or table column. The numbers are SNMP syntax numbers
// and are written into the parameter files: they never change.
enum ValueType : int {
  INTEGER = 2,
  STRING = 4,
  IPADDRESS = 64,
  TIMETICKS = 67,
  LOGADDRMAIN = 152,
  TABLE = 153,
};

// "No bound" in FieldType::min/max and in a parameter's range.
constexpr unsigned long NO_RANGE = 0xdeadbeef;

// Kind of value a Variant holds.
enum class VariantType : int {
  UNDEFINED = 0,
  LONG = 1,
  TIMETICKS = 2,
  LOGADDRMAIN = 3,
  STRING = 4,
  TABLEDEF = 5,
};

// An SNMP TimeTicks count (32 bits), a type of its own so that overloads tell
// it from a plain integer. TimeTicksValue{12345} makes one.
struct TimeTicksValue {
  uint32_t value;
};

// Index of a table row: one unsigned 32-bit component per index
// sub-identifier. Rows are ordered lexicographically by it.
using RowIdx = std::vector<unsigned long>;

// Context of a change: the row concerned (empty for scalars), the action
// (1 row created, 2 row deleted, 3 row activated, 4 row deactivated, 5 cell
// set, or one of ConfigAction below) and the column (-1 for the whole row or
// a scalar). The SNMP side allocates it; the listener that receives it
// through onChange deletes it.
struct ZELTA_EXPORT ExtraInfo {
  ExtraInfo(RowIdx rowIdx, int action, int column);

  RowIdx rowIdx;
  int action;
  int column;
};

// Action codes of the changes the library makes for the host rather than for
// an SNMP manager; far from SNMP's 1 to 5, so code that looks for those never
// takes one of these for a row action. Validators and post-set hooks receive
// them with an empty row index (a table's hooks once for the whole table)
// and column -1, or the row and column of the cell a validator is asked about.
enum ConfigAction : int {
  ACTION_LOADED = 101,         // a value a checked load read from a group file (validators)
  ACTION_IMPORTED = 102,       // a value of an imported configuration (validators, post-set hooks)
  ACTION_FACTORY_RESET = 103,  // the value the parameter was constructed with, restored (post-set hooks)
};

class Variant;
class Table;

// How a Variant reaches its owner (in practice the Param).
class ZELTA_EXPORT IChangeListener {
 public:
  // May fill `value` in just before it is read; false refuses the read.
  virtual bool fill(Variant& value, const ExtraInfo* info) = 0;
  // Accepts or refuses a proposed value.
  virtual bool validate(const Variant& value, const ExtraInfo* info) = 0;
  // Told after a change; takes ownership of `info`.
  virtual void onChange(const std::string& reason, const ExtraInfo* info) = 0;

 protected:
  ~IChangeListener() = default;
};

// A tagged value: a 32-bit integer, a TimeTicks count, a logical address, a
// string (IP addresses are dotted-quad strings) or a table. Strings and tables
// live on the heap and are owned by the Variant. A Variant changes kind only
// while UNDEFINED; the typed accessors abort on the wrong kind.
class ZELTA_EXPORT Variant {
 public:
  Variant();
  Variant(int value);                     // NOLINT(google-explicit-constructor)
  Variant(long value);                    // NOLINT: 32-bit semantics on every build
  Variant(TimeTicksValue value);          // NOLINT
  Variant(const unsigned char* logaddr);  // NOLINT: copies 8 bytes
  Variant(const char* value);             // NOLINT
  Variant(std::string value);             // NOLINT
  Variant(const Table& value);            // NOLINT: deep copy
  // Copies the value, never the listener.
  Variant(const Variant& other);
  // Takes the value, never the listener; `other` is left UNDEFINED.
  Variant(Variant&& other) noexcept;
  ~Variant();

  // Same kind (or an UNDEFINED target) only; the listener stays as it was and
  // nobody is notified.
  Variant& operator=(const Variant& other);
  // The same, taking the value of `other`, which is left UNDEFINED.
  Variant& operator=(Variant&& other);
  // Same kind only. Integers, time ticks and addresses compare by value;
  // strings and tables by identity; two UNDEFINED values are never equal.
  bool operator==(const Variant& other) const;

#if UINTPTR_MAX > 0xFFFFFFFFu
  VariantType getType() const { return static_cast<VariantType>(kindAndListener & kKindBits); }
#else
  VariantType getType() const { return type; }
#endif
  const long& getLong() const;
  const TimeTicksValue getTimeTicks() const;
  const uint8_t (&getLogaddrMain() const)[8];
  void toLogaddrMain(uint8_t* out) const;
  const std::string& getString() const;
  // An empty address reads (and is stored) as "0.0.0.0".
  const std::string& getIPAddress() const;
  const Table& getTable() const;
  Table* getMutableTable();

  std::string toString() const;

  void setListener(IChangeListener* listener);
#if UINTPTR_MAX > 0xFFFFFFFFu
  IChangeListener* getListener() const { return reinterpret_cast<IChangeListener*>(kindAndListener & ~kKindBits); }
#else
  IChangeListener* getListener() const { return listener; }
#endif
  // True without a listener; otherwise the listener's verdict (ExtraInfo null).
  bool callValidator(const Variant& proposed);
  bool callFiller(const ExtraInfo* info);
  // Hands `info` to the listener, which then owns it; without a listener
  // nothing happens and `info` stays the caller's.
  void notifyListener(std::string reason, ExtraInfo* info);

  // Frees the string or table and makes the value UNDEFINED.
  void deleteInternalStorage();

 private:
  ZELTA_LOCAL void setKind(VariantType kind);

#if UINTPTR_MAX > 0xFFFFFFFFu
  // The kind and the listener share a word on 64-bit builds: a listener's
  // address has its low bits clear, so the kind fits there and a table cell
  // takes 16 bytes instead of 24.
  static constexpr uintptr_t kKindBits = 7;
  static_assert(alignof(IChangeListener) > kKindBits, "a listener's address leaves the kind's bits clear");
  uintptr_t kindAndListener;
#else
  VariantType type;
  IChangeListener* listener;
#endif
  union {
    long l;
    TimeTicksValue ticks;
    uint8_t logaddr[8];
    std::string* str;
    Table* tbl;
  } val;
};

using Validator = std::function<bool(const Variant&, const ExtraInfo*)>;
using Filler = std::function<bool(Variant&, const ExtraInfo*)>;
using PostSet = std::function<void(const Variant&, const ExtraInfo*)>;

// Type of one value column: bounds (lengths for strings, values for
// integers; NO_RANGE for none) and an optional validator.
class ZELTA_EXPORT FieldType {
 public:
  FieldType();
  FieldType(ValueType type, unsigned min, unsigned max);
  FieldType(ValueType type, std::function<bool(const Variant&, const ExtraInfo*)>&& validator, unsigned min,
            unsigned max);

  // True only when neither bound is NO_RANGE.
  bool hasRange() const;
  ValueType& getType() { return type; }

  ValueType type;
  unsigned min;
  unsigned max;
  Validator validator;
};

// Shape of a table: index columns, the RowStatus column and the typed value
// columns. Owned by the host; tables only point to it.
class ZELTA_EXPORT TableDef {
 public:
  TableDef();
  TableDef(std::vector<unsigned long> indexColumns, unsigned int rowStatusColumn, int numIdx);
  TableDef(std::vector<unsigned long> indexColumns, unsigned int rowStatusColumn,
           std::map<unsigned int, FieldType>& fields, int numIdx);

  std::vector<unsigned long> indexColumns;
  unsigned int rowStatusColumn;
  int numColumns;
  std::map<unsigned int, FieldType> fields;
  int numIdx;
};

// Column number to cell value; value columns only.
using TableRow = std::map<unsigned int, Variant>;

// Rows of a table, keyed by index. Copies share the definition and copy the
// rows deeply. Lookups, insertions and deletions are logarithmic.
//
// Each row also has the RowStatus an SNMP manager sees: active, unless an
// SNMP manager created the row and has not activated it yet, or deactivated
// it. Rows the host adds are active; only active rows are written to the
// group file.
class ZELTA_EXPORT Table {
 public:
  Table();
  explicit Table(TableDef* def);
  Table(const Table& other);
  Table& operator=(const Table& other);

  // Throws the std::string "Row <.idx> does not exist!" when absent.
  TableRow& operator[](RowIdx idx);
  const TableRow& operator[](RowIdx idx) const;
  // A copy of the row, or an empty row when absent.
  TableRow getRow(RowIdx idx) const;
  // True and `out` assigned when the row exists; `out` untouched otherwise.
  bool getRow(RowIdx idx, TableRow& out);
  // First row (in index order) whose `column` equals `value`.
  bool findRowWithMatch(const unsigned int& column, const Variant& value, RowIdx& out);
  bool findRowWithMatch(const unsigned int& column, const Variant& value, TableRow& out);
  // The row, (re)initialised with the typed defaults of every value column.
  TableRow& addRow(const RowIdx& idx);
  // addRow when absent; otherwise the existing row unchanged.
  TableRow& addOrUpdateRow(const RowIdx& idx);
  // For a loader that sets most cells itself: the row of `idx`, created
  // without any cell when absent (`created` then true). Give a row created so
  // its other cells with completeRow().
  TableRow& openRow(const RowIdx& idx, bool& created);
  // Adds the default cell of every value column the row has no cell for.
  void completeRow(TableRow& row) const;
  // Store one cell; false when the column does not take that kind of value.
  // A missing row is created (without defaults).
  bool setCellValue(const RowIdx& idx, const unsigned int& column, const std::string& value);
  bool setCellValue(const RowIdx& idx, const unsigned int& column, const unsigned char (&value)[8]);
  bool setCellValue(const RowIdx& idx, const unsigned int& column, const long& value);
  // One of the three above, chosen by the kind of `value` (a TimeTicks count
  // goes as a number); false for a kind no cell holds.
  bool setCellValue(const RowIdx& idx, const unsigned int& column, const Variant& value);
  bool deleteRow(const RowIdx& idx);
  // Calls `fn` on every row in ascending index order.
  void forEachRow(const std::function<void(const RowIdx&, TableRow&)>&& fn);
  // Index for a row appended after the last one (numIdx zeros when empty).
  RowIdx getNextAvailableRowIdx();
  // First free index at or after `start`, stepping the last component.
  RowIdx getNextAvailableRowIdx(const RowIdx& start);

  TableDef* getDef() const { return def; }
  const std::map<RowIdx, TableRow>& getRows() const { return rows; }

  // RowStatus of a row: 1 active, 2 notInService, 3 notReady (a value column
  // without a value yet, see setRowStatus); -1 when absent.
  int getRowStatus(const RowIdx& idx) const;
  bool isRowActive(const RowIdx& idx) const { return getRowStatus(idx) == 1; }
  // Makes an existing row active (`active`), or not in service with the value
  // columns in `unset` still to be given a value: notReady until each of them
  // is written through setCellValue, notInService then. Nothing for an
  // absent row.
  void setRowStatus(const RowIdx& idx, bool active, const std::vector<unsigned int>& unset = {});
  // Makes every row active, as a whole new table from the host is.
  void activateAllRows() { inactive.clear(); }
  // True when `column` of a notReady row has no value yet.
  bool isCellUnset(const RowIdx& idx, unsigned int column) const;
  // The rows that are not active, in index order, each with an UNDEFINED
  // cell for every value column still without a value.
  const std::map<RowIdx, TableRow>& getInactiveRows() const { return inactive; }

  // When 1, SNMP writes to cells of active rows are refused. Never changed by
  // the library.
  uint32_t activeRowsReadOnly;

 private:
  // Stores a cell of the column's kind, creating the row (without defaults)
  // and the cell as needed.
  ZELTA_LOCAL void putCell(const RowIdx& idx, unsigned int column, Variant&& cell);
  // A cell of `column` got a value: the row is one column nearer readiness.
  ZELTA_LOCAL void cellWritten(const RowIdx& idx, unsigned int column);

  TableDef* def;
  std::map<RowIdx, TableRow> rows;
  // Rows that are not active, with their cells still without a value; the
  // others (nearly always all) cost nothing here.
  std::map<RowIdx, TableRow> inactive;
};

}  // namespace Quorvel::Kvan

#endif  // ZELTA_TABLEDEF_H_
