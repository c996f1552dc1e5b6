#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "test_util.h"
#include "zelta/common.h"

using Quorvel::Kvan::Common::DelayedExecution;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using zelta_test::waitFor;

namespace {

// Counts calls and remembers when the last one happened. The callbacks share
// ownership, so a worker outliving a failed test touches nothing freed.
struct Probe {
  std::atomic<int> calls{0};
  std::atomic<Clock::rep> lastCall{0};
  double secondsSince(Clock::time_point t) const {
    return std::chrono::duration<double>(Clock::time_point(Clock::duration(lastCall.load())) - t).count();
  }
};

std::function<void()> counting(std::shared_ptr<Probe> probe) {
  return [probe] {
    probe->lastCall = Clock::now().time_since_epoch().count();
    ++probe->calls;
  };
}

}  // namespace

// The worker is never joined, so the object is never destroyed: a worker that
// outlives a failed test still finds it.
TEST(DelayedExecution, ABurstGivesOneCallOfTheLatestCallbackAfterTheLastChangeThenRearms) {
  static auto& delayed = *new DelayedExecution;
  auto first = std::make_shared<Probe>(), second = std::make_shared<Probe>();
  delayed.setCallback(counting(first));
  for (int i = 0; i < 6; ++i) {  // changes at 0, 0.5, ... 2.5 s
    if (i > 0) std::this_thread::sleep_for(500ms);
    delayed.onChange();
    if (i == 3) delayed.setCallback(counting(second));  // during the countdown
  }
  auto start = Clock::now();
  EXPECT_TRUE(delayed.isRunning());
  EXPECT_EQ(first->calls + second->calls, 0);
  ASSERT_TRUE(waitFor([&] { return !delayed.isRunning(); }, 4000ms));
  EXPECT_EQ(first->calls, 0);
  ASSERT_EQ(second->calls, 1);
  EXPECT_GT(second->secondsSince(start), 0.5);
  EXPECT_LT(second->secondsSince(start), 3.0);

  // A change after the call starts a new round.
  start = Clock::now();
  delayed.onChange();
  ASSERT_TRUE(waitFor([&] { return second->calls == 2 && !delayed.isRunning(); }, 4000ms));
  EXPECT_GT(second->secondsSince(start), 1.5);
  EXPECT_LT(second->secondsSince(start), 3.5);
}
