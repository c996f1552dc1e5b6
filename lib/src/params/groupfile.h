// Group files: the reader, which turns lines into parameter values, and the
// writer, which turns values into lines. One line per single value or table
// row:
//
//   volume.0 = 0:2:7
//   label.0 = 0:4:"Front door \x22A\x22"
//   contacts.1 = 2:4:"Hall" 3:2:15 <- table lines end with a blank
//
// Lines are recognised by a hand-written scanner that accepts exactly what
// the two patterns of ParamManager (line and triplet, POSIX extended regular
// expressions) accept, with the same sub-matches. Those patterns' classes
// depend on the locale for bytes of 0x80 and above, so a line holding such a
// byte is handed to regexec: the result is the same in every locale.
//
// Thread safety: the reader takes the library lock for each piece of lines
// it applies; the writer's functions only read the values they are given.
#ifndef ZELTA_SRC_PARAMS_GROUPFILE_H_
#define ZELTA_SRC_PARAMS_GROUPFILE_H_

#include <regex.h>

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "base/liblock.h"
#include "zelta/param.h"
#include "zelta/parammanager.h"
#include "zelta/tabledef.h"

namespace Quorvel::Kvan {

class LogChannel;

// The line and triplet patterns as a manager compiles them (in its
// constructor, with REG_EXTENDED | REG_NEWLINE); lines the scanner cannot
// judge go to them.
struct ZELTA_LOCAL ParamManager::Patterns {
  regex_t cfgRe;
  regex_t trpRe;
};

namespace groupfile {

// The line pattern "key = value", the key being letters, digits and dots,
// and the triplet pattern "column:type:value", the value being a run without
// blanks and quotes or a quoted text without quotes. ParamManager compiles
// them with REG_EXTENDED | REG_NEWLINE.
extern const char kLinePattern[];
extern const char kTripletPattern[];

// What the scanner makes of a text.
enum class Scan {
  kMatch,
  kNoMatch,
  kAskRegex,  // a byte the scanner cannot judge in every locale
};

// As regexec with the line pattern (4 match slots) on the text up to its
// first NUL byte.
Scan scanLine(const char* text, size_t length, regmatch_t (&match)[4]);
// As regexec with the triplet pattern (4 match slots).
Scan scanTriplet(const char* text, size_t length, regmatch_t (&match)[4]);
// The same on a text already judged: no NUL, no line end and no byte of 0x80
// or above in its `length` bytes.
Scan scanJudgedLine(const unsigned char* text, size_t length, regmatch_t (&match)[4]);
Scan scanJudgedTriplet(const unsigned char* text, size_t length, regmatch_t (&match)[4]);

// Splits lines and triplets as the two patterns do: by the scanner where it
// can judge a text, by regexec where it cannot.
class LineScanner {
 public:
  LineScanner(const regex_t& linePattern, const regex_t& tripletPattern);

  // The key and the value text of an entry line; false for any other line.
  bool matchLine(const char* text, size_t length, std::string_view& key, std::string_view& value);
  // "name.1.2": the registry part before the first dot and one index
  // component per further part; false when there is no index.
  bool splitKey(std::string_view key, std::string_view& stem, RowIdx& index) const;
  // The first triplet of `text`; `next` is the offset after it and the one
  // character (the blank) that follows it.
  bool splitTriplet(std::string_view text, size_t& next, unsigned int& column, int& type, std::string_view& value);
  // False when the line pattern lacks its two sub-expressions (never for
  // the pattern given).
  bool lineGroupsPresent() const { return linePattern.re_nsub >= 2; }

 private:
  bool matchTriplet(std::string_view text, regmatch_t (&m)[4]);

