// A limit on alike log lines. Any sender on the network can make Net-SNMP log
// a line per datagram; without a limit that fills the host's log.
//
// Thread safety: none; the owner serialises calls.
#ifndef ZELTA_SRC_BASE_RATELIMIT_H_
#define ZELTA_SRC_BASE_RATELIMIT_H_

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace Quorvel::Kvan {

// Lets the first few lines of each kind through in every window and counts
// the rest; when a window with suppressed lines ends, one summary per kind is
// due. The first line of a kind is never suppressed.
class LogRateLimiter {
 public:
  using Clock = std::chrono::steady_clock;

  struct Summary {
    std::string kind;
    int level;  // the most severe level among the suppressed lines
    unsigned suppressed;
  };

  LogRateLimiter(unsigned linesPerWindow, Clock::duration window);

  // True when a line of `text` at `level` may be written at `now`.
  bool admit(const std::string& text, int level, Clock::time_point now);
  // The kinds whose window has ended by `now` with lines suppressed. Their
  // counts start anew; kinds that went quiet are forgotten.
  std::vector<Summary> takeDue(Clock::time_point now);
  Clock::duration window() const { return window_; }

  // What makes lines alike: the text up to the first digit, bracket, colon or
  // quote, where the varying part of a message usually starts.
  static std::string kindOf(const std::string& text);

 private:
  struct Window {
    Clock::time_point start;
    unsigned passed = 0;
    unsigned suppressed = 0;
    int level = 0;
  };

  // Kinds tracked at once; lines of further kinds share one window.
  static const size_t kMaxKinds = 32;

  unsigned linesPerWindow_;
  Clock::duration window_;
  std::map<std::string, Window> kinds_;
};

}  // namespace Quorvel::Kvan

#endif  // ZELTA_SRC_BASE_RATELIMIT_H_
