#include "params/groupfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>

#include "base/filetext.h"
#include "base/liblock.h"
#include "base/trace.h"
#include "values/valuecodec.h"
#include "zelta/logging.h"
#include "zelta/param.h"
#include "zelta/text.h"

namespace Quorvel::Kvan::groupfile {

namespace {

// The classes of the patterns for bytes below 0x80, the same in every
// locale, as bits of one table entry per byte.
enum : uint8_t { kSpace = 1, kDigit = 2, kAlnum = 4, kKey = 8 /* alnum or '.' */ };

struct CharClasses {
  uint8_t bits[256] = {};
  constexpr CharClasses() {
    for (int c : {' ', '\t', '\n', '\v', '\f', '\r'}) bits[c] = kSpace;
    for (int c = '0'; c <= '9'; ++c) bits[c] = kDigit | kAlnum | kKey;
    for (int c = 'a'; c <= 'z'; ++c) bits[c] = bits[c - 'a' + 'A'] = kAlnum | kKey;
    bits[static_cast<unsigned char>('.')] = kKey;
  }
};

constexpr CharClasses kClasses;

bool is(unsigned char c, uint8_t cls) { return (kClasses.bits[c] & cls) != 0; }

// The length regexec sees (up to the first NUL). `askRegex` is set when the
// text holds a byte the classes depend on the locale for, or a line end.
size_t judge(const char* text, size_t length, bool& askRegex) {
  askRegex = false;
  size_t i = 0;
  // Eight bytes at a time while none is high, NUL or a line end.
  const uint64_t ones = 0x0101010101010101ull, highs = 0x8080808080808080ull;
  for (; i + 8 <= length; i += 8) {
    uint64_t w;
    memcpy(&w, text + i, 8);
    const uint64_t newlines = w ^ (ones * '\n');
    if (((w | ((w - ones) & ~w) | ((newlines - ones) & ~newlines)) & highs) != 0) break;
  }
  for (; i < length; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == 0) return i;
    if (c >= 0x80 || c == '\n') {
      askRegex = true;
      return 0;
    }
  }
  return length;
}

// The value of a run of decimal digits, saturated at `limit`.
uint32_t digitsValue(const char* digit, const char* end, uint32_t limit) {
  uint64_t value = 0;
  for (; digit < end && value <= limit; ++digit) value = value * 10 + static_cast<uint64_t>(*digit - '0');
  return value > limit ? limit : static_cast<uint32_t>(value);
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
  // Lines list cells in column order: a new row's cells go to its end.
  if (row.empty() || row.rbegin()->first < column) {
    row.emplace_hint(row.end(), column, std::move(value));
    return;
  }
  auto [it, inserted] = row.try_emplace(column, std::move(value));
  if (inserted) return;
  if (it->second.getType() != value.getType()) it->second.deleteInternalStorage();
  it->second = std::move(value);
}

// True when a triplet of type number `written` holds a value of `type`
// (logical addresses are written with the string type).
bool readsAs(int written, ValueType type) {
  const ValueCodec* codec = ValueCodec::of(type);
  return written == type || (codec != nullptr && codec->readsFileType(written));
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
  const size_t n = judge(text, length, askRegex);
  return askRegex ? Scan::kAskRegex : scanJudgedLine(reinterpret_cast<const unsigned char*>(text), n, match);
}

Scan scanJudgedLine(const unsigned char* t, size_t n, regmatch_t (&match)[4]) {
  size_t i = 0;
  while (i < n && is(t[i], kSpace)) ++i;
  const size_t keyStart = i;
  bool dotAfterLastLetter = false;
  for (; i < n && is(t[i], kKey); ++i) {
    if (t[i] == '.')
      dotAfterLastLetter = true;
    else if (!is(t[i], kDigit))
      dotAfterLastLetter = false;
  }
  const size_t keyEnd = i;
  if (!dotAfterLastLetter) return Scan::kNoMatch;
  while (i < n && is(t[i], kSpace)) ++i;
  if (i >= n || t[i] != '=') return Scan::kNoMatch;
  ++i;
  while (i < n && is(t[i], kSpace)) ++i;
  if (i >= n || t[i] == '=') return Scan::kNoMatch;
  const size_t valueStart = i;
  size_t valueEnd = n;
  while (is(t[valueEnd - 1], kSpace)) --valueEnd;  // stops at valueStart at the latest
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
  const size_t n = judge(text, length, askRegex);
  return askRegex ? Scan::kAskRegex : scanJudgedTriplet(reinterpret_cast<const unsigned char*>(text), n, match);
}

Scan scanJudgedTriplet(const unsigned char* t, size_t n, regmatch_t (&match)[4]) {
  size_t i = 0;
  while (i < n && is(t[i], kSpace)) ++i;
  size_t bounds[2][2];
  for (auto& number : bounds) {
    number[0] = i;
    while (i < n && is(t[i], kDigit)) ++i;
    number[1] = i;
    if (i == number[0] || i >= n || t[i] != ':') return Scan::kNoMatch;
    ++i;
  }
  const size_t valueStart = i;
  if (i >= n || is(t[i], kSpace)) return Scan::kNoMatch;
  if (t[i] == '"') {
    const void* quote = memchr(t + i + 1, '"', n - i - 1);
    if (quote == nullptr) return Scan::kNoMatch;
    i = static_cast<size_t>(static_cast<const unsigned char*>(quote) - t) + 1;
  } else {
    while (i < n && !is(t[i], kSpace) && t[i] != '"') ++i;
  }
  setSlot(match[0], 0, n);
  setSlot(match[1], bounds[0][0], bounds[0][1]);
  setSlot(match[2], bounds[1][0], bounds[1][1]);
  setSlot(match[3], valueStart, i);
  return Scan::kMatch;
}

// ---- Lines and triplets

LineScanner::LineScanner(const regex_t& line, const regex_t& triplet) : linePattern(line), tripletPattern(triplet) {}

bool LineScanner::matchLine(const char* text, size_t length, std::string_view& key, std::string_view& value) {
  regmatch_t m[4];
  bool askRegex = false;
  const size_t n = judge(text, length, askRegex);
  lineJudged = !askRegex;
  bool matched = false;
  if (lineJudged) {
    matched = scanJudgedLine(reinterpret_cast<const unsigned char*>(text), n, m) == Scan::kMatch;
  } else {
    copy.assign(text, length);
    matched = regexec(&linePattern, copy.c_str(), 4, m, 0) == 0;
  }
  if (!matched) return false;
  key = slotText(text, m[1]);
  value = slotText(text, m[2]);
  return true;
}

bool LineScanner::matchTriplet(std::string_view text, regmatch_t (&m)[4]) {
  // A part of a judged line needs no judging of its own.
  const Scan scan = lineJudged ? scanJudgedTriplet(reinterpret_cast<const unsigned char*>(text.data()), text.size(), m)
                               : scanTriplet(text.data(), text.size(), m);
  if (scan != Scan::kAskRegex) return scan == Scan::kMatch;
  copy.assign(text);
  return regexec(&tripletPattern, copy.c_str(), 4, m, 0) == 0;
}

// "name.1.2": the registry key before the first dot, then one index component
// per further dot-separated part, each read as an unsigned 32-bit number. The
// parts are those of Common::split: a dot at the very end adds no part.
bool LineScanner::splitKey(std::string_view key, std::string_view& stem, RowIdx& index) const {
  index.clear();
  size_t dot = key.find('.');
  if (dot == std::string_view::npos || dot + 1 == key.size()) return false;
  stem = key.substr(0, dot);
  while (dot != std::string_view::npos && dot + 1 < key.size()) {
    const size_t start = dot + 1;
    dot = key.find('.', start);
    const size_t end = dot == std::string_view::npos ? key.size() : dot;
    index.push_back(Common::parseUnsigned32(key.data() + start, end - start));
  }
  return true;
}

bool LineScanner::splitTriplet(std::string_view text, size_t& next, unsigned int& column, int& type,
                               std::string_view& value) {
  regmatch_t m[4];
  if (!matchTriplet(text, m) || tripletPattern.re_nsub != 3) return false;
  // Column and type are digits only; read as `stream >> unsigned int` and
  // `toNumber<int>` read them, they saturate.
  column = digitsValue(text.data() + m[1].rm_so, text.data() + m[1].rm_eo, UINT32_MAX);
  type = static_cast<int>(digitsValue(text.data() + m[2].rm_so, text.data() + m[2].rm_eo, INT32_MAX));
  value = slotText(text.data(), m[3]);
  // The triplet and the one blank after it are consumed.
  next = static_cast<size_t>(m[3].rm_eo) + 1;
  return true;
}

// ---- Checked values

std::string printed(const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  const int length = vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return std::string(text, length < 0 ? 0 : std::min(static_cast<size_t>(length), sizeof text - 1));
}

std::string shown(std::string_view text) {
  const size_t kLongest = 64;
  std::string out;
  for (size_t i = 0; i < text.size() && i < kLongest; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    out += c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '?';
  }
  if (text.size() > kLongest) out += "...";
  return out;
}

namespace {

// A former layout's column number as today's; false when today's layout has
// no such column (the map gives 0).
bool renumber(const std::map<unsigned int, unsigned int>* columns, unsigned int& column) {
  if (columns == nullptr) return true;
  auto it = columns->find(column);
  if (it == columns->end()) return true;
  column = it->second;
  return column != 0;
}

// A triplet's value for a value of `type` with `bounds`, then the verdict of
// `validate`: type, length, range, validator, the order of a table's SET.
ZELTA_COLD bool checkValue(ValueType type, int written, std::string_view text, const Bounds& bounds,
                const std::function<bool(const Variant&)>& validate, Variant& out, std::string& why) {
  const ValueCodec* codec = ValueCodec::of(type);
  if (codec == nullptr) {
    why = printed("type %d holds no single value", static_cast<int>(type));
  } else if (!codec->readsFileType(written)) {
    why = printed("written as type %d, not as type %d", written, static_cast<int>(type));
  } else if (!codec->parseCheckedFileValue(text, out)) {
    why = printed("'%s' is no value of type %d", shown(text).c_str(), static_cast<int>(type));
  } else if (type == STRING && !codec->lengthFits(out.getString().size(), bounds)) {
    why = printed("length %zu outside %u..%u", out.getString().size(), static_cast<unsigned>(bounds.min),
                  static_cast<unsigned>(bounds.max));
  } else if (type == INTEGER && !codec->inRange(out.getLong(), bounds)) {
    why = printed("%ld outside %d..%d", out.getLong(), static_cast<int>(static_cast<int32_t>(bounds.min)),
                  static_cast<int>(static_cast<int32_t>(bounds.max)));
  } else if (validate && !validate(out)) {
    why = printed("%s refused by the validator", shown(text).c_str());
  } else {
    return true;
  }
  return false;
}

// The triplet that `next` ends must be followed by a blank or by nothing: a
// SET has no glued or trailing text.
bool endsCleanly(std::string_view text, size_t next) { return next > text.size() || text[next - 1] == ' '; }

}  // namespace

ZELTA_COLD bool checkScalarText(LineScanner& scanner, Param& param, std::string_view value, int action, Variant& out,
                     std::string& why) {
  size_t next = 0;
  unsigned int column = 0;
  int type = 0;
  std::string_view text;
  if (!scanner.splitTriplet(value, next, column, type, text)) {
    why = "no column:type:value triplet";
    return false;
  }
  if (!endsCleanly(value, next) || next < value.size()) {
    why = "more than one value";
    return false;
  }
  const ValueCodec* codec = ValueCodec::of(param.getType());
  if (codec != nullptr && param.getValue().getType() != VariantType::UNDEFINED && !codec->fits(param.getValue())) {
    why = "the parameter holds a value of another kind than its type";
    return false;
  }
  const ExtraInfo info({}, action, -1);
  const Param::Range& range = param.getRange();
  return checkValue(
      param.getType(), type, text, Bounds(range.first, range.second),
      [&](const Variant& v) { return param.validate(v, &info); }, out, why);
}

ZELTA_COLD bool checkRowText(LineScanner& scanner, const Param& param, const RowIdx& index, std::string_view value,
                  const std::map<unsigned int, unsigned int>* columns, int action, TableRow& row, std::string& why) {
  const TableDef* def = param.getType() == TABLE ? param.getValue().getTable().getDef() : nullptr;
  if (def == nullptr) {
    why = "the table has no definition";
    return false;
  }
  if (def->numIdx >= 0 && index.size() != static_cast<size_t>(def->numIdx)) {
    why = printed("an index of %zu components, not %d", index.size(), def->numIdx);
    return false;
  }
  while (!value.empty()) {
    size_t next = 0;
    unsigned int column = 0;
    int type = 0;
    std::string_view text;
    if (!scanner.splitTriplet(value, next, column, type, text) || !endsCleanly(value, next)) {
      why = printed("'%s' is no column:type:value triplet", shown(value).c_str());
      return false;
    }
    value.remove_prefix(std::min(next, value.size()));
    if (!renumber(columns, column)) continue;
    auto field = def->fields.find(column);
    if (column == def->rowStatusColumn || field == def->fields.end()) {
      why = printed("no value column %u", column);
      return false;
    }
    const FieldType& fieldType = field->second;
    const ExtraInfo info(index, action, static_cast<int>(column));
    Variant cell;
    if (!checkValue(
            fieldType.type, type, text, Bounds(fieldType.min, fieldType.max),
            [&](const Variant& v) { return !fieldType.validator || fieldType.validator(v, &info); }, cell, why)) {
      why = printed("column %u: %s", column, why.c_str());
      return false;
    }
    storeCell(row, column, std::move(cell));
  }
  return true;
}

// ---- Reading

GroupFileReader::GroupFileReader(const regex_t& line, const regex_t& triplet,
                                 const std::unordered_map<std::string, Param*>& registry, bool checkEverything)
    : scanner(line, triplet), params(registry), checkAll(checkEverything), log(Log["libzelta"]) {
  for (const auto& [key, param] : registry) {
    if (param == nullptr) continue;
    for (const Param::FormerName& former : param->getFormerNames()) {
      // A key registered today is that parameter's, whoever had it before.
      if (registry.count(former.key) == 0) formerKeys.try_emplace(former.key, FormerKey{param, &former});
    }
  }
}

void GroupFileReader::load(const std::string& file, ParamGroup* owner) {
  path = file;
  log.append(DEBUG, "ParamManager: loading data from file '%s'\n", path.c_str());
  const int fd = openForReading(path);
  if (fd < 0) {
    log.append(WARNING, "ParamManager: - cannot open '%s' for reading\n", path.c_str());
    return;
  }
  std::string kept;
  foreign = owner != nullptr && owner->keepsForeignLines() ? &kept : nullptr;
  // Lines are taken from the buffer where they lie; only a line cut by the
  // end of a read is put together in `pending`. The lines of one read are
  // applied under the library lock: the agent and the host's threads see
  // each line's values whole, and wait a fraction of a millisecond at most.
  std::vector<char> buffer(16 * 1024);
  std::string pending;
  bool reading = true;
  while (reading) {
    const ssize_t got = read(fd, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    const char* start = buffer.data();
    const char* end = start + got;
    LibraryLockGuard lock(libraryMutex());
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
  LibraryLockGuard lock(libraryMutex());
  // A last line without a line end counts too.
  if (reading && !pending.empty()) applyLine(pending.data(), pending.size());
  if (foreign != nullptr) ParamGroup::Internal::setForeignLines_nolock(*owner, std::move(kept));
  foreign = nullptr;
  close(fd);
}

ZELTA_COLD void GroupFileReader::finish() {
  LibraryLockGuard lock(libraryMutex());
  for (Waiting& w : waiting) {
    if (readUnderCurrentKey.count(w.key.param) != 0) continue;  // the current key wins; the line goes
    path = w.path;
    std::string_view key, value;
    if (scanner.matchLine(w.line.data(), w.line.size(), key, value) && scanner.splitKey(key, stemView, index))
      applyEntry(w.key.param, w.key.name, key, value, w.line);
  }
  waiting.clear();
}

void GroupFileReader::keepForeign(const char* text, size_t length) {
  if (foreign == nullptr) return;
  foreign->append(text, length);
  *foreign += '\n';
}

// Values and tables are written in place.
bool GroupFileReader::applyLine(const char* text, size_t length) {
  libraryMutex().assertHeld();
  std::string_view key, value;
  if (!scanner.matchLine(text, length, key, value)) {
    keepForeign(text, length);
    return true;
  }
  if (!scanner.lineGroupsPresent()) {
    ZELTA_TRACE_AS("loadFromFile");
    return false;
  }
  if (!scanner.splitKey(key, stemView, index)) {
    log.append(WARNING, "ParamManager: - skip invalid key '%s'\n", std::string(key).c_str());
    keepForeign(text, length);
    return true;
  }
  // The lines of a table come one after the other: its parameter is looked
  // up once.
  if (lastParam == nullptr || stemView != stem) {
    stem.assign(stemView);
    auto it = params.find(stem);
    lastParam = it == params.end() ? nullptr : it->second;
    lastFormer = nullptr;
    if (lastParam == nullptr && !formerKeys.empty()) {
      auto former = formerKeys.find(stem);
      if (former != formerKeys.end()) {
        lastParam = former->second.param;
        lastFormer = former->second.name;
      }
    }
    if (lastParam == nullptr) {
      // Files may hold parameters the program no longer defines.
      ZELTA_TRACE_AS("loadFromFile");
      keepForeign(text, length);
      return true;
    }
  }
  if (lastFormer != nullptr) {
    if (readUnderCurrentKey.count(lastParam) == 0)
      waiting.push_back(Waiting{FormerKey{lastParam, lastFormer}, std::string(text, length), path});
    return true;
  }
  if (!formerKeys.empty()) readUnderCurrentKey.insert(lastParam);
  applyEntry(lastParam, nullptr, key, value, std::string_view(text, length));
  return true;
}

void GroupFileReader::applyEntry(Param* param, const Param::FormerName* former, std::string_view key,
                                 std::string_view value, std::string_view line) {
  if (log.level >= VERBOSE)
    log.append(VERBOSE, "ParamManager: - stem %s, type: [%d]\n", std::string(stemView).c_str(),
               static_cast<int>(param->getType()));
  if (checkAll || param->getGroup()->isCheckedLoading()) {
    // What this load refuses replaces what an earlier one held: a table's
    // refused lines would pile up otherwise.
    if (reheld.insert(param).second) Param::Internal::forgetHeldLines_nolock(*param);
    applyChecked(param, former, key, value, line);
  } else if (param->getType() == TABLE) {
    if (!setTableRow(value, param, former != nullptr ? &former->columns : nullptr))
      log.append(WARNING, "ParamManager: - cannot read table row '%s'!\n", std::string(stemView).c_str());
  } else if (!setScalar(value, param)) {
    log.append(WARNING, "ParamManager: - cannot read scalar '%s'!\n", std::string(stemView).c_str());
  }
}

ZELTA_COLD void GroupFileReader::applyChecked(Param* param, const Param::FormerName* former, std::string_view key,
                                   std::string_view value, std::string_view line) {
  std::string why;
  bool taken = false;
  if (param->getType() != TABLE) {
    Variant loaded;
    taken = checkScalarText(scanner, *param, value, ACTION_LOADED, loaded, why) &&
            Param::Internal::loadScalar_nolock(*param, std::move(loaded));
  } else {
    // The row changes only when the whole line is good.
    Table* table = param->getValue().getMutableTable();
    auto found = table->getRows().find(index);
    const bool existed = found != table->getRows().end();
    TableRow row = existed ? found->second : TableRow();
    taken = checkRowText(scanner, *param, index, value, former != nullptr ? &former->columns : nullptr, ACTION_LOADED,
                         row, why);
    if (taken) {
      if (!existed) table->completeRow(row);
      bool created = false;
      TableRow& stored = table->openRow(index, created);
      stored = std::move(row);
      Param::Internal::publishRow_nolock(*param, index);
    }
  }
  if (taken) return;
  log.append(WARNING, "ParamManager: - refused %s = %s in '%s': %s; the line stays until the value changes\n",
             shown(key).c_str(), shown(value).c_str(), path.c_str(), why.c_str());
  Param::Internal::holdLine_nolock(*param, line);
}

bool GroupFileReader::setScalar(std::string_view value, Param* param) {
  size_t next = 0;
  unsigned int column = 0;
  int type = 0;
  std::string_view text;
  if (!scanner.splitTriplet(value, next, column, type, text)) {
    log.append(DEBUG, "ParamManager: setScalar(): cannot split triplet '%s'\n", std::string(value).c_str());
    return false;
  }
  const ValueType paramType = param->getType();
  if (!readsAs(type, paramType)) {
    log.append(DEBUG, "ParamManager: setScalar(): triplet type %d != Param type %d for var '%s'\n", type,
               static_cast<int>(paramType), param->getName().c_str());
    return false;
  }
  const ValueCodec* codec = ValueCodec::of(paramType);
  if (codec == nullptr) {
    ZELTA_TRACE();
    return true;
  }
  Variant loaded = codec->parseFileValue(text, false);
  return loaded.getType() != VariantType::UNDEFINED && Param::Internal::loadScalar_nolock(*param, std::move(loaded));
}

bool GroupFileReader::setTableRow(std::string_view value, Param* param,
                                  const std::map<unsigned int, unsigned int>* columns) {
  Table* table = param->getValue().getMutableTable();
  TableDef* def = table->getDef();
  // A table without definition has no typed columns, and an index of the
  // wrong length would break the row arithmetic of the table.
  if (def == nullptr || (def->numIdx >= 0 && index.size() != static_cast<size_t>(def->numIdx))) return false;
  bool created = false;
  TableRow& row = table->openRow(index, created);
  const bool read = readCells(value, *def, row, *param, columns);
  // A new row gets the defaults of the cells the line leaves out, whatever
  // comes of the line: what addOrUpdateRow would have given it, without
  // making defaults that the line then replaces.
  if (created) table->completeRow(row);
  // A loaded row is active at once, also one an SNMP manager had not
  // activated, and nobody is told. A row a bad line made keeps its cells but
  // is no SNMP row: the agent would serve and save defaults nobody set.
  if (read)
    Param::Internal::publishRow_nolock(*param, index);
  else if (created && param->isSnmpEntry())
    table->setRowStatus(index, false);
  return read;
}

bool GroupFileReader::readCells(std::string_view value, const TableDef& def, TableRow& row, const Param& param,
                                const std::map<unsigned int, unsigned int>* columns) {
  size_t next = 0;
  unsigned int column = 0;
  int type = 0;
  std::string_view text;
  while (scanner.splitTriplet(value, next, column, type, text)) {
    auto field = def.fields.end();
    if (!renumber(columns, column)) {
      // A column today's layout no longer has.
    } else if (column == def.rowStatusColumn || (field = def.fields.find(column)) == def.fields.end()) {
      log.append(WARNING,
                 "ParamManager: setTableRow(): column %d is not a valid field or it's a special one (e.g. "
                 "rowStatus)!\n",
                 static_cast<int>(column));
    } else {
      const ValueType columnType = field->second.type;
      if (!readsAs(type, columnType)) {
        log.append(DEBUG, "ParamManager: setTableRow(): triplet type %d != Param type %d for var '%s'\n", type,
                   static_cast<int>(columnType), param.getName().c_str());
        return false;
      }
      if (const ValueCodec* codec = ValueCodec::of(columnType)) {
        Variant cell = codec->parseFileValue(text, true);
        if (cell.getType() == VariantType::UNDEFINED) return false;
        storeCell(row, column, std::move(cell));
      } else {
        ZELTA_TRACE_AS("setTableRow");
      }
    }
    if (next >= value.size()) break;
    value.remove_prefix(next);
  }
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
  Common::appendNumber(out, static_cast<unsigned long>(codec->fileType()));
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
      ZELTA_TRACE_AS("flattenTableRow");
      continue;
    }
    auto field = def->fields.find(column);
    const ValueCodec* codec = field == def->fields.end() ? nullptr : ValueCodec::of(field->second.type);
    // A column type without a file form is a programming error of the host.
    ZELTA_ASSERT(codec != nullptr, "false");
    Common::appendNumber(out, column);
    out += ':';
    Common::appendNumber(out, static_cast<unsigned long>(codec->fileType()));
    out += ':';
    codec->appendFileValue(out, cell);
    out += ' ';
  }
}

void appendTableLines(std::string& out, const std::string& name, const Table& table) {
  // Rows an SNMP manager has not activated are not kept: one merged pass over
  // the rows and the (few) inactive ones, both in index order.
  const auto& inactive = table.getInactiveRows();
  auto skip = inactive.begin();
  for (const auto& [index, row] : table.getRows()) {
    while (skip != inactive.end() && skip->first < index) ++skip;
    if (skip != inactive.end() && skip->first == index) {
      LogChannel& channel = Log["libzelta"];
      if (channel.level >= DEBUG)
        channel.append(DEBUG, "DynMibTable: row {%s} is not ACTIVE!\n", Common::flatten(index).c_str());
      continue;
    }
    out += name;
    // The index as Common::flatten writes it.
    for (unsigned long component : index) {
      out += '.';
      Common::appendNumber(out, component);
    }
    out += " = ";
    appendRowTriplets(out, table.getDef(), row);
    out += '\n';
  }
}

}  // namespace Quorvel::Kvan::groupfile