  const regex_t& linePattern;
  const regex_t& tripletPattern;
  std::string copy;         // a NUL-terminated line for regexec
  bool lineJudged = false;  // the line holds no byte the scanner leaves to regexec
};

// Checked reading: a value is taken as an SNMP SET of it would be (type,
// range or length, validator). The validators get an ExtraInfo with
// `action`. On refusal `why` says why, for a log line or an error.
//
// The single value of an entry's value text (one triplet) for `param`.
bool checkScalarText(LineScanner& scanner, Param& param, std::string_view value, int action, Variant& out,
                     std::string& why);
// The cells of a row's value text into `row`, numbered by `columns` when
// given (a former layout's numbers to today's; 0 drops the cell).
bool checkRowText(LineScanner& scanner, const Param& param, const RowIdx& index, std::string_view value,
                  const std::map<unsigned int, unsigned int>* columns, int action, TableRow& row, std::string& why);
// `text` for a log line or an error: at most 64 bytes, bytes that are not
// printable ASCII shown as '?'.
std::string shown(std::string_view text);
// A refusal's text, as printf formats it (at most 511 bytes).
std::string printed(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Reads group files into the parameters of a registry. One reader serves a
// whole load: lines under a parameter's former key wait until every file is
// read and are applied by finish() to parameters no file had a line for
// under their current key.
class GroupFileReader {
 public:
  // `linePattern` and `tripletPattern` are the compiled patterns; lines the
  // scanner cannot judge go to them. `checkAll` checks every value read (as
  // ParamGroup::setCheckedLoading does for its parameters).
  GroupFileReader(const regex_t& linePattern, const regex_t& tripletPattern,
                  const std::unordered_map<std::string, Param*>& params, bool checkAll);

  // Reads one file. Bad lines are logged and skipped; a line for a key that
  // is not registered is ignored, or kept by `owner` (the group whose file
  // it is, if any) when it keeps foreign lines.
  void load(const std::string& path, ParamGroup* owner = nullptr);
  // Applies the lines waiting under former keys.
  void finish();

 private:
  // A key known as the former name of a parameter.
  struct FormerKey {
    Param* param;
    const Param::FormerName* name;
  };
  // A line under a former key, waiting for the end of the load.
  struct Waiting {
    FormerKey key;
    std::string line;
    std::string path;
  };

  // Applies one line; false when reading must stop.
  bool applyLine(const char* text, size_t length) REQUIRES(libraryMutex());
  // The line of an entry for `param`, under its current key or a former one.
  void applyEntry(Param* param, const Param::FormerName* former, std::string_view key, std::string_view value,
                  std::string_view line) REQUIRES(libraryMutex());
  void applyChecked(Param* param, const Param::FormerName* former, std::string_view key, std::string_view value,
                    std::string_view line) REQUIRES(libraryMutex());
  bool setScalar(std::string_view value, Param* param) REQUIRES(libraryMutex());
  bool setTableRow(std::string_view value, Param* param, const std::map<unsigned int, unsigned int>* columns)
      REQUIRES(libraryMutex());
  // Reads the triplets of a table line into `row`; false at the first that
  // cannot be read.
  bool readCells(std::string_view value, const TableDef& def, TableRow& row, const Param& param,
                 const std::map<unsigned int, unsigned int>* columns);
  // A line no parameter reads, kept when the file's group keeps them.
  void keepForeign(const char* text, size_t length) REQUIRES(libraryMutex());

  LineScanner scanner;
  const std::unordered_map<std::string, Param*>& params;
  const bool checkAll;
  LogChannel& log;
  std::string_view stemView;  // the key's registry part
  RowIdx index;               // the key's index part
  std::string stem;           // the last stem looked up, and its parameter
  Param* lastParam = nullptr;
  const Param::FormerName* lastFormer = nullptr;
  std::string path;                // the file being read
  std::string* foreign = nullptr;  // where the lines of no parameter go, or null
  std::unordered_map<std::string, FormerKey> formerKeys;
  std::vector<Waiting> waiting;
  std::unordered_set<const Param*> readUnderCurrentKey;  // kept only while there are former keys
  std::unordered_set<const Param*> reheld;               // checked parameters whose held lines this load replaced
};

}  // namespace groupfile

struct ZELTA_LOCAL Param::Lineage {
  std::vector<FormerName> formerNames;
  std::string heldLines;  // lines a checked load refused, each ending in "\n"
};

// What only the library does with a parameter: the file reader's silent
// loads and the lines it holds, the hooks of a reset or an import. Each
// function expects the library lock held.
struct ZELTA_LOCAL Param::Internal {
  // A single value read from the group file: stored silently. False when it
  // is of another kind than the value held.
  static bool loadScalar_nolock(Param& param, Variant&& loaded) REQUIRES(libraryMutex());
  // A table row the file reader has written into the Table: active at once
  // (an agent serves it from there), with no notice.
  static void publishRow_nolock(Param& param, const RowIdx& index) REQUIRES(libraryMutex()) {
    param.value.getMutableTable()->setRowStatus(index, true);
  }
  // Keeps a line a checked load refused, written by saves until the value
  // changes; a single value keeps its last one.
  static void holdLine_nolock(Param& param, std::string_view line) REQUIRES(libraryMutex());
  // The value changed: lines a checked load refused are written no more.
  static void forgetHeldLines_nolock(Param& param) REQUIRES(libraryMutex()) {
    if (param.lineage) param.lineage->heldLines.clear();
  }
  static void runPostSets_nolock(Param& param, const ExtraInfo* info) REQUIRES(libraryMutex()) {
    for (auto& hook : param.postSets) hook(param.value, info);
  }
};

// What only the library changes in a group.
struct ZELTA_LOCAL ParamGroup::Internal {
  static void setForeignLines_nolock(ParamGroup& group, std::string lines) REQUIRES(libraryMutex()) {
    group.foreignLines = std::move(lines);
  }
};

namespace groupfile {

// ---- Writing

// Appends a single value's line "name.0 = 0:type:value\n". False, with a
// WARNING and nothing appended, for a type that has no file form.
bool appendScalarLine(std::string& out, const std::string& name, ValueType type, const Variant& value);
// Appends the triplets of one row, each followed by a blank. A cell is left
// out when the column after it is an index column or the RowStatus column:
// existing files were written so.
void appendRowTriplets(std::string& out, TableDef* def, const TableRow& row);
// Appends one line per active row of `table` (rows an SNMP manager has not
// activated are left out).
void appendTableLines(std::string& out, const std::string& name, const Table& table);

}  // namespace groupfile
}  // namespace Quorvel::Kvan

#endif  // ZELTA_SRC_PARAMS_GROUPFILE_H_
