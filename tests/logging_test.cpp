#include "zelta/logging.h"

#include <gtest/gtest.h>

#include <regex>
#include <stdexcept>
#include <string>

using namespace Quorvel::Kvan;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

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

TEST_F(LoggingTest, WarningLineIsColouredOnStderrWithRawMicroseconds) {
  CaptureStdout();
  CaptureStderr();
  std::string line = Log["t"].append(WARNING, "ParamManager: - skip invalid key '%s'\n", "a.b");
  std::string out = GetCapturedStdout();
  std::string err = GetCapturedStderr();
  EXPECT_EQ(out, "");
  EXPECT_EQ(err, line);
  // Timestamp "%Y%m%d%H%M%S", then the microseconds through "%03lu" (3 to 6 digits).
  std::regex expected(
      "\033\\[01;33m[0-9]{14}\\.[0-9]{3,6} \\[t\\] ParamManager: - skip invalid key 'a\\.b'\n\033\\[00m");
  EXPECT_TRUE(std::regex_match(line, expected)) << line;
}

TEST_F(LoggingTest, LevelsRouteAndFilter) {
  CaptureStdout();
  CaptureStderr();
  EXPECT_EQ(Log["t"].append(INFO, "info\n"), "");
  EXPECT_EQ(Log["t"].append(DEBUG, "debug\n"), "");
  std::string error = Log["t"].append(ERROR, "boom\n");
  EXPECT_TRUE(Log.setLevelFromString("t:3", ':'));
  std::string debug = Log["t"].append(DEBUG, "debug %d\n", 3);
  std::string info = Log["t"].append(INFO, "info\n");
  EXPECT_EQ(Log["t"].append(VERBOSE, "verbose\n"), "");
  EXPECT_TRUE(Log.setLevelFromString("t:4", ':'));
  std::string verbose = Log["t"].append(VERBOSE, "verbose\n");
  std::string out = GetCapturedStdout();
  std::string err = GetCapturedStderr();

  EXPECT_EQ(error.rfind("\033[01;31m", 0), 0u);
  EXPECT_EQ(error.substr(error.size() - 10), "boom\n\033[00m");
  EXPECT_EQ(out, debug);  // DEBUG is the only level on standard output
  EXPECT_EQ(debug.find('\033'), std::string::npos);
  EXPECT_EQ(info.find('\033'), std::string::npos);
  EXPECT_EQ(err, error + info + verbose);
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

TEST_F(LoggingTest, LongLinesAreCutAt999Characters) {
  std::string big(5000, 'x');
  CaptureStderr();
  std::string line = Log["t"].append(WARNING, "%s\n", big.c_str());
  GetCapturedStderr();
  EXPECT_EQ(line.size(), 999u);
  EXPECT_EQ(line.back(), 'x');  // the colour suffix is lost
}
