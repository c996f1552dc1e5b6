// A debounce helper: a callback that runs once a burst of changes has
// settled, on a worker thread of its own.
//
// Thread safety: a DelayedExecution may be triggered from any thread.
#ifndef ZELTA_DELAYED_H_
#define ZELTA_DELAYED_H_

#include <atomic>
#include <functional>
#include <mutex>

#include "zelta/export.h"

namespace Quorvel::Kvan {
namespace Common {

// Runs a callback once a burst of onChange() calls has settled: each call
// (re)arms a countdown of 2 one-second ticks; when it runs out, the callback
// runs once on a worker thread. A change that arrives while the callback runs
// is not followed by another call. The object must outlive its worker.
class ZELTA_EXPORT DelayedExecution {
 public:
  DelayedExecution();
  DelayedExecution(const DelayedExecution&) = delete;
  DelayedExecution& operator=(const DelayedExecution&) = delete;

  // Replaces the callback; a counting worker calls the new one.
  void setCallback(std::function<void()> cb);
  // Sets the countdown to 2 ticks and starts a worker unless one runs.
  // REQUIRES: a callback is set before the countdown runs out; an empty one
  // throws std::bad_function_call on the worker, which ends the process.
  void onChange();
  // The worker's body; meant only as the thread's entry.
  void workerCode();
  // True from the start of a worker until its callback has returned.
  bool isRunning() const { return running.load(); }

 private:
  std::mutex callbackMutex;
  std::function<void()> callback;
  std::atomic<bool> running{false};
  std::atomic<int> ticks{0};
};

}  // namespace Common
}  // namespace Quorvel::Kvan

#endif  // ZELTA_DELAYED_H_
