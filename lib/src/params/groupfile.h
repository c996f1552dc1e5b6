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
// Thread safety: the reader takes the library lock for each line it applies;
// the writer's functions only read the values they are given.
#ifndef ZELTA_SRC_PARAMS_GROUPFILE_H_
#define ZELTA_SRC_PARAMS_GROUPFILE_H_

#include <regex.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "zelta/export.h"
#include "zelta/tabledef.h"

namespace Quorvel::Kvan {

class LogChannel;
class Param;

namespace groupfile {

// The line pattern "key = value", the key being letters, digits and dots,
// and the triplet pattern "column:type:value", the value being a run without
// blanks and quotes or a quoted text without quotes. ParamManager compiles
// them with REG_EXTENDED | REG_NEWLINE. Exported for the tests only.
ZELTA_EXPORT extern const char kLinePattern[];
ZELTA_EXPORT extern const char kTripletPattern[];

// What the scanner makes of a text.
enum class Scan {
  kMatch,
  kNoMatch,
  kAskRegex,  // a byte the scanner cannot judge in every locale
};

// As regexec with the line pattern (4 match slots) on the text up to its
// first NUL byte. Exported for the tests only.
ZELTA_EXPORT Scan scanLine(const char* text, size_t length, regmatch_t (&match)[4]);
// As regexec with the triplet pattern (4 match slots).
ZELTA_EXPORT Scan scanTriplet(const char* text, size_t length, regmatch_t (&match)[4]);
// The same on a text already judged: no NUL, no line end and no byte of 0x80
// or above in its `length` bytes.
Scan scanJudgedLine(const unsigned char* text, size_t length, regmatch_t (&match)[4]);
Scan scanJudgedTriplet(const unsigned char* text, size_t length, regmatch_t (&match)[4]);

// Reads group files into the parameters of a registry.
class GroupFileReader {
 public:
  // `linePattern` and `tripletPattern` are the compiled patterns; lines the
  // scanner cannot judge go to them.
  GroupFileReader(const regex_t& linePattern, const regex_t& tripletPattern,
                  const std::unordered_map<std::string, Param*>& params);

  // Reads one file. Bad lines are logged and skipped; a line for a key that
  // is not registered is ignored.
  void load(const std::string& path);

 private:
  // Applies one line; false when reading must stop.
  bool applyLine(const char* text, size_t length);
  // The scanner, or regexec for what it cannot judge.
  bool matchLine(const char* text, size_t length, regmatch_t (&m)[4]);
  bool matchTriplet(std::string_view text, regmatch_t (&m)[4]);
  bool splitKey(std::string_view key);
  bool splitTriplet(std::string_view text, size_t& next, unsigned int& column, int& type, std::string_view& value);
  bool setScalar(std::string_view value, Param* param);
  bool setTableRow(std::string_view value, Param* param);
  // Reads the triplets of a table line into `row`; false at the first that
  // cannot be read.
  bool readCells(std::string_view value, const TableDef& def, TableRow& row, const Param& param);

  const regex_t& linePattern;
  const regex_t& tripletPattern;
  const std::unordered_map<std::string, Param*>& params;
  LogChannel& log;
  std::string copy;           // a NUL-terminated line for regexec
  std::string_view stemView;  // the key's registry part
  RowIdx index;               // the key's index part
  bool lineJudged = false;    // the line holds no byte the scanner leaves to regexec
  std::string stem;           // the last stem looked up, and its parameter
  Param* lastParam = nullptr;
};

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
