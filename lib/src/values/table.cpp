// FieldType, TableDef and Table: the shape and the content of table-valued
// parameters.
#include <cstdint>
#include <string>
#include <utility>

#include "base/trace.h"
#include "values/valuecodec.h"
#include "zelta/addresses.h"
#include "zelta/logging.h"
#include "zelta/tabledef.h"
#include "zelta/text.h"

namespace Quorvel::Kvan {

namespace {

// The DEBUG line of a stored cell, built only when it would be written.
void logStored(const char* kind, const std::string& text) {
  LogChannel& channel = Log["libzelta"];
  if (channel.level >= DEBUG) channel.append(DEBUG, "Table: setCellValue<%s>: %s\n", kind, text.c_str());
}

// Row index components are SNMP sub-identifiers: 32 bits on every build.
void stepLastComponent(RowIdx& idx, int numIdx) {
  unsigned long& last = idx[static_cast<size_t>(numIdx - 1)];
  last = static_cast<uint32_t>(last + 1);
}

void logNewRowId(const RowIdx& idx) {
  LogChannel& channel = Log["libzelta"];
  // Skip the flattening when the line would be dropped anyway.
  if (channel.level >= VERBOSE) channel.append(VERBOSE, "Table: new row id: %s\n", Common::flatten(idx).c_str());
}

}  // namespace

// A default column has no bounds and a type that no cell is created for, so
// a column that appears only through a lookup stays inert.
FieldType::FieldType() : type(static_cast<ValueType>(0)), min(NO_RANGE), max(NO_RANGE) {}

FieldType::FieldType(ValueType fieldType, unsigned lower, unsigned upper) : type(fieldType), min(lower), max(upper) {}

FieldType::FieldType(ValueType fieldType, std::function<bool(const Variant&, const ExtraInfo*)>&& check, unsigned lower,
                     unsigned upper)
    : type(fieldType), min(lower), max(upper), validator(std::move(check)) {}

bool FieldType::hasRange() const { return min != NO_RANGE && max != NO_RANGE; }

TableDef::TableDef() : rowStatusColumn(0), numColumns(1), numIdx(-1) {}

TableDef::TableDef(std::vector<unsigned long> idxColumns, unsigned int statusColumn, int idxCount)
    : indexColumns(std::move(idxColumns)),
      rowStatusColumn(statusColumn),
      numColumns(static_cast<int>(indexColumns.size() + 1)),
      numIdx(idxCount) {}

TableDef::TableDef(std::vector<unsigned long> idxColumns, unsigned int statusColumn,
                   std::map<unsigned int, FieldType>& valueFields, int idxCount)
    : indexColumns(std::move(idxColumns)), rowStatusColumn(statusColumn), fields(valueFields), numIdx(idxCount) {
  numColumns = static_cast<int>(fields.size() + 1 + indexColumns.size());
}

Table::Table() : activeRowsReadOnly(0), def(nullptr) {}

Table::Table(TableDef* tableDef) : activeRowsReadOnly(0), def(tableDef) {}

Table::Table(const Table& other) = default;

Table& Table::operator=(const Table& other) = default;

TableRow& Table::operator[](RowIdx idx) {
  auto it = rows.find(idx);
  if (it == rows.end()) throw std::string("Row " + Common::flatten(idx) + " does not exist!");
  return it->second;
}

const TableRow& Table::operator[](RowIdx idx) const {
  auto it = rows.find(idx);
  if (it == rows.end()) throw std::string("Row " + Common::flatten(idx) + " does not exist!");
  return it->second;
}

TableRow Table::getRow(RowIdx idx) const {
  auto it = rows.find(idx);
  return it == rows.end() ? TableRow() : it->second;
}

bool Table::getRow(RowIdx idx, TableRow& out) {
  auto it = rows.find(idx);
  if (it == rows.end()) return false;
  out = it->second;
  return true;
}

// Cells compare by Variant equality, so a row lacking the column (given an
// UNDEFINED cell here) or holding another kind is a programming error, and
// strings never match: searches are meant for number and address columns.
ZELTA_COLD bool Table::findRowWithMatch(const unsigned int& column, const Variant& value, RowIdx& out) {
  for (auto& [idx, row] : rows) {
    if (row[column] == value) {
      out = idx;
      return true;
    }
  }
  return false;
}

ZELTA_COLD bool Table::findRowWithMatch(const unsigned int& column, const Variant& value, TableRow& out) {
  for (auto& entry : rows) {
    if (entry.second[column] == value) {
      out = entry.second;
      return true;
    }
  }
  return false;
}

TableRow& Table::addRow(const RowIdx& idx) {
  TableRow& row = rows[idx];
  row.clear();
  completeRow(row);
  return row;
}

TableRow& Table::addOrUpdateRow(const RowIdx& idx) {
  bool created = false;
  TableRow& row = openRow(idx, created);
  if (created) completeRow(row);
  return row;
}

TableRow& Table::openRow(const RowIdx& idx, bool& created) {
  // Rows are mostly added in index order (files list them so): a row after
  // the last one is appended without a search.
  if (!rows.empty() && rows.rbegin()->first < idx) {
    created = true;
    return rows.emplace_hint(rows.end(), idx, TableRow())->second;
  }
  auto [it, inserted] = rows.try_emplace(idx);
  created = inserted;
  return it->second;
}

void Table::completeRow(TableRow& row) const {
  // Nested tables and unknown types start without a cell.
  auto cell = row.begin();
  for (const auto& [column, field] : def->fields) {
    while (cell != row.end() && cell->first < column) ++cell;
    if (cell != row.end() && cell->first == column) continue;
    if (const ValueCodec* codec = ValueCodec::of(field.type)) row.emplace_hint(cell, column, codec->defaultValue());
  }
}

bool Table::setCellValue(const RowIdx& idx, const unsigned int& column, const std::string& value) {
  auto field = def->fields.find(column);
  if (field == def->fields.end() || column < def->indexColumns.size() + 1) return false;
  if (field->second.type != STRING && field->second.type != IPADDRESS) return false;
  putCell(idx, column, Variant(value));
  logStored("str", value);
  return true;
}

// Deliberately lighter than the other setters: no index-column check, and an
// unknown column is looked up with the inserting subscript (it gains a default,
// inert entry in the definition).
bool Table::setCellValue(const RowIdx& idx, const unsigned int& column, const unsigned char (&value)[8]) {
  if (def->fields[column].type != LOGADDRMAIN) return false;
  putCell(idx, column, Variant(static_cast<const unsigned char*>(value)));
  if (Log["libzelta"].level >= DEBUG) logStored("str", Common::logaddrMainToString(value));
  return true;
}

bool Table::setCellValue(const RowIdx& idx, const unsigned int& column, const long& value) {
  auto field = def->fields.find(column);
  if (field == def->fields.end() || column < def->indexColumns.size() + 1) return false;
  const ValueType type = field->second.type;
  if (type != INTEGER && type != TIMETICKS) return false;
  // A TimeTicks count wraps like the 32-bit target: a count of 2^31 or more
  // arrives as a negative long.
  putCell(idx, column, type == INTEGER ? Variant(value) : Variant(TimeTicksValue{static_cast<uint32_t>(value)}));
  if (Log["libzelta"].level >= DEBUG) logStored("num", std::to_string(static_cast<int>(value)));
  return true;
}

void Table::putCell(const RowIdx& idx, unsigned int column, Variant&& cell) {
  TableRow& row = rows[idx];
  // An existing cell goes through Variant assignment, which refuses a change
  // of kind.
  auto [it, inserted] = row.try_emplace(column, std::move(cell));
  if (!inserted) it->second = std::move(cell);
  cellWritten(idx, column);
}

bool Table::setCellValue(const RowIdx& idx, const unsigned int& column, const Variant& value) {
  switch (value.getType()) {
    case VariantType::LONG:
      return setCellValue(idx, column, value.getLong());
    case VariantType::TIMETICKS:
      return setCellValue(idx, column, static_cast<long>(value.getTimeTicks().value));
    case VariantType::STRING:
      return setCellValue(idx, column, value.getString());
    case VariantType::LOGADDRMAIN:
      return setCellValue(idx, column, value.getLogaddrMain());
    default:
      return false;
  }
}

bool Table::deleteRow(const RowIdx& idx) {
  if (!inactive.empty()) inactive.erase(idx);
  if (rows.erase(idx) != 0) return true;
  ZELTA_TRACE();
  return false;
}

int Table::getRowStatus(const RowIdx& idx) const {
  if (rows.count(idx) == 0) return -1;
  auto it = inactive.find(idx);
  if (it == inactive.end()) return 1;
  return it->second.empty() ? 2 : 3;
}

void Table::setRowStatus(const RowIdx& idx, bool active, const std::vector<unsigned int>& unset) {
  if (active) {
    inactive.erase(idx);
  } else if (rows.count(idx) != 0) {
    TableRow& missing = inactive[idx];
    missing.clear();
    for (unsigned int column : unset) missing.emplace(column, Variant());
  }
}

bool Table::isCellUnset(const RowIdx& idx, unsigned int column) const {
  auto it = inactive.find(idx);
  return it != inactive.end() && it->second.count(column) != 0;
}

void Table::cellWritten(const RowIdx& idx, unsigned int column) {
  if (inactive.empty()) return;
  auto it = inactive.find(idx);
  if (it != inactive.end()) it->second.erase(column);
}

void Table::forEachRow(const std::function<void(const RowIdx&, TableRow&)>&& fn) {
  for (auto& [idx, row] : rows) fn(idx, row);
}

// The first row of an empty table is all zeros (0, or 0.0), not one. After
// that the last row's final component is stepped without carry: the result
// sorts after every row, so it is free without a scan.
ZELTA_COLD RowIdx Table::getNextAvailableRowIdx() {
  RowIdx next;
  if (rows.empty()) {
    Log["libzelta"].append(VERBOSE, "Table: num of idx: %d\n", def->numIdx);
    next.assign(def->numIdx > 0 ? static_cast<size_t>(def->numIdx) : 0, 0);
  } else {
    next = rows.rbegin()->first;
    stepLastComponent(next, def->numIdx);
  }
  logNewRowId(next);
  return next;
}

// REQUIRES: start has numIdx components.
ZELTA_COLD RowIdx Table::getNextAvailableRowIdx(const RowIdx& start) {
  RowIdx next = start;
  while (rows.count(next) != 0) stepLastComponent(next, def->numIdx);
  logNewRowId(next);
  return next;
}

}  // namespace Quorvel::Kvan
