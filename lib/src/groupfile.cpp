#include "groupfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstring>

#include "filetext.h"
#include "liblock.h"
#include "trace.h"
#include "valuecodec.h"
#include "zelta/logging.h"
#include "zelta/param.h"

namespace Quorvel::Kvan::groupfile {

namespace {

// The classes of the patterns for bytes below 0x80, in every locale.
bool isSpace(unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool isDigit(unsigned char c) { return c >= '0' && c <= '9'; }
bool isAlnum(unsigned char c) { return isDigit(c) || ((c | 0x20) >= 'a' && (c | 0x20) <= 'z'); }

// The text regexec sees (up to the first NUL), or 0 with `askRegex` set when
// it holds a byte the classes depend on the locale for, or a line end.
size_t judgeable(const char* text, size_t length, bool& askRegex) {
  askRegex = false;
  for (size_t i = 0; i < length; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == 0) return i;
    if (c >= 0x80 || c == '\n') {
      askRegex = true;
      return 0;
    }
  }
  return length;
}

void setSlot(regmatch_t& slot, size_t start, size_t end) {
  slot.rm_so = static_cast<regoff_t>(start);
  slot.rm_eo = static_cast<regoff_t>(end);
}

void clearSlot(regmatch_t& slot) { slot.rm_so = slot.rm_eo = -1; }

std::string_view slotText(const char* text, const regmatch_t& slot) {
  if (slot.rm_so < 0 || slot.rm_eo < slot.rm_so) return {};
  return std::string_view(text + slot.rm_so, static_cast<size_t>(slot.rm_eo - slot.rm_so));
}

// A row's cell takes the loaded value; a cell of another kind (put there by
// the host) is replaced rather than reaching the Variant's assertion.
void storeCell(TableRow& row, unsigned int column, Variant&& value) {
  auto [it, inserted] = row.try_emplace(column, std::move(value));
  if (inserted) return;
  if (it->second.getType() != value.getType()) it->second.deleteInternalStorage();
  it->second = std::move(value);
}

void appendNumber(std::string& out, unsigned long number) {
  char digits[24];
  out.append(digits, static_cast<size_t>(std::to_chars(digits, digits + sizeof digits, number).ptr - digits));
}

// The file descriptor of a readable regular file, or -1.
int openForReading(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat info {};
  // A directory opens, but is no file to read.
  if (fd >= 0 && (fstat(fd, &info) != 0 || S_ISDIR(info.st_mode))) {
    close(fd);
    fd = -1;
  }
  return fd;
}

}  // namespace

const char kLinePattern[] =
    "^[[:space:]]*([[:alnum:].]*\\.[[:digit:].]*)[[:space:]]*=[[:space:]]*([^=[:space:]](.*[^[:space:]])?)[[:space:]]*"
    "$";
const char kTripletPattern[] = "^[[:space:]]*([[:digit:]]+):([[:digit:]]+):([^[:space:]\"]+|\"[^\"]*\")[[:space:]]?.*$";

// ---- Scanning
//
// Line pattern:
//   ^[[:space:]]*([[:alnum:].]*\.[[:digit:].]*)[[:space:]]*=[[:space:]]*([^=[:space:]](.*[^[:space:]])?)[[:space:]]*$
// The key can hold neither blanks nor '=', so it is the run of letters,
// digits and dots after the leading blanks, and it needs a dot after its
// last letter. The value runs from the first non-blank after the first '='
// to the last non-blank of the line.

Scan scanLine(const char* text, size_t length, regmatch_t (&match)[4]) {
  bool askRegex = false;
  const size_t n = judgeable(text, length, askRegex);
  if (askRegex) return Scan::kAskRegex;
  const auto at = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  size_t i = 0;
  while (i < n && isSpace(at(i))) ++i;
  const size_t keyStart = i;
  bool dotAfterLastLetter = false;
  for (; i < n && (isAlnum(at(i)) || at(i) == '.'); ++i) {
    if (at(i) == '.')
      dotAfterLastLetter = true;
    else if (!isDigit(at(i)))
      dotAfterLastLetter = false;
  }
  const size_t keyEnd = i;
  if (!dotAfterLastLetter) return Scan::kNoMatch;
  while (i < n && isSpace(at(i))) ++i;
  if (i >= n || at(i) != '=') return Scan::kNoMatch;
  ++i;
  while (i < n && isSpace(at(i))) ++i;
  if (i >= n || at(i) == '=') return Scan::kNoMatch;
  const size_t valueStart = i;
  size_t valueEnd = n;
  while (isSpace(at(valueEnd - 1))) --valueEnd;  // stops at valueStart at the latest
  setSlot(match[0], 0, n);
  setSlot(match[1], keyStart, keyEnd);
  setSlot(match[2], valueStart, valueEnd);
  if (valueEnd - valueStart >= 2)
    setSlot(match[3], valueStart + 1, valueEnd);
  else
    clearSlot(match[3]);
  return Scan::kMatch;
}

// Triplet pattern:
//   ^[[:space:]]*([[:digit:]]+):([[:digit:]]+):([^[:space:]"]+|"[^"]*")[[:space:]]?.*$
// The value is the quoted text up to the next quote, or the run up to the
// first blank or quote; the rest of the text is matched by ".*".

Scan scanTriplet(const char* text, size_t length, regmatch_t (&match)[4]) {
  bool askRegex = false;
  const size_t n = judgeable(text, length, askRegex);
  if (askRegex) return Scan::kAskRegex;
  const auto at = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  size_t i = 0;
  while (i < n && isSpace(at(i))) ++i;
  size_t bounds[2][2];
  for (auto& number : bounds) {
    number[0] = i;
    while (i < n && isDigit(at(i))) ++i;
    number[1] = i;
    if (i == number[0] || i >= n || at(i) != ':') return Scan::kNoMatch;
    ++i;
  }
  const size_t valueStart = i;
  if (i >= n || isSpace(at(i))) return Scan::kNoMatch;
  if (at(i) == '"') {
    ++i;
    while (i < n && at(i) != '"') ++i;
    if (i >= n) return Scan::kNoMatch;
    ++i;
  } else {
    while (i < n && !isSpace(at(i)) && at(i) != '"') ++i;
  }
  setSlot(match[0], 0, n);
  setSlot(match[1], bounds[0][0], bounds[0][1]);
  setSlot(match[2], bounds[1][0], bounds[1][1]);
  setSlot(match[3], valueStart, i);
  return Scan::kMatch;
}

// ---- Reading

GroupFileReader::GroupFileReader(const regex_t& line, const regex_t& triplet,
                                 const std::unordered_map<std::string, Param*>& registry)
    : linePattern(line), tripletPattern(triplet), params(registry), log(Log["libzelta"]) {}

bool GroupFileReader::match(const regex_t& pattern, bool line, const char* text, size_t length, regmatch_t (&m)[4]) {
  const Scan scan = line ? scanLine(text, length, m) : scanTriplet(text, length, m);
  if (scan != Scan::kAskRegex) return scan == Scan::kMatch;
  copy.assign(text, length);
  return regexec(&pattern, copy.c_str(), 4, m, 0) == 0;
}

void GroupFileReader::load(const std::string& path) {
  log.append(DEBUG, "ParamManager: loading data from file '%s'\n", path.c_str());
  const int fd = openForReading(path);
  if (fd < 0) {
    log.append(WARNING, "ParamManager: - cannot open '%s' for reading\n", path.c_str());
    return;
  }
  // Lines are taken from the buffer where they lie; only a line cut by the
  // end of a read is put together in `pending`.
  std::vector<char> buffer(64 * 1024);
  std::string pending;
  bool reading = true;
  while (reading) {
    const ssize_t got = read(fd, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    const char* start = buffer.data();
    const char* end = start + got;
    for (const char* newline; reading && (newline = static_cast<const char*>(memchr(start, '\n', end - start)));
         start = newline + 1) {
      if (pending.empty()) {
        reading = applyLine(start, static_cast<size_t>(newline - start));
      } else {
        pending.append(start, newline);
        reading = applyLine(pending.data(), pending.size());
        pending.clear();
      }
    }
    if (reading) pending.append(start, end);
  }
  // A last line without a line end counts too.
  if (reading && !pending.empty()) applyLine(pending.data(), pending.size());
  close(fd);
}

bool GroupFileReader::applyLine(const char* text, size_t length) {
  // One line at a time under the library lock: the agent and the host's
  // threads see each line's values whole and are never held up for a file.
  LibraryLockGuard lock(libraryMutex());
  regmatch_t m[4];
  if (!match(linePattern, true, text, length, m)) return true;
  if (linePattern.re_nsub < 2) {
    ZELTA_TRACE();
    return false;
  }
  const std::string_view key = slotText(text, m[1]);
  const std::string_view value = slotText(text, m[2]);
  if (!splitKey(key)) {
    log.append(WARNING, "ParamManager: - skip invalid key '%s'\n", std::string(key).c_str());
    return true;
  }
  auto it = params.find(stem);
  if (it == params.end()) {
    // Files may hold parameters the program no longer defines.
    ZELTA_TRACE();
    return true;
  }
  Param* param = it->second;
  log.append(VERBOSE, "ParamManager: - stem %s, type: [%d]\n", stem.c_str(), static_cast<int>(param->getType()));
  if (param->getType() == TABLE) {
    if (!setTableRow(value, param)) log.append(WARNING, "ParamManager: - cannot read table row '%s'!\n", stem.c_str());
  } else if (!setScalar(value, param)) {
    log.append(WARNING, "ParamManager: - cannot read scalar '%s'!\n", stem.c_str());
  }
  return true;
}

// "name.1.2": the registry key before the first dot, then one index component
// per further dot-separated part, each read as an unsigned 32-bit number. The
// parts are those of Common::split: a dot at the very end adds no part.
bool GroupFileReader::splitKey(std::string_view key) {
  index.clear();
  size_t dot = key.find('.');
  if (dot == std::string_view::npos || dot + 1 == key.size()) return false;
  stem.assign(key.data(), dot);
  while (dot != std::string_view::npos && dot + 1 < key.size()) {
    const size_t start = dot + 1;
    dot = key.find('.', start);
    const size_t end = dot == std::string_view::npos ? key.size() : dot;
    index.push_back(Common::parseUnsigned32(key.data() + start, end - start));
  }
  return true;
}

bool GroupFileReader::splitTriplet(std::string_view text, size_t& next, unsigned int& column, int& type,
                                   std::string_view& value) {
  regmatch_t m[4];
  if (!match(tripletPattern, false, text.data(), text.size(), m) || tripletPattern.re_nsub != 3) return false;
  // The column as `stream >> unsigned int` reads its digits: saturated.
  column = Common::parseUnsigned32(text.data() + m[1].rm_so, static_cast<size_t>(m[1].rm_eo - m[1].rm_so));
  type = Common::parseSigned32(text.data() + m[2].rm_so, static_cast<size_t>(m[2].rm_eo - m[2].rm_so));
  value = slotText(text.data(), m[3]);
  // The triplet and the one blank after it are consumed.
  next = static_cast<size_t>(m[3].rm_eo) + 1;
  return true;
}

bool GroupFileReader::setScalar(std::string_view value, Param* param) {
  size_t next = 0;
  unsigned int column = 0;
  int type = 0;
  std::string_view text;
  if (!splitTriplet(value, next, column, type, text)) {
    log.append(DEBUG, "ParamManager: setScalar(): cannot split triplet '%s'\n", std::string(value).c_str());
    return false;
  }
  const ValueType paramType = param->getType();
  const ValueCodec* codec = ValueCodec::of(paramType);
  // Logical addresses are written with the string type.
  if (type != paramType && !(codec != nullptr && codec->readsFileType(type))) {
    log.append(DEBUG, "ParamManager: setScalar(): triplet type %d != Param type %d for var '%s'\n", type,
               static_cast<int>(paramType), param->getName().c_str());
    return false;
  }
  if (codec == nullptr) {
    ZELTA_TRACE();
    return true;
  }
  Variant loaded;
  return codec->parseFileValue(text, false, loaded) && param->loadScalar(std::move(loaded));
}

bool GroupFileReader::setTableRow(std::string_view value, Param* param) {
  Table* table = param->getValue().getMutableTable();
  TableDef* def = table->getDef();
  // A table without definition has no typed columns, and an index of the
  // wrong length would break the row arithmetic of the table.
  if (def == nullptr || (def->numIdx >= 0 && index.size() != static_cast<size_t>(def->numIdx))) return false;
  TableRow& row = table->addOrUpdateRow(index);
  size_t next = 0;
  unsigned int column = 0;
  int type = 0;
  std::string_view text;
  while (splitTriplet(value, next, column, type, text)) {
    auto field = def->fields.find(column);
    if (column == def->rowStatusColumn || field == def->fields.end()) {
      log.append(WARNING,
                 "ParamManager: setTableRow(): column %d is not a valid field or it's a special one (e.g. "
                 "rowStatus)!\n",
                 static_cast<int>(column));
    } else {
      const ValueType columnType = field->second.type;
      const ValueCodec* codec = ValueCodec::of(columnType);
      if (type != columnType && !(codec != nullptr && codec->readsFileType(type))) {
        log.append(DEBUG, "ParamManager: setTableRow(): triplet type %d != Param type %d for var '%s'\n", type,
                   static_cast<int>(columnType), param->getName().c_str());
        return false;
      }
      if (codec == nullptr) {
        ZELTA_TRACE();
      } else {
        Variant cell;
        if (!codec->parseFileValue(text, true, cell)) return false;
        storeCell(row, column, std::move(cell));
      }
    }
    if (next >= value.size()) break;
    value.remove_prefix(next);
  }
  param->publishRow(index, row);
  return true;
}

// ---- Writing

bool appendScalarLine(std::string& out, const std::string& name, ValueType type, const Variant& value) {
  const ValueCodec* codec = ValueCodec::of(type);
  if (codec == nullptr) {
    Log["libzelta"].append(WARNING, "Param: saveScalar(): skip unknown type '%d'\n", static_cast<int>(type));
    return false;
  }
  out += name;
  out += ".0 = 0:";
  appendNumber(out, static_cast<unsigned long>(codec->fileType()));
  out += ':';
  codec->appendFileValue(out, value);
  out += '\n';
  return true;
}

void appendRowTriplets(std::string& out, TableDef* def, const TableRow& row) {
  for (const auto& [column, cell] : row) {
    // The plus one is deliberate: existing files were written this way, and a
    // value column right before the RowStatus column is never stored.
    if (def == nullptr || Param::isSpecialColumn(def, column + 1)) {
      ZELTA_TRACE();
      continue;
    }
    auto field = def->fields.find(column);
    const ValueCodec* codec = field == def->fields.end() ? nullptr : ValueCodec::of(field->second.type);
    // A column type without a file form is a programming error of the host.
    ZELTA_ASSERT(codec != nullptr, "false");
    appendNumber(out, column);
    out += ':';
    appendNumber(out, static_cast<unsigned long>(codec->fileType()));
    out += ':';
    codec->appendFileValue(out, cell);
    out += ' ';
  }
}

void appendTableLines(std::string& out, const std::string& name, const Table& table, const std::vector<bool>* keep) {
  size_t position = 0;
  for (const auto& [index, row] : table.getRows()) {
    if (keep != nullptr && !(*keep)[position++]) continue;
    out += name;
    // The index as Common::flatten writes it.
    for (unsigned long component : index) {
      out += '.';
      appendNumber(out, component);
    }
    out += " = ";
    appendRowTriplets(out, table.getDef(), row);
    out += '\n';
  }
}

}  // namespace Quorvel::Kvan::groupfile
