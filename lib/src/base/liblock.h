// The library's one lock. It keeps the host's threads, the SNMP agent thread
// and the group save workers apart wherever they meet: parameter values, the
// agent's tables and Net-SNMP's global state. Recursive, because validators,
// fillers and post-set hooks run with it held and may write parameters.
//
// Every acquisition goes through LibraryLockGuard, so that clang's
// -Wthread-safety checks what it guards: state it guards is GUARDED_BY it,
// and functions that expect it held (named *_nolock) are REQUIRES it.
//
// Lock order: the library lock may be held while the group-file mutex is
// taken (a hook that saves), never the other way round; a LogChannel's mutex
// is always taken last.
#ifndef ZELTA_SRC_BASE_LIBLOCK_H_
#define ZELTA_SRC_BASE_LIBLOCK_H_

#include <atomic>
#include <mutex>
#include <thread>

#include "base/thread_annotations.h"
#include "zelta/export.h"

namespace Quorvel::Kvan {

// The recursive library mutex as a capability. It remembers its owner, so
// that assertHeld() can check a *_nolock precondition at run time.
class CAPABILITY("mutex") LibraryMutex {
 public:
  LibraryMutex() = default;
  LibraryMutex(const LibraryMutex&) = delete;
  LibraryMutex& operator=(const LibraryMutex&) = delete;

  void lock() ACQUIRE() {
    mutex_.lock();
    if (depth_++ == 0) owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  }
  void unlock() RELEASE() {
    if (--depth_ == 0) owner_.store(std::thread::id(), std::memory_order_relaxed);
    mutex_.unlock();
  }
  // Aborts unless this thread took the lock through lock() (directly or
  // further up the stack).
  void assertHeld() const ASSERT_CAPABILITY(this) {
    ZELTA_ASSERT(owner_.load(std::memory_order_relaxed) == std::this_thread::get_id(), "libraryMutex().assertHeld()");
  }

 private:
  std::recursive_mutex mutex_;
  // Only the holder changes these; a thread that does not hold the lock can
  // never read its own id from owner_.
  int depth_ = 0;
  std::atomic<std::thread::id> owner_{};
};

// Holds the library lock for its scope.
class SCOPED_CAPABILITY LibraryLockGuard {
 public:
  explicit LibraryLockGuard(LibraryMutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~LibraryLockGuard() RELEASE() { mutex_.unlock(); }
  LibraryLockGuard(const LibraryLockGuard&) = delete;
  LibraryLockGuard& operator=(const LibraryLockGuard&) = delete;

 private:
  LibraryMutex& mutex_;
};

// A plain (non-recursive) mutex as a capability, for state of its own.
class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

// What the thread-safety analysis calls the library lock, so that it can
// also check the order of the locks taken after it (ACQUIRED_AFTER). Only
// declared: code takes the lock through libraryMutex().
extern LibraryMutex libraryMutexCapability;

// The one library lock. Never destroyed: detached save workers may still
// take it during exit.
LibraryMutex& libraryMutex() RETURN_CAPABILITY(libraryMutexCapability);

}  // namespace Quorvel::Kvan

#endif  // ZELTA_SRC_BASE_LIBLOCK_H_
