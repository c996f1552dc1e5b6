// The group-file reader's hand-written scanner and number parsers against
// the references they replace: regexec with the two patterns, and formatted
// input streams.
#include <gtest/gtest.h>

#include <dirent.h>
#include <clocale>
#include <cstdint>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "../lib/src/filetext.h"
#include "scan_oracle.h"
#include "test_util.h"

namespace {

using zelta_test::ScanOracle;

// Lines as the writer makes them, and as hands and bit rot make them.
class LineMaker {
 public:
  explicit LineMaker(uint64_t seed) : random(seed) {}

  std::string next() {
    std::string line = valid();
    const size_t roll = pick(64);
    if (roll < 8) return line;
    if (roll < 16) return std::string(pick(4), ' ') + line + std::string(pick(3), "\r\t "[random() % 3]);
    // Long lines are few: regexec takes a while over them.
    if (roll == 16) line += std::string(200 + pick(1500), "a \"=."[random() % 5]);
    for (size_t n = 1 + pick(4); n > 0; --n) mutate(line);
    return line;
  }

 private:
  size_t pick(size_t n) { return static_cast<size_t>(random() % n); }
  char odd() {
    static const char kOdd[] = " \t\r\v\f=\":._\\#-+0123456789aZx\x01\x7f\x80\xc3\xa9\xff";
    return kOdd[pick(sizeof kOdd)];  // the terminating NUL included
  }
  std::string triplet() {
    std::string t =
        std::to_string(pick(12)) + ":" + std::to_string(std::vector<int>{2, 4, 64, 67, 4, 99}[pick(6)]) + ":";
    switch (pick(4)) {
      case 0:
        return t + std::to_string(static_cast<int64_t>(random() % 10000000000ull) - 5000000000ll);
      case 1:
        return t + "\"Front door \\x22A\\x22 " + std::to_string(pick(100)) + "\"";
      case 2:
        return t + "10." + std::to_string(pick(256)) + ".0.1";
      default:
        return t + "\"\"";
    }
  }
  std::string valid() {
    static const char* kKeys[] = {"volume", "label", "routes", "a", "x9", "A1b2", ""};
    std::string line = std::string(kKeys[pick(7)]) + "." + std::to_string(pick(1000));
    if (pick(3) == 0) line += "." + std::to_string(pick(70000));
    line += pick(4) == 0 ? "=" : " = ";
    for (size_t n = 1 + pick(4); n > 0; --n) line += triplet() + " ";
    return line;
  }
  void mutate(std::string& line) {
    const size_t at = pick(line.size() + 1);
    switch (pick(3)) {
      case 0:
        line.insert(at, 1, odd());
        break;
      case 1:
        if (at < line.size()) line[at] = odd();
        break;
      default:
        if (at < line.size()) line.erase(at, 1 + pick(3));
        break;
    }
  }

  std::mt19937_64 random;
};

// A million generated lines (in shards of an eighth, four per locale, that
// ctest runs side by side), the fuzz corpus and the worked example: same
// verdict, same sub-matches, for both patterns. Under emulation a tenth of
// the lines is enough to check the target's build of the same code.
#ifdef ZELTA_EMULATED
const int kLinesPerShard = 12500;
#else
const int kLinesPerShard = 125000;
#endif

class ScannerAgreesWithRegexec : public testing::TestWithParam<std::tuple<const char*, int>> {
 protected:
  void SetUp() override { ASSERT_NE(setlocale(LC_ALL, std::get<0>(GetParam())), nullptr) << std::get<0>(GetParam()); }
  void TearDown() override { setlocale(LC_ALL, "C"); }

  void expectAgreement(ScanOracle& oracle, const std::string& text, int& failures) {
    std::string why = oracle.check(text);
    if (!why.empty() && ++failures <= 5) ADD_FAILURE() << why << " on " << testing::PrintToString(text);
  }
};

TEST_P(ScannerAgreesWithRegexec, OnGeneratedLinesTheCorpusAndTheWorkedExample) {
  ScanOracle oracle;  // compiled in the locale under test
  int failures = 0;
  const int shard = std::get<1>(GetParam());
  LineMaker maker(static_cast<uint64_t>(shard) * 2 + (std::string(std::get<0>(GetParam())) == "C" ? 0 : 1));
  for (int i = 0; i < kLinesPerShard && failures <= 5; ++i) expectAgreement(oracle, maker.next(), failures);
  if (shard != 0) {
    EXPECT_EQ(failures, 0);
    return;
  }

  const std::string example =
      "volume.0 = 0:2:7\nlabel.0 = 0:4:\"Front door \\x22A\\x22\"\ngateway.0 = 0:64:192.168.1.1\n"
      "uptime.0 = 0:67:12345\naddr.0 = 0:4:\"AB\\x01\\x0212\\x7f\\x80\"\n"
      "contacts.1 = 2:4:\"Hall\" 3:2:15 \ncontacts.2 = 2:4:\"Garage\" 3:2:-3 \n";
  std::vector<std::string> texts{example};
  const std::string corpus = std::string(ZELTA_SOURCE_DIR) + "/fuzz/corpus/groupfile_fuzz";
  if (DIR* dir = opendir(corpus.c_str())) {
    while (const dirent* entry = readdir(dir))
      if (entry->d_name[0] != '.')
        texts.push_back(Quorvel::Kvan::Common::getFileContents(corpus + "/" + entry->d_name));
    closedir(dir);
  }
  ASSERT_GT(texts.size(), 1u) << "no corpus in " << corpus;
  for (const std::string& text : texts) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) expectAgreement(oracle, line, failures);
  }
  EXPECT_EQ(failures, 0);
}

INSTANTIATE_TEST_SUITE_P(Shards, ScannerAgreesWithRegexec,
                         testing::Combine(testing::Values("C", "C.UTF-8"), testing::Range(0, 4)),
                         [](const testing::TestParamInfo<std::tuple<const char*, int>>& shardInfo) {
                           return std::string(std::string(std::get<0>(shardInfo.param)) == "C" ? "C" : "CUtf8") + "_" +
                                  std::to_string(std::get<1>(shardInfo.param));
                         });

// The number parsers against the stream reads they replace: `>> int` for
// integers and table-cell TimeTicks, `>> unsigned int` (the 32-bit target's
// `>> unsigned long`) for single TimeTicks and index components.
TEST(FileNumbers, ParseAsTheTargetsStreamsDo) {
  std::mt19937_64 random(7);
  const std::vector<std::string> pieces{
      "",   " ",  "\t",         "\n",         "+",          "-",          "0",
      "7",  "12", "9",          "x",          "a",          ".",          "\"",
      "-0", "00", "2147483647", "2147483648", "4294967295", "4294967296", "99999999999999999999",
      " -", "+-", "1e3"};
  int checked = 0;
  for (int i = 0; i < 200000; ++i) {
    std::string text;
    for (size_t n = random() % 4; n > 0; --n) text += pieces[random() % pieces.size()];
    int expectedSigned = 0;
    unsigned int expectedUnsigned = 0;
    std::istringstream(text) >> expectedSigned;
    std::istringstream(text) >> expectedUnsigned;
    ASSERT_EQ(Quorvel::Kvan::Common::parseSigned32(text.data(), text.size()), expectedSigned) << "'" << text << "'";
    ASSERT_EQ(Quorvel::Kvan::Common::parseUnsigned32(text.data(), text.size()), expectedUnsigned) << "'" << text << "'";
    ++checked;
  }
  EXPECT_EQ(checked, 200000);
}

}  // namespace
