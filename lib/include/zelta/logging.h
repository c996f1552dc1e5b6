// Logging channels: a process-wide registry of named channels, each with a
// maximum level. The library logs on the channel "libzelta", which exists from
// library load at level WARNING.
//
// Thread safety: any thread may call LogChannel::append; each channel's mutex
// keeps its lines whole. A message above the channel's level is dropped after
// one atomic read of the level, before any lock, clock reading or formatting
// (the caller's arguments are still evaluated). A channel's level may be
// changed from any thread at any time, also while others log. add() and
// remove() change the registry itself and are meant for start-up, while no
// other thread logs.
#ifndef ZELTA_LOGGING_H_
#define ZELTA_LOGGING_H_

#include <atomic>
#include <map>
#include <mutex>
#include <string>

#include "zelta/export.h"

namespace Quorvel::Kvan {

// Log level of a message or a channel; lower is more severe.
enum EventType : int { ERROR = 0, WARNING = 1, INFO = 2, DEBUG = 3, VERBOSE = 4 };

// One named channel. Lines of one channel never interleave.
class ZELTA_EXPORT LogChannel {
 public:
  LogChannel(const std::string& name, EventType level);
  LogChannel(const LogChannel&) = delete;
  LogChannel& operator=(const LogChannel&) = delete;

  // Writes one line when `level` is not above the channel's level: DEBUG to
  // standard output, every other level to standard error, ERROR in bold red
  // and WARNING in bold yellow. Returns the line as written (cut at 999
  // characters), or "" when the level is filtered out.
  std::string append(EventType level, const char* format, ...) __attribute__((format(printf, 3, 4)));

  std::string name;
  // Read without a lock by every append(); atomic so that the host may change
  // it while other threads log.
  std::atomic<EventType> level;
  // Keeps the channel's lines whole; held only while one line is written.
  std::mutex mutex;
};

// The registry of channels, ordered by name.
class ZELTA_EXPORT Logging {
 public:
  // Creates the registry with the channel "libzelta" at WARNING.
  Logging();
  ~Logging();
  Logging(const Logging&) = delete;
  Logging& operator=(const Logging&) = delete;

  // Adds a channel; false (and nothing changed) when the name exists.
  bool add(const std::string& name, EventType level);
  // Removes a channel; false when there was none. The channel must not be in
  // use by another thread.
  bool remove(const std::string& name);
  // REQUIRES: the channel exists; an unknown name throws std::out_of_range.
  LogChannel& operator[](const std::string& name);
  // The same for a name in a literal (Log["libzelta"]): the text becomes a
  // std::string here, once, and not at every place that logs.
  LogChannel& operator[](const char* name);
  // "name<sep>level": sets the level of an existing channel to DEBUG (3) or
  // VERBOSE (4) only. Any other text or level returns false and changes nothing.
  bool setLevelFromString(const std::string& levelText, char separator);

 private:
  // In a union so that the destructor decides: the global registry keeps its
  // channels after exit has destroyed it, for threads that still log then.
  union {
    std::map<std::string, LogChannel> channels_;
  };
};

// The one registry of the process.
ZELTA_EXPORT extern Logging Log;

}  // namespace Quorvel::Kvan

#endif  // ZELTA_LOGGING_H_
