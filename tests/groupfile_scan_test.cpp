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

#include "base/filetext.h"
#include "scan_oracle.h"
#include "test_util.h"

namespace {

namespace Common = Quorvel::Kvan::Common;
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
    const std::string values[] = {std::to_string(static_cast<int64_t>(random() % 10000000000ull) - 5000000000ll),
                                  "\"Front door \\x22A\\x22 " + std::to_string(pick(100)) + "\"",
                                  "10." + std::to_string(pick(256)) + ".0.1", "\"\""};
    return std::to_string(pick(12)) + ":" + std::to_string(std::vector<int>{2, 4, 64, 67, 4, 99}[pick(6)]) + ":" +
           values[pick(4)];
  }
  std::string valid() {
    static const char* kKeys[] = {"volume", "label", "routes", "a", "x9", "A1b2", ""};
    std::string line = std::string(kKeys[pick(7)]) + "." + std::to_string(pick(1000));
    if (pick(3) == 0) line += "." + std::to_string(pick(70000));
    line += pick(4) == 0 ? "=" : " = ";
    for (size_t n = 1 + pick(4); n > 0; --n) line += triplet() + " ";
    return line;
  }
  // Inserts, replaces or erases at a random place.
  void mutate(std::string& line) {
    const size_t at = pick(line.size() + 1), how = pick(3);
    if (how == 0) line.insert(at, 1, odd());
    if (how == 1 && at < line.size()) line[at] = odd();
    if (how == 2 && at < line.size()) line.erase(at, 1 + pick(3));
  }

  std::mt19937_64 random;
};

// A million generated lines (in shards of an eighth, four per locale, that
// ctest runs side by side) and the fuzz corpus, a worked example among it:
// same verdict, same sub-matches, for both patterns. Under emulation a tenth of
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

TEST_P(ScannerAgreesWithRegexec, OnGeneratedLinesAndTheCorpus) {
  ScanOracle oracle;  // compiled in the locale under test
  int failures = 0;
  const int shard = std::get<1>(GetParam());
  LineMaker maker(static_cast<uint64_t>(shard) * 2 + (std::get<0>(GetParam())[1] ? 1 : 0));
  for (int i = 0; i < kLinesPerShard && failures <= 5; ++i) expectAgreement(oracle, maker.next(), failures);
  // The first shard of each locale reads the corpus too, line by line.
  const std::string corpus = std::string(ZELTA_SOURCE_DIR) + "/fuzz/corpus/groupfile_fuzz";
  DIR* dir = shard == 0 ? opendir(corpus.c_str()) : nullptr;
  EXPECT_TRUE(shard != 0 || dir != nullptr) << corpus;
  for (const dirent* entry; dir != nullptr && (entry = readdir(dir)) != nullptr;)
    if (entry->d_name[0] != '.')
      for (const std::string& line : Common::split(Common::getFileContents(corpus + "/" + entry->d_name), '\n'))
        expectAgreement(oracle, line, failures);
  if (dir != nullptr) closedir(dir);
  EXPECT_EQ(failures, 0);
}

INSTANTIATE_TEST_SUITE_P(Shards, ScannerAgreesWithRegexec,
                         testing::Combine(testing::Values("C", "C.UTF-8"), testing::Range(0, 4)), [](const auto& p) {
                           return std::string(std::get<0>(p.param)[1] ? "CUtf8_" : "C_") +
                                  std::to_string(std::get<1>(p.param));
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
  for (int i = 0; i < 200000; ++i) {
    std::string text;
    for (size_t n = random() % 4; n > 0; --n) text += pieces[random() % pieces.size()];
    int expectedSigned = 0;
    unsigned int expectedUnsigned = 0;
    std::istringstream(text) >> expectedSigned;
    std::istringstream(text) >> expectedUnsigned;
    ASSERT_EQ(Common::parseSigned32(text.data(), text.size()), expectedSigned) << "'" << text << "'";
    ASSERT_EQ(Common::parseUnsigned32(text.data(), text.size()), expectedUnsigned) << "'" << text << "'";
  }
}

}  // namespace
