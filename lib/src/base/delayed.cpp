// DelayedExecution: a debounce worker counting down in one-second ticks.
#include "zelta/delayed.h"

#include <unistd.h>

#include <thread>

#include "zelta/logging.h"

namespace Quorvel::Kvan::Common {

DelayedExecution::DelayedExecution() = default;

void DelayedExecution::setCallback(std::function<void()> cb) {
  std::lock_guard<std::mutex> lock(callbackMutex);
  callback.swap(cb);
}

void DelayedExecution::onChange() {
  ticks.store(2);
  // exchange() lets exactly one of several concurrent callers start the worker.
  if (running.exchange(true)) return;
  try {
    // Detached: nobody waits for the worker, and a joinable std::thread
    // object left behind would abort the process when destroyed.
    std::thread([this] { workerCode(); }).detach();
  } catch (...) {
    running.store(false);  // let a later change try again
    throw;
  }
}

void DelayedExecution::workerCode() {
  do {
    Log["libzelta"].append(VERBOSE, "DelayedExecution: remaining ticks: %d\n", ticks.load());
    sleep(1);
    ticks.fetch_sub(1);
    // Re-read: a change that lands after the decrement must still extend the
    // countdown.
  } while (ticks.load() > 0);

  // Call a copy outside the lock, so a callback that itself calls
  // setCallback cannot deadlock and a concurrent setCallback cannot destroy
  // the function while it runs. An empty callback throws here.
  std::function<void()> cb;
  {
    std::lock_guard<std::mutex> lock(callbackMutex);
    cb = callback;
  }
  cb();

  // A change that arrived during the call is dropped here: its reset of ticks
  // is overwritten and it started no worker. Kept deliberately simple; a
  // caller that needs it calls onChange() again.
  ticks.store(0);
  running.store(false);
}

}  // namespace Quorvel::Kvan::Common
