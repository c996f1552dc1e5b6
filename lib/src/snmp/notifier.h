// The agent's notification originator: coldStart when the agent starts, and
// a change notification for every committed change of an object that opted
// in, to the targets of SNMPAgent::Options and to those a manager configures
// in SNMP-TARGET-MIB and SNMP-NOTIFICATION-MIB.
//
// The rows of those tables are served and routed by Net-SNMP's notification
// originator. The targets given in code get sessions of our own, so that
// their informs are retried by us and stay bounded: Net-SNMP offers no way to
// drop one of its outstanding requests.
//
// Changes are recorded while a SET commits (agent thread, library lock held) or
// by a host thread, and sent by flush() once the loop turn that committed
// them is over. Nothing here waits on the network: traps and informs are
// single datagrams, and an inform's acknowledgement arrives through the
// agent's loop.
#ifndef ZELTA_SRC_SNMP_NOTIFIER_H_
#define ZELTA_SRC_SNMP_NOTIFIER_H_

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "base/liblock.h"
#include "zelta/snmpagent.h"

struct snmp_session;
struct snmp_pdu;
struct variable_list;

namespace Quorvel::Kvan::SNMP {

class DynMibTable;
class MibEntry;

// Sends the agent's notifications: coldStart and the change notifications of
// the objects that opted in, to the in-code targets and to those a manager
// made in SNMP-NOTIFICATION-MIB.
class Notifier {
 public:
  Notifier() = default;
  ~Notifier();
  Notifier(const Notifier&) = delete;
  Notifier& operator=(const Notifier&) = delete;

  // On the agent thread once the engine is initialised: opens the sessions
  // of the in-code targets and queues coldStart. Takes the library lock.
  void start(const SNMPAgent::Options& options);
  // Closes the sessions and forgets what was not sent. Takes the library
  // lock; harmless when not started. Before the engine shuts down.
  void stop();
  // On the agent thread after each loop turn: sends what was queued and
  // retries informs whose wait ran out. Takes the library lock.
  void flush();

  // A SET binding that was committed to `entry`: queued when the entry opted
  // in and a notifier runs. `pdu` and `position` (the binding's place in its
  // PDU) put the notifications of one PDU in binding order.
  static void committed_nolock(const MibEntry& entry, const ::variable_list& vb, const void* pdu, int position)
      REQUIRES(libraryMutex());
  // A committed RowStatus binding: the row's status after the PDU.
  static void committedStatus_nolock(const MibEntry& entry, const ::variable_list& vb, long status, const void* pdu,
                                     int position) REQUIRES(libraryMutex());
  // A change the host reports: a scalar leaf's value, a table cell's value
  // or a row's RowStatus (destroy(6) when the row is gone), read now. False
  // when nothing is queued: no notifier runs, change notifications are off,
  // the object did not opt in or has no such instance.
  static bool leafChange_nolock(const MibEntry& entry) REQUIRES(libraryMutex());
  static bool cellChange_nolock(const DynMibTable& table, const std::vector<unsigned long>& index, unsigned int column)
      REQUIRES(libraryMutex());
  static bool rowChange_nolock(const DynMibTable& table, const std::vector<unsigned long>& index)
      REQUIRES(libraryMutex());

 private:
  struct Target {
    NotifyTarget config;
    ::snmp_session* session = nullptr;
    std::string label;  // address:port for log lines
  };
  struct Change {
    std::vector<unsigned long> name;
    unsigned char type = 0;
    std::string value;
    const void* pdu = nullptr;  // null for host changes
    int position = 0;
  };
  struct Inform {
    size_t target = 0;
    ::snmp_pdu* pdu = nullptr;  // kept for the retries
    int attemptsLeft = 0;
    bool resendDue = false;
  };

  bool openSession(Target& target) REQUIRES(libraryMutex());
  static Notifier* accepting_nolock(const MibEntry& entry) REQUIRES(libraryMutex());
  void queue_nolock(Change change) REQUIRES(libraryMutex());
  void send_nolock(const std::vector<unsigned long>& trapOid, const Change* change) REQUIRES(libraryMutex());
  void sendInform_nolock(long id, Inform& inform) REQUIRES(libraryMutex());
  // Erases the informs that are done (acknowledged or given up).
  void eraseDone_nolock() REQUIRES(libraryMutex());
  void dropOldest_nolock() REQUIRES(libraryMutex());
  void logCounts_nolock(bool force) REQUIRES(libraryMutex());
  // Net-SNMP's call with an inform's answer or time-out.
  static int informCallback(int op, ::snmp_session* session, int reqid, ::snmp_pdu* pdu, void* magic);

  bool running GUARDED_BY(libraryMutex()) = false;
  // An AgentX subagent: the master's receivers hear the changes too.
  bool subagent GUARDED_BY(libraryMutex()) = false;
  std::vector<Target> targets GUARDED_BY(libraryMutex());
  std::vector<unsigned long> changeOid GUARDED_BY(libraryMutex());
  size_t maxPending GUARDED_BY(libraryMutex()) = 0;
  std::vector<Change> queued GUARDED_BY(libraryMutex());
  std::map<long, Inform> pending GUARDED_BY(libraryMutex());  // by id, so the oldest comes first
  // An inform was answered or needs another attempt.
  bool informsDue GUARDED_BY(libraryMutex()) = false;
  long nextId GUARDED_BY(libraryMutex()) = 1;
  size_t dropped GUARDED_BY(libraryMutex()) = 0;     // pending informs dropped for room, not yet logged
  size_t unanswered GUARDED_BY(libraryMutex()) = 0;  // informs given up after their retries, not yet logged
  std::chrono::steady_clock::time_point lastCountLog GUARDED_BY(libraryMutex()){};
};

}  // namespace Quorvel::Kvan::SNMP

#endif  // ZELTA_SRC_SNMP_NOTIFIER_H_
