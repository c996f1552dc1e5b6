// The writer of group files: one line per single value, one per table row.
//
//   volume.0 = 0:2:7
//   label.0 = 0:4:"Front door \x22A\x22"
//   contacts.1 = 2:4:"Hall" 3:2:15 <- table lines end with a blank
#include <charconv>
#include <cstdint>
#include <locale>
#include <sstream>

#include "liblock.h"
#include "trace.h"
#include "zelta/logging.h"
#include "zelta/param.h"

namespace Quorvel::Kvan {

namespace {

void appendQuoted(std::string& out, const std::string& bytes) {
  out += '"';
  out += Common::serialize(bytes);
  out += '"';
}

// TimeTicks are written through the signed 32-bit output of the target: a
// count of 2^31 or more comes out negative, and the reader wraps it back.
long ticksAsLong(const Variant& v) { return static_cast<long>(static_cast<int32_t>(v.getTimeTicks().value)); }

// Appends numbers as a default-formatted output stream writes them. A string
// stream per line was most of the cost of a save, so in the classic locale
// (unless the host changed the global one) the digits are made directly; any
// other locale still goes through a stream.
class NumberText {
 public:
  NumberText() : classic(std::locale() == std::locale::classic()) {}

  template <class T>
  void append(std::string& out, T number) const {
    if (classic) {
      char digits[24];
      const char* end = std::to_chars(digits, digits + sizeof digits, number).ptr;
      out.append(digits, static_cast<size_t>(end - digits));
    } else {
      std::ostringstream text;
      text << number;
      out += text.str();
    }
  }

 private:
  bool classic;
};

// Appends "type:value" for a single value or a cell of `type`. Logical
// addresses are written as type-4 strings of their 8 bytes. False, with
// nothing appended, for a type that has no file form.
bool appendTypedValue(std::string& out, ValueType type, const Variant& v, const NumberText& numbers) {
  const size_t start = out.size();
  numbers.append(out, static_cast<int>(type == LOGADDRMAIN ? STRING : type));
  out += ':';
  switch (type) {
    case INTEGER:
      numbers.append(out, v.getLong());
      return true;
    case TIMETICKS:
      numbers.append(out, ticksAsLong(v));
      return true;
    case IPADDRESS:
      out += v.getString();
      return true;
    case STRING:
      appendQuoted(out, v.getString());
      return true;
    case LOGADDRMAIN:
      appendQuoted(out, Common::logaddrMainToString(v.getLogaddrMain()));
      return true;
    default:
      out.resize(start);
      return false;
  }
}

}  // namespace

void Param::save(FILE* file) {
  std::string text = toFileText();
  if (!text.empty()) fputs(text.c_str(), file);
}

void Param::saveScalar(FILE* file) {
  std::string text;
  {
    LibraryLockGuard lock(libraryMutex());
    text = scalarText();
  }
  if (!text.empty()) fputs(text.c_str(), file);
}

void Param::saveTable(FILE* file) {
  std::string text;
  {
    LibraryLockGuard lock(libraryMutex());
    text = tableText();
  }
  if (!text.empty()) fputs(text.c_str(), file);
}

std::string Param::toFileText() {
  LibraryLockGuard lock(libraryMutex());
  if (savePolicy == NEVER_SAVE) return "";
  if (type == TABLE) return tableText();
  return scalarText();
}

// REQUIRES: library lock held (the value and the name are read).
std::string Param::scalarText() {
  libraryMutex().assertHeld();
  const NumberText numbers;
  std::string line = name;
  line += ".0 = 0:";
  if (!appendTypedValue(line, type, value, numbers)) {
    Log["libzelta"].append(WARNING, "Param: saveScalar(): skip unknown type '%d'\n", static_cast<int>(type));
    return "";
  }
  line += '\n';
  return line;
}

// REQUIRES: library lock held (the rows and the agent's row states are read).
std::string Param::tableText() {
  libraryMutex().assertHeld();
  Table* table = value.getMutableTable();
  TableDef* def = table->getDef();
  SNMP::DynMibTable* snmpTable = snmpEntryAs<SNMP::DynMibTable>();
  std::string text;
  // Rows an SNMP manager has not activated yet are not kept.
  const std::vector<bool> active = snmpTable != nullptr ? snmpTable->activeRowFlags(*table) : std::vector<bool>();
  size_t position = 0;
  table->forEachRow([&](const RowIdx& index, TableRow& row) {
    if (snmpTable != nullptr && !active[position++]) return;
    text += name;
    // The index as Common::flatten writes it, without a string of its own.
    for (unsigned long component : index) {
      char digits[24];
      text += '.';
      text.append(digits, static_cast<size_t>(std::to_chars(digits, digits + sizeof digits, component).ptr - digits));
    }
    text += " = ";
    text += flattenTableRow(def, row);
    text += '\n';
  });
  return text;
}

std::string Param::flattenTableRow(TableDef* def, TableRow& row) {
  const NumberText numbers;
  std::string out;
  out.reserve(16 * row.size());  // about one allocation for a row
  for (auto& [column, cell] : row) {
    // The plus one is deliberate: existing files were written this way, and a
    // value column right before the RowStatus column is never stored.
    if (def == nullptr || isSpecialColumn(def, column + 1)) {
      ZELTA_TRACE();
      continue;
    }
    auto field = def->fields.find(column);
    const ValueType columnType = field == def->fields.end() ? ValueType(0) : field->second.type;
    numbers.append(out, column);
    out += ':';
    // A column type without a file form is a programming error of the host.
    if (!appendTypedValue(out, columnType, cell, numbers)) ZELTA_ASSERT(false, "false");
    out += ' ';
  }
  return out;
}

}  // namespace Quorvel::Kvan
