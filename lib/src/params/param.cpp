// Param: a named, typed value with hooks, and its SNMP object.
#include "zelta/param.h"

#include <atomic>
#include <memory>

#include "base/liblock.h"
#include "base/trace.h"
#include "params/groupfile.h"
#include "params/snmpside.h"
#include "values/valuecodec.h"
#include "zelta/logging.h"

namespace Quorvel::Kvan {

Param::Param(ParamGroup& paramGroup, ValueType paramType, Variant initial, SNMP::SNMPInfo* info, ParamSavePolicy policy,
             Range paramRange)
    : group(&paramGroup), snmpInfo(info), type(paramType), savePolicy(policy), range(paramRange) {
  fillValue(initial);
  factoryValue = value;
  if (isSnmpEntry()) fillSnmpInfo();
  group->enrol(this);
}

Param::Param(ParamGroup& paramGroup, ValueType paramType, SNMP::SNMPInfo* info, ParamSavePolicy policy,
             Range paramRange)
    : group(&paramGroup), snmpInfo(info), type(paramType), savePolicy(policy), range(paramRange) {
  fillWithDefaultValue();
  factoryValue = value;
  if (isSnmpEntry()) fillSnmpInfo();
  group->enrol(this);
}

// The group keeps its entry for this address (it is not dereferenced), so
// that a parameter built here again is listed once, in the same place.
Param::~Param() { ParamGroup::leave(group, this); }

void Param::fillValue(const Variant& initial) {
  value = initial;
  value.setListener(this);
}

void Param::fillWithDefaultValue() {
  if (type == TABLE) {
    value = Variant(Table(nullptr));
  } else if (const ValueCodec* codec = ValueCodec::of(type)) {
    value = codec->defaultValue();
  }  // any other number: no default, the value stays UNDEFINED
  value.setListener(this);
}

namespace {

std::atomic<EntryMaker> registeredMaker{nullptr};

}  // namespace

void setEntryMaker(EntryMaker maker) { registeredMaker.store(maker, std::memory_order_release); }

EntryMaker entryMaker() { return registeredMaker.load(std::memory_order_acquire); }

void Param::fillSnmpInfo() {
  if (EntryMaker make = entryMaker()) make(*snmpInfo, value, type, range.first, range.second);
}

void Param::setName(const std::string& newName) {
  LibraryLockGuard lock(libraryMutex());
  name = newName;
}

std::string Param::getName() const {
  LibraryLockGuard lock(libraryMutex());
  return name;
}

Variant Param::getValueCopy() const {
  LibraryLockGuard lock(libraryMutex());
  return Variant(value);
}

void Param::setValue(const int& v) { setValue(Variant(v)); }
void Param::setValue(const long& v) { setValue(Variant(v)); }
void Param::setValue(TimeTicksValue& v) { setValue(Variant(v)); }
void Param::setValue(const unsigned char (&v)[8]) { setValue(Variant(&v[0])); }
void Param::setValue(const char* v) { setValue(Variant(v)); }
void Param::setValue(std::string& v) { setValue(Variant(v)); }
void Param::setValue(const Table& v) { setValue(Variant(v)); }

void Param::setValue(const Variant& v) {
  LibraryLockGuard lock(libraryMutex());
  Internal::forgetHeldLines_nolock(*this);
  // A table is copied into the Table object the parameter already holds: a
  // published table's SNMP side keeps pointing at that object.
  if (&v != &value && value.getType() == VariantType::TABLEDEF && v.getType() == VariantType::TABLEDEF) {
    Table& table = *value.getMutableTable();
    table = v.getTable();
    // The agent serves, and the next save writes, exactly the new rows, each
    // active.
    table.activateAllRows();
    return;
  }
  value = v;
}

void Param::addFormerName(const std::string& key, const std::map<unsigned int, unsigned int>& columns) {
  LibraryLockGuard lock(libraryMutex());
  if (!lineage) lineage = std::make_unique<Lineage>();
  lineage->formerNames.push_back(FormerName{key, columns});
}

const std::vector<Param::FormerName>& Param::getFormerNames() const {
  static const std::vector<FormerName> kNone;
  return lineage ? lineage->formerNames : kNone;
}

void Param::setValidator(const std::function<bool(const Variant&, const ExtraInfo*)>&& fn) {
  LibraryLockGuard lock(libraryMutex());
  validator = fn;
}

void Param::setFiller(const std::function<bool(Variant&, const ExtraInfo*)>&& fn) {
  LibraryLockGuard lock(libraryMutex());
  filler = fn;
}

void Param::addPostSet(const std::function<void(const Variant&, const ExtraInfo*)>&& hook) {
  LibraryLockGuard lock(libraryMutex());
  postSets.push_back(hook);
}

bool Param::fill(Variant& v, const ExtraInfo* info) {
  LibraryLockGuard lock(libraryMutex());
  return filler ? filler(v, info) : true;
}

bool Param::validate(const Variant& v, const ExtraInfo* info) {
  LibraryLockGuard lock(libraryMutex());
  return validator ? validator(v, info) : true;
}

void Param::onChange(const std::string& reason, const ExtraInfo* info) { notifyAll(reason, info); }

void Param::notifyAll(const std::string& reason, const ExtraInfo* info) {
  // This parameter owns `info` from here on, whatever a hook does.
  std::unique_ptr<const ExtraInfo> owned(info);
  LibraryLockGuard lock(libraryMutex());
  const bool active = group->isActive();
  // Row creation and deletion alone do not schedule a save: a deletion is
  // preceded by a deactivation, which does.
  const bool savesTable = type != TABLE || (info != nullptr && info->action >= 3 && info->action <= 5);
  Internal::forgetHeldLines_nolock(*this);
  if (savePolicy == SAVE_ON_CHANGE && active && savesTable) group->onChange(this, reason, info);
  if (active) {
    for (auto& hook : postSets) hook(value, info);
  }
}

bool Param::setTableCellValue(const RowIdx& idx, const unsigned int& column, const Variant& v) {
  if (type != TABLE) return false;
  const VariantType kind = v.getType();
  if (kind != VariantType::LONG && kind != VariantType::TIMETICKS && kind != VariantType::STRING &&
      kind != VariantType::LOGADDRMAIN) {
    ZELTA_TRACE();
    return false;
  }
  LibraryLockGuard lock(libraryMutex());
  Internal::forgetHeldLines_nolock(*this);
  // The table's answer is deliberately not looked at: a refused write still
  // returns true. A published table is served from this very Table.
  value.getMutableTable()->setCellValue(idx, column, v);
  return true;
}

bool Param::getTableCellValue(const RowIdx& idx, const unsigned int& column, Variant& out) {
  if (type != TABLE) {
    ZELTA_TRACE();
    return false;
  }
  LibraryLockGuard lock(libraryMutex());
  TableRow row;
  if (!value.getMutableTable()->getRow(idx, row)) {
    ZELTA_TRACE();
    return false;
  }
  auto cell = row.find(column);
  if (cell == row.end()) {
    ZELTA_TRACE();
    return false;
  }
  out = cell->second;
  return true;
}

bool Param::Internal::loadScalar_nolock(Param& param, Variant&& loaded) {
  libraryMutex().assertHeld();
  Variant& value = param.value;
  // A value of another kind than the one held (a host that gave the
  // constructor a value of another type) is refused, not asserted.
  if (value.getType() != VariantType::UNDEFINED && value.getType() != loaded.getType()) return false;
  value = std::move(loaded);
  forgetHeldLines_nolock(param);
  return true;
}

void Param::Internal::holdLine_nolock(Param& param, std::string_view line) {
  if (!param.lineage) param.lineage = std::make_unique<Param::Lineage>();
  std::string& held = param.lineage->heldLines;
  if (param.getType() != TABLE) held.clear();
  held.append(line);
  held += '\n';
}

// ---- Group-file text

void Param::save(FILE* file) {
  const std::string text = toFileText();
  if (!text.empty()) fputs(text.c_str(), file);
}

void Param::saveScalar(FILE* file) {
  std::string text;
  {
    LibraryLockGuard lock(libraryMutex());
    groupfile::appendScalarLine(text, name, type, value);
  }
  if (!text.empty()) fputs(text.c_str(), file);
}

void Param::saveTable(FILE* file) {
  std::string text;
  {
    LibraryLockGuard lock(libraryMutex());
    appendTableText(text);
  }
  if (!text.empty()) fputs(text.c_str(), file);
}

std::string Param::toFileText() {
  std::string text;
  appendFileText(text);
  return text;
}

void Param::appendFileText(std::string& out) {
  LibraryLockGuard lock(libraryMutex());
  if (lineage == nullptr || lineage->heldLines.empty() || savePolicy == NEVER_SAVE) {
    appendValueText(out);
    return;
  }
  // Lines a checked load refused stay in the file until the value changes:
  // a single value's in place of its line, a table's after its rows.
  if (type == TABLE) appendValueText(out);
  out += lineage->heldLines;
}

void Param::appendValueText(std::string& out) {
  LibraryLockGuard lock(libraryMutex());
  if (savePolicy == NEVER_SAVE) return;
  if (type == TABLE)
    appendTableText(out);
  else
    groupfile::appendScalarLine(out, name, type, value);
}

// REQUIRES: library lock held (the rows and their states are read).
void Param::appendTableText(std::string& out) {
  libraryMutex().assertHeld();
  groupfile::appendTableLines(out, name, *value.getMutableTable());
}

std::string Param::flattenTableRow(TableDef* def, TableRow& row) {
  std::string out;
  groupfile::appendRowTriplets(out, def, row);
  return out;
}

bool Param::isSpecialColumn(TableDef* def, unsigned int column) {
  for (unsigned long index : def->indexColumns) {
    if (index == column) return true;
  }
  return column == def->rowStatusColumn;
}

}  // namespace Quorvel::Kvan
