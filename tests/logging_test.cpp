#include "zelta/logging.h"

#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/ratelimit.h"

using namespace Quorvel::Kvan;
using namespace testing::internal;

namespace {

// Each test gets its own channel so the global "libzelta" level stays as shipped.
class LoggingTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(Log.add("t", WARNING)); }
  void TearDown() override { Log.remove("t"); }
};

}  // namespace

TEST(Logging, LibraryChannelStartsAtWarning) {
  Logging fresh;
  EXPECT_EQ(fresh["libzelta"].level, WARNING);
  EXPECT_FALSE(fresh.add("libzelta", VERBOSE));
  EXPECT_EQ(fresh["libzelta"].level, WARNING);
  EXPECT_THROW(fresh["nosuch"], std::out_of_range);
  EXPECT_TRUE(fresh.remove("libzelta"));
  EXPECT_FALSE(fresh.remove("libzelta"));
}

// Warnings are yellow and errors red on standard error, INFO and VERBOSE
// plain there, DEBUG plain on standard output; a line is cut at 999
// characters, its colour suffix with it.
TEST_F(LoggingTest, LevelsRouteFilterColourAndCutLines) {
  CaptureStdout();
  CaptureStderr();
  std::string line = Log["t"].append(WARNING, "ParamManager: - skip invalid key '%s'\n", "a.b");
  std::string big = Log["t"].append(WARNING, "%s\n", std::string(5000, 'x').c_str());
  EXPECT_EQ(Log["t"].append(INFO, "info\n"), "");
  EXPECT_EQ(Log["t"].append(DEBUG, "debug\n"), "");
  std::string error = Log["t"].append(ERROR, "boom\n");
  EXPECT_TRUE(Log.setLevelFromString("t:3", ':'));
  std::string debug = Log["t"].append(DEBUG, "debug %d\n", 3);
  std::string info = Log["t"].append(INFO, "info\n");
  EXPECT_EQ(Log["t"].append(VERBOSE, "verbose\n"), "");
  EXPECT_TRUE(Log.setLevelFromString("t:4", ':'));
  std::string verbose = Log["t"].append(VERBOSE, "verbose\n");
  EXPECT_EQ(GetCapturedStdout(), debug);
  EXPECT_EQ(GetCapturedStderr(), line + big + error + info + verbose);

  // Timestamp "%Y%m%d%H%M%S", then the microseconds through "%03lu" (3 to 6 digits).
  std::regex expected(
      "\033\\[01;33m[0-9]{14}\\.[0-9]{3,6} \\[t\\] ParamManager: - skip invalid key 'a\\.b'\n\033\\[00m");
  EXPECT_TRUE(std::regex_match(line, expected)) << line;
  EXPECT_EQ(big.size(), 999u);
  EXPECT_EQ(big.back(), 'x');
  EXPECT_EQ(error.rfind("\033[01;31m", 0), 0u);
  EXPECT_EQ(error.substr(error.size() - 10), "boom\n\033[00m");
  EXPECT_EQ(debug.find('\033'), std::string::npos);
  EXPECT_EQ(info.find('\033'), std::string::npos);
}

TEST_F(LoggingTest, SetLevelFromStringOnlyTurnsDebuggingOn) {
  for (const char* bad : {"t:1", "t:5", "t:0", "t:-3", "t", "t:3:4", "other:3", "t:x", ""}) {
    EXPECT_FALSE(Log.setLevelFromString(bad, ':')) << bad;
    EXPECT_EQ(Log["t"].level, WARNING) << bad;
  }
  EXPECT_TRUE(Log.setLevelFromString("t: 4", ':'));
  EXPECT_EQ(Log["t"].level, VERBOSE);
  EXPECT_TRUE(Log.setLevelFromString("t=3x", '='));
  EXPECT_EQ(Log["t"].level, DEBUG);
}

// A flood of alike lines: the first few of each kind pass in every window,
// the first line of a new kind always does, and a window that held lines back
// ends with one summary of them.
TEST(LogRateLimiter, PassesTheFirstLinesOfEachKindAndSumsUpTheRest) {
  using Clock = LogRateLimiter::Clock;
  const Clock::time_point t0{};
  LogRateLimiter limiter(3, std::chrono::seconds(60));
  EXPECT_EQ(LogRateLimiter::kindOf("Bad PDU type received: 0x1b"), "Bad PDU type received");
  EXPECT_EQ(LogRateLimiter::kindOf("bad type returned (fc)"), "bad type returned");
  int passed = 0;
  for (int i = 0; i < 1000; ++i)
    passed += limiter.admit("Bad PDU type received: 0x" + std::to_string(i), i % 2, t0 + std::chrono::milliseconds(i));
  EXPECT_EQ(passed, 3);
  EXPECT_TRUE(limiter.admit("bad type returned (fc)", ERROR, t0 + std::chrono::seconds(30)));
  EXPECT_TRUE(limiter.takeDue(t0 + std::chrono::seconds(59)).empty());

  std::vector<LogRateLimiter::Summary> due = limiter.takeDue(t0 + std::chrono::seconds(60));
  ASSERT_EQ(due.size(), 1u);
  EXPECT_EQ(due[0].kind, "Bad PDU type received");
  EXPECT_EQ(due[0].suppressed, 997u);
  EXPECT_EQ(due[0].level, 0);  // the most severe of the lines held back
  // A new window lets the first few through again.
  EXPECT_TRUE(limiter.admit("Bad PDU type received: 0x1", WARNING, t0 + std::chrono::seconds(61)));
  // Beyond the 32 kinds it tracks (2 so far), lines share one window.
  for (int i = 0; i < 100; ++i) {
    const char name[] = {'k', static_cast<char>('a' + i % 60 / 26), static_cast<char>('a' + i % 60 % 26), 0};
    limiter.admit(name, 0, t0 + std::chrono::seconds(61));
  }
  due = limiter.takeDue(t0 + std::chrono::hours(1));
  ASSERT_EQ(due.size(), 1u);
  EXPECT_EQ(due[0].kind, "(other messages)");
  EXPECT_EQ(due[0].suppressed, 40u - 3u);
}
