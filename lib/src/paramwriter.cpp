// The writer of group files: one line per single value, one per table row.
//
//   volume.0 = 0:2:7
//   label.0 = 0:4:"Front door \x22A\x22"
//   contacts.1 = 2:4:"Hall" 3:2:15 <- table lines end with a blank
#include <cstdint>
#include <sstream>

#include "liblock.h"
#include "trace.h"
#include "zelta/logging.h"
#include "zelta/param.h"

namespace Quorvel::Kvan {

namespace {

std::string quoted(const std::string& bytes) { return "\"" + Common::serialize(bytes) + "\""; }

// TimeTicks are written through the signed 32-bit output of the target: a
// count of 2^31 or more comes out negative, and the reader wraps it back.
long ticksAsLong(const Variant& v) { return static_cast<long>(static_cast<int32_t>(v.getTimeTicks().value)); }

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
  std::ostringstream line;
  switch (type) {
    case INTEGER:
      line << name << ".0 = 0:" << static_cast<int>(type) << ":" << value.getLong();
      break;
    case TIMETICKS:
      line << name << ".0 = 0:" << static_cast<int>(type) << ":" << ticksAsLong(value);
      break;
    case STRING:
      line << name << ".0 = 0:" << static_cast<int>(type) << ":" << quoted(value.getString());
      break;
    case IPADDRESS:
      line << name << ".0 = 0:" << static_cast<int>(type) << ":" << value.getString();
      break;
    case LOGADDRMAIN:
      line << name << ".0 = 0:" << static_cast<int>(STRING) << ":"
           << quoted(Common::logaddrMainToString(value.getLogaddrMain()));
      break;
    default:
      Log["libzelta"].append(WARNING, "Param: saveScalar(): skip unknown type '%d'\n", static_cast<int>(type));
      return "";
  }
  line << "\n";
  return line.str();
}

// REQUIRES: library lock held (the rows and the agent's row states are read).
std::string Param::tableText() {
  libraryMutex().assertHeld();
  Table* table = value.getMutableTable();
  TableDef* def = table->getDef();
  SNMP::DynMibTable* snmpTable = snmpEntryAs<SNMP::DynMibTable>();
  std::string text;
  table->forEachRow([&](const RowIdx& index, TableRow& row) {
    // Rows an SNMP manager has not activated yet are not kept.
    if (snmpTable != nullptr && !snmpTable->isRowActive(index)) return;
    text += name + Common::flatten(index) + " = " + flattenTableRow(def, row) + "\n";
  });
  return text;
}

std::string Param::flattenTableRow(TableDef* def, TableRow& row) {
  std::ostringstream out;
  for (auto& [column, cell] : row) {
    // The plus one is deliberate: existing files were written this way, and a
    // value column right before the RowStatus column is never stored.
    if (def == nullptr || isSpecialColumn(def, column + 1)) {
      ZELTA_TRACE();
      continue;
    }
    auto field = def->fields.find(column);
    const ValueType columnType = field == def->fields.end() ? ValueType(0) : field->second.type;
    out << column << ":";
    switch (columnType) {
      case INTEGER:
        out << static_cast<int>(INTEGER) << ":" << cell.getLong();
        break;
      case TIMETICKS:
        out << static_cast<int>(TIMETICKS) << ":" << ticksAsLong(cell);
        break;
      case IPADDRESS:
        out << static_cast<int>(IPADDRESS) << ":" << cell.getString();
        break;
      case STRING:
        out << static_cast<int>(STRING) << ":" << quoted(cell.getString());
        break;
      case LOGADDRMAIN:
        out << static_cast<int>(STRING) << ":" << quoted(Common::logaddrMainToString(cell.getLogaddrMain()));
        break;
      default:
        ZELTA_ASSERT(false, "false");
    }
    out << " ";
  }
  return out.str();
}

}  // namespace Quorvel::Kvan
