// The group-file scanner against regexec with the library's own patterns: the
// two must accept the same texts with the same sub-matches. Shared by the
// differential test and the group-file fuzz target.
#ifndef ZELTA_TESTS_SCAN_ORACLE_H_
#define ZELTA_TESTS_SCAN_ORACLE_H_

#include <regex.h>

#include <cstdlib>
#include <string>

#include "params/groupfile.h"

namespace zelta_test {

// The two patterns, compiled in the locale current at construction.
class ScanOracle {
 public:
  ScanOracle() {
    using Quorvel::Kvan::groupfile::kLinePattern;
    using Quorvel::Kvan::groupfile::kTripletPattern;
    if (regcomp(&line_, kLinePattern, REG_EXTENDED | REG_NEWLINE) != 0) abort();
    if (regcomp(&triplet_, kTripletPattern, REG_EXTENDED | REG_NEWLINE) != 0) abort();
  }
  ~ScanOracle() {
    regfree(&line_);
    regfree(&triplet_);
  }
  ScanOracle(const ScanOracle&) = delete;
  ScanOracle& operator=(const ScanOracle&) = delete;

  // "" when the scanner agrees with regexec on `text` for the line pattern
  // (`line`) or the triplet pattern; otherwise what differs. A text the
  // scanner hands to regexec must hold a byte of 0x80 or above (or a line
  // end) before its first NUL. `expected` receives regexec's sub-matches.
  std::string disagreement(const std::string& text, bool line, regmatch_t (&expected)[4]) {
    namespace gf = Quorvel::Kvan::groupfile;
    regmatch_t scanned[4];
    const gf::Scan scan =
        line ? gf::scanLine(text.data(), text.size(), scanned) : gf::scanTriplet(text.data(), text.size(), scanned);
    const char* c = text.c_str();
    const bool matched = regexec(line ? &line_ : &triplet_, c, 4, expected, 0) == 0;
    if (!matched) expected[2].rm_so = -1;
    bool highByte = false;
    for (const char* p = c; *p != '\0'; ++p)
      highByte = highByte || static_cast<unsigned char>(*p) >= 0x80 || *p == '\n';
    if (scan == gf::Scan::kAskRegex) return highByte ? "" : "asked regexec without a reason";
    if (highByte) return "judged a text with a byte of 0x80 or above";
    if (matched != (scan == gf::Scan::kMatch))
      return matched ? "regexec matches, the scanner does not" : "regexec does not match, the scanner does";
    if (!matched) return "";
    for (int i = 0; i < 4; ++i)
      if (scanned[i].rm_so != expected[i].rm_so || scanned[i].rm_eo != expected[i].rm_eo)
        return "sub-match " + std::to_string(i) + ": scanner " + std::to_string(scanned[i].rm_so) + ".." +
               std::to_string(scanned[i].rm_eo) + ", regexec " + std::to_string(expected[i].rm_so) + ".." +
               std::to_string(expected[i].rm_eo);
    return "";
  }

  // Both patterns on `text`, and the triplet pattern on the value the line
  // pattern finds (what the reader hands on).
  std::string check(const std::string& text) {
    regmatch_t line[4], triplet[4];
    std::string why = disagreement(text, true, line);
    if (why.empty()) why = disagreement(text, false, triplet);
    if (why.empty() && line[2].rm_so >= 0)
      why = disagreement(
          text.substr(static_cast<size_t>(line[2].rm_so), static_cast<size_t>(line[2].rm_eo - line[2].rm_so)), false,
          triplet);
    return why;
  }

 private:
  regex_t line_;
  regex_t triplet_;
};

}  // namespace zelta_test

#endif  // ZELTA_TESTS_SCAN_ORACLE_H_
