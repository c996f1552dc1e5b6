#include "base/ratelimit.h"

#include <cctype>

namespace Quorvel::Kvan {

namespace {

const char kOtherKinds[] = "(other messages)";

}  // namespace

LogRateLimiter::LogRateLimiter(unsigned linesPerWindow, Clock::duration window)
    : linesPerWindow_(linesPerWindow), window_(window) {}

std::string LogRateLimiter::kindOf(const std::string& text) {
  size_t end = 0;
  while (end < text.size() && !std::isdigit(static_cast<unsigned char>(text[end])) &&
         std::string("([{:\"'").find(text[end]) == std::string::npos)
    ++end;
  while (end > 0 && std::isspace(static_cast<unsigned char>(text[end - 1]))) --end;
  return text.substr(0, end);
}

bool LogRateLimiter::admit(const std::string& text, int level, Clock::time_point now) {
  std::string kind = kindOf(text);
  auto it = kinds_.find(kind);
  if (it == kinds_.end()) {
    if (kinds_.size() >= kMaxKinds) kind = kOtherKinds;
    it = kinds_.emplace(kind, Window{now, 0, 0, level}).first;
  }
  Window& w = it->second;
  if (w.passed < linesPerWindow_) {
    ++w.passed;
    return true;
  }
  if (w.suppressed == 0 || level < w.level) w.level = level;
  ++w.suppressed;
  return false;
}

std::vector<LogRateLimiter::Summary> LogRateLimiter::takeDue(Clock::time_point now) {
  std::vector<Summary> due;
  for (auto it = kinds_.begin(); it != kinds_.end();) {
    Window& w = it->second;
    if (now - w.start < window_) {
      ++it;
      continue;
    }
    if (w.suppressed == 0) {
      it = kinds_.erase(it);  // quiet: its next line is a first occurrence again
      continue;
    }
    due.push_back(Summary{it->first, w.level, w.suppressed});
    w = Window{now, 0, 0, 0};
    ++it;
  }
  return due;
}

}  // namespace Quorvel::Kvan
