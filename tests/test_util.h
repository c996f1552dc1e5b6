// Shared test helpers: a private temporary directory and log capture.
#ifndef ZELTA_TESTS_TEST_UTIL_H_
#define ZELTA_TESTS_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "zelta/common.h"
#include "zelta/logging.h"

namespace zelta_test {

// A temporary directory removed with everything in it at the end of the test.
class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/zelta-test-XXXXXX";
    path_ = mkdtemp(tmpl) != nullptr ? tmpl : "";
  }
  ~TempDir() {
    if (!path_.empty()) std::system(("rm -rf '" + path_ + "'").c_str());
  }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  std::string write(const std::string& name, const std::string& bytes) const {
    std::ofstream(file(name), std::ios::binary) << bytes;
    return file(name);
  }
  std::string read(const std::string& name) const { return Quorvel::Kvan::Common::getFileContents(file(name)); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Runs `fn` with channel "libzelta" at `level` and returns what it printed on
// standard output and standard error, in that order.
inline std::string captureLog(Quorvel::Kvan::EventType level, const std::function<void()>& fn) {
  auto& channel = Quorvel::Kvan::Log["libzelta"];
  const Quorvel::Kvan::EventType old = channel.level;
  channel.level = level;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  fn();
  fflush(stdout);
  fflush(stderr);
  std::string out = testing::internal::GetCapturedStdout();
  out += testing::internal::GetCapturedStderr();
  channel.level = old;
  return out;
}

// How often `what` occurs in `text`.
inline size_t occurrences(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// Polls `done` every 20 ms until it is true or `limit` has passed.
inline bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  auto end = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < end) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return done();
}

}  // namespace zelta_test

#endif  // ZELTA_TESTS_TEST_UTIL_H_
