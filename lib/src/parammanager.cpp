// ParamManager: the registry of parameters and the reader of group files.
#include "zelta/parammanager.h"

#include <sys/stat.h>

#include <climits>
#include <cstdint>
#include <fstream>
#include <mutex>
#include <sstream>

#include "liblock.h"
#include "trace.h"
#include "zelta/logging.h"

namespace Quorvel::Kvan {

namespace {

// A line: "key = value", the key being letters, digits and dots.
const char kLinePattern[] =
    "^[[:space:]]*([[:alnum:].]*\\.[[:digit:].]*)[[:space:]]*=[[:space:]]*([^=[:space:]](.*[^[:space:]])?)[[:space:]]*"
    "$";
// One triplet "column:type:value"; the value is a run without blanks and
// quotes, or a quoted text without quotes.
const char kTripletPattern[] = "^[[:space:]]*([[:digit:]]+):([[:digit:]]+):([^[:space:]\"]+|\"[^\"]*\")[[:space:]]?.*$";

// Reads a signed long with the rules of the 32-bit target: out-of-range text
// saturates at the 32-bit limits on every build.
long readLong32(const std::string& text) {
  std::istringstream in(text);
  long long value = 0;
  in >> value;
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<long>(value);
}

// A logical address read from a file: the decoded text must fit the 8 bytes
// and must not be one of the decoder's error texts.
bool decodeLogaddr(const std::string& quotedText, uint8_t (&out)[8]) {
  std::string bytes = Common::deserialize(quotedText);
  if (bytes.size() > 8 || bytes == "[error]" || bytes == "[error - start]" || bytes == "[error - len]") return false;
  Common::logaddrMainSet(out, bytes);
  return true;
}

// Keeps the SNMP value of a published scalar in step with what was loaded.
void refreshLeaf(Param* param) {
  if (auto* leaf = param->snmpEntryAs<SNMP::MibLeaf>()) leaf->refreshFromVariant();
}

}  // namespace

ParamManager::ParamManager() {
  int cfg = regcomp(&cfgRe, kLinePattern, REG_EXTENDED | REG_NEWLINE);
  ZELTA_ASSERT(cfg == 0, "regcomp(&cfgRe, cfgPattern, REG_EXTENDED | REG_NEWLINE) == 0");
  int trp = regcomp(&trpRe, kTripletPattern, REG_EXTENDED | REG_NEWLINE);
  ZELTA_ASSERT(trp == 0, "regcomp(&trpRe, trpPattern, REG_EXTENDED | REG_NEWLINE) == 0");
}

ParamManager::~ParamManager() {
  regfree(&cfgRe);
  regfree(&trpRe);
}

bool ParamManager::add(std::string key, Param* param) {
  ZELTA_ASSERT(key.size() > 0, "key.size() > 0");
  ZELTA_ASSERT(param != nullptr, "param != __null");
  ZELTA_ASSERT(params.find(key) == params.end(), "params.find(key) == params.end()");
  if (key.find('_') != std::string::npos) Log["libzelta"].append(WARNING, "ParamManager: key contains underscores!\n");
  params[key] = param;
  param->setName(key);
  groups.insert(param->getGroup());
  return true;
}

Param*& ParamManager::operator[](std::string key) {
  ZELTA_ASSERT(key.size() > 0, "key.size() > 0");
  auto it = params.find(key);
  ZELTA_ASSERT(it != params.end(), "params.find(key) != params.end()");
  // The host may have cleared the stored pointer through the returned
  // reference: the name is checked only on a pointer that is there.
  ZELTA_ASSERT(it->second == nullptr || it->second->getName() == key, "params[key]->getName() == key");
  ZELTA_ASSERT(it->second != nullptr, "params[key] != __null");
  return it->second;
}

void ParamManager::loadAllGroups() {
  for (ParamGroup* group : groups) loadGroup(*group);
}

void ParamManager::loadGroup(ParamGroup& group) {
  group.setActiveMode(false);
  loadFromFile(group.getFilePath());
  group.setActiveMode(true);
}

void ParamManager::saveAllGroups() {
  for (ParamGroup* group : groups) group->save();
}

void ParamManager::loadFromFile(std::string path) {
  Log["libzelta"].append(DEBUG, "ParamManager: loading data from file '%s'\n", path.c_str());
  std::ifstream in(path, std::ios::in | std::ios::binary);
  struct stat info {};
  // A directory opens, but is no file to read.
  if (!in.is_open() || stat(path.c_str(), &info) != 0 || S_ISDIR(info.st_mode)) {
    Log["libzelta"].append(WARNING, "ParamManager: - cannot open '%s' for reading\n", path.c_str());
    return;
  }
  std::string line;
  // One line at a time under the library lock, so that the agent thread and
  // the host's threads see each line's values whole and are not held up for
  // the whole file.
  while (std::getline(in, line)) {
    LibraryLockGuard lock(libraryMutex());
    regmatch_t match[3];
    if (regexec(&cfgRe, line.c_str(), 3, match, 0) != 0) continue;
    if (cfgRe.re_nsub < 2) {
      ZELTA_TRACE();
      break;
    }
    loadLine(line, match);
  }
}

// REQUIRES: library lock held (values and tables are written in place).
void ParamManager::loadLine(const std::string& line, const regmatch_t* match) {
  libraryMutex().assertHeld();
  std::string key = matchToString(line, match[1]);
  std::string value = matchToString(line, match[2]);
  std::string stem;
  std::vector<unsigned long> index;
  if (!splitKey(key, stem, index)) {
    Log["libzelta"].append(WARNING, "ParamManager: - skip invalid key '%s'\n", key.c_str());
    return;
  }
  auto it = params.find(stem);
  if (it == params.end()) {
    // Files may hold parameters the program no longer defines.
    ZELTA_TRACE();
    return;
  }
  Param* param = it->second;
  Log["libzelta"].append(VERBOSE, "ParamManager: - stem %s, type: [%d]\n", stem.c_str(),
                         static_cast<int>(param->getType()));
  if (param->getType() == TABLE) {
    if (!setTableRow(index, value, param)) {
      Log["libzelta"].append(WARNING, "ParamManager: - cannot read table row '%s'!\n", stem.c_str());
    }
  } else if (!setScalar(value, param)) {
    Log["libzelta"].append(WARNING, "ParamManager: - cannot read scalar '%s'!\n", stem.c_str());
  }
}

std::string ParamManager::matchToString(const std::string& text, const regmatch_t& match) {
  if (match.rm_so < 0 || match.rm_eo < match.rm_so) return "";
  return text.substr(static_cast<size_t>(match.rm_so), static_cast<size_t>(match.rm_eo - match.rm_so));
}

bool ParamManager::splitKey(std::string key, std::string& stem, std::vector<unsigned long>& index) {
  std::vector<std::string> parts = Common::split(key, '.');
  if (parts.size() < 2) return false;
  stem = parts[0];
  for (size_t i = 1; i < parts.size(); ++i) index.push_back(Common::toNumber<unsigned long>(parts[i]));
  return !index.empty();
}

bool ParamManager::splitTriplet(const std::string& text, unsigned int& next, unsigned int& column, ValueType& type,
                                std::string& value) {
  regmatch_t match[4];
  if (regexec(&trpRe, text.c_str(), 4, match, 0) != 0 || trpRe.re_nsub != 3) return false;
  std::istringstream columnText(matchToString(text, match[1]));
  column = 0;
  columnText >> column;
  type = static_cast<ValueType>(Common::toNumber<int>(matchToString(text, match[2])));
  value = matchToString(text, match[3]);
  // The triplet and the one blank after it are consumed.
  next = static_cast<unsigned int>(match[3].rm_eo) + 1;
  return true;
}

bool ParamManager::setScalar(std::string& value, Param* param) {
  unsigned int next = 0;
  unsigned int column = 0;
  ValueType type{};
  std::string text;
  if (!splitTriplet(value, next, column, type, text)) {
    Log["libzelta"].append(DEBUG, "ParamManager: setScalar(): cannot split triplet '%s'\n", value.c_str());
    return false;
  }
  const ValueType paramType = param->getType();
  // Logical addresses are written with the string type.
  if (type != paramType && !(paramType == LOGADDRMAIN && type == STRING)) {
    Log["libzelta"].append(DEBUG, "ParamManager: setScalar(): triplet type %d != Param type %d for var '%s'\n",
                           static_cast<int>(type), static_cast<int>(paramType), param->getName().c_str());
    return false;
  }
  switch (paramType) {
    case INTEGER:
      param->setValue(static_cast<long>(Common::toNumber<int>(text)));
      break;
    case STRING:
      param->setValue(Variant(Common::deserialize(text)));
      break;
    case IPADDRESS:
      param->setValue(text);
      break;
    case TIMETICKS: {
      TimeTicksValue ticks{static_cast<uint32_t>(Common::toNumber<unsigned long>(text))};
      param->setValue(ticks);
      break;
    }
    case LOGADDRMAIN: {
      uint8_t address[8];
      if (!decodeLogaddr(text, address)) return false;
      param->setValue(address);
      break;
    }
    default:
      ZELTA_TRACE();
      return true;
  }
  if (param->isSnmpEntry()) refreshLeaf(param);
  return true;
}

// REQUIRES: library lock held (the Table is written through getValue()).
bool ParamManager::setTableRow(const std::vector<unsigned long>& index, std::string& value, Param* param) {
  libraryMutex().assertHeld();
  Table* table = param->getValue().getMutableTable();
  TableDef* def = table->getDef();
  // A table without definition has no typed columns, and an index of the
  // wrong length would break the row arithmetic of the table.
  if (def == nullptr || (def->numIdx >= 0 && index.size() != static_cast<size_t>(def->numIdx))) return false;
  table->addOrUpdateRow(index);
  std::string rest = value;
  unsigned int next = 0;
  unsigned int column = 0;
  ValueType type{};
  std::string text;
  while (splitTriplet(rest, next, column, type, text)) {
    auto field = def->fields.find(column);
    if (column == def->rowStatusColumn || field == def->fields.end()) {
      Log["libzelta"].append(
          WARNING,
          "ParamManager: setTableRow(): column %d is not a valid field or it's a special one (e.g. rowStatus)!\n",
          static_cast<int>(column));
    } else {
      const ValueType columnType = field->second.type;
      if (type != columnType && !(columnType == LOGADDRMAIN && type == STRING)) {
        Log["libzelta"].append(DEBUG, "ParamManager: setTableRow(): triplet type %d != Param type %d for var '%s'\n",
                               static_cast<int>(type), static_cast<int>(columnType), param->getName().c_str());
        return false;
      }
      TableRow& row = (*table)[index];
      switch (columnType) {
        case INTEGER:
          row[column] = Variant(static_cast<long>(Common::toNumber<int>(text)));
          break;
        case STRING:
          row[column] = Variant(Common::deserialize(text));
          break;
        case IPADDRESS:
          row[column] = Variant(text);
          break;
        case TIMETICKS:
          row[column] = Variant(TimeTicksValue{static_cast<uint32_t>(readLong32(text))});
          break;
        case LOGADDRMAIN: {
          uint8_t address[8];
          if (!decodeLogaddr(text, address)) return false;
          row[column] = Variant(static_cast<const unsigned char*>(address));
          break;
        }
        default:
          ZELTA_TRACE();
          break;
      }
    }
    if (next >= rest.size()) break;
    rest = rest.substr(next);
  }
  if (param->isSnmpEntry()) {
    param->snmpEntryAs<SNMP::DynMibTable>()->addRow(index, table->getRow(index));
  }
  return true;
}

}  // namespace Quorvel::Kvan
