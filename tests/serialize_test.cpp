#include <gtest/gtest.h>

#include <random>

#include "zelta/common.h"

using namespace Quorvel::Kvan::Common;

namespace {
std::string inQuotes(const std::string& s) { return "\"" + s + "\""; }
}  // namespace

TEST(Serialize, WorkedExamples) {
  EXPECT_EQ(serialize("Hello world"), "Hello world");
  EXPECT_EQ(serialize("a=b"), "a\\x3db");
  EXPECT_EQ(serialize("C:\\tmp"), "C:\\\\tmp");
  EXPECT_EQ(serialize("say \"hi\""), "say \\x22hi\\x22");
  EXPECT_EQ(serialize("it's!"), "it\\x27s\\x21");
  EXPECT_EQ(serialize("\t\n"), "\\x09\\x0a");
  EXPECT_EQ(serialize("\xC3\xA9"), "\\xc3\\xa9");
  EXPECT_EQ(serialize(""), "");
  EXPECT_EQ(serialize("[error]"), "[error]");
  EXPECT_EQ(serialize(std::string(1, '\0')), "\\x00");
  EXPECT_EQ(serialize("`"), "\\x60");
  EXPECT_EQ(serialize(" #$%&()*+,-./:;<>?@[]^_{|}~"), " #$%&()*+,-./:;<>?@[]^_{|}~");
}

TEST(Deserialize, WorkedExamples) {
  EXPECT_EQ(deserialize("\"a\\x3Db\""), "a=b");
  EXPECT_EQ(deserialize("\"a\\\"b\""), "a\"b");
  EXPECT_EQ(deserialize("\"C:\\\\tmp\""), "C:\\tmp");
  EXPECT_EQ(deserialize("\"\""), "");
  EXPECT_EQ(deserialize("\"ab\"cd"), "ab");
  EXPECT_EQ(deserialize("\"a!='`b\""), "a!='`b");  // the reader is more permissive than the writer
  EXPECT_EQ(deserialize("\"\\x00\""), std::string(1, '\0'));
}

TEST(Deserialize, ErrorTexts) {
  EXPECT_EQ(deserialize(""), "[error - len]");
  EXPECT_EQ(deserialize("ab"), "[error - start]");
  EXPECT_EQ(deserialize("\"ab"), "[error]");
  EXPECT_EQ(deserialize("\"a\\nb\""), "[error]");
  EXPECT_EQ(deserialize("\"\\X41\""), "[error]");
  EXPECT_EQ(deserialize("\"\\x4\""), "[error]");
  EXPECT_EQ(deserialize("\"\\x4"), "[error]");
  EXPECT_EQ(deserialize("\"\\"), "[error]");
  EXPECT_EQ(deserialize("\"a\tb\""), "[error]");
  EXPECT_EQ(deserialize("\"a\xC3\xA9\""), "[error]");
  EXPECT_EQ(deserialize("\""), "[error]");
}

TEST(Serialize, EveryByteRoundTrips) {
  std::string all;
  for (int b = 0; b < 256; ++b) {
    std::string one(1, static_cast<char>(b));
    std::string text = serialize(one);
    EXPECT_EQ(text.find('"'), std::string::npos);
    EXPECT_EQ(deserialize(inQuotes(text)), one) << b;
    all += one;
  }
  EXPECT_EQ(deserialize(inQuotes(serialize(all))), all);
}

TEST(Deserialize, ArbitraryBytesNeverCrash) {
  std::mt19937 rng(7);
  const std::string alphabet = "\"\\xX0aF9 \t\x80=";
  for (int i = 0; i < 20000; ++i) {
    std::string s(rng() % 24, '\0');
    for (char& c : s) c = (rng() % 2) ? alphabet[rng() % alphabet.size()] : static_cast<char>(rng() & 0xFF);
    if (rng() % 2) s.insert(s.begin(), '"');
    std::string out = deserialize(s);
    EXPECT_LE(out.size(), s.size() + 16);
  }
}
