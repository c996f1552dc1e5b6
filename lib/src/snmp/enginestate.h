// The SNMPv3 engine's identity over restarts: which engine ID and
// snmpEngineBoots a start serves under, kept in a state file so that no start
// ever serves under an (engine ID, boots) pair an earlier start may have used.
// A captured authenticated request then never becomes valid again after a
// restart: the receiving engine's boots count has moved on.
//
// The file holds two lines, "engineID 0x<hex>" and "engineBoots <n>", and is
// replaced crash-safely (base/atomicfile.h) before the first request.
//
// Thread safety: called on the agent thread while the engine initialises,
// with the library lock held; no state of its own.
#ifndef ZELTA_SRC_SNMP_ENGINESTATE_H_
#define ZELTA_SRC_SNMP_ENGINESTATE_H_

#include <string>

#include "base/liblock.h"

namespace Quorvel::Kvan::SNMP {

// RFC 3414: snmpEngineBoots stays at its maximum once reached, and every
// authenticated message is then outside the time window.
constexpr long kMaxEngineBoots = 2147483647;

// What one start serves SNMPv3 under.
struct EngineIdentity {
  // The engine ID's bytes, served with `boots`; "" = built by Net-SNMP from
  // idText, boots 1.
  std::string engineId;
  long boots = 1;
  // An engine ID text as Net-SNMP's `engineID` line takes it.
  std::string idText;
};

// A new engine ID in the shape Net-SNMP gives its own random ones (4 random
// bytes and the time, 13 bytes in all), which no earlier start is expected
// to have used.
std::string randomEngineId();

// The identity of a start whose state file is `path`; `fixedIdText` is the
// host's engine ID text as Net-SNMP's `engineID` line takes it ("" = none).
// A missing file is a first start (boots 1, the host's engine ID or a new
// random one); a valid file gives its boots plus one, with the host's
// engine ID or the file's. The new state is written before this returns.
// A file that cannot be read or parsed, or cannot be written, is an ERROR
// line and gives a new random engine ID for this start only; an unreadable
// file is left as it is.
EngineIdentity startFromStateFile(const std::string& path, const std::string& fixedIdText);

// Hands the identity to Net-SNMP: before init_snmp, which applies it.
void configureEngineIdentity(const EngineIdentity& identity) REQUIRES(libraryMutex());

}  // namespace Quorvel::Kvan::SNMP

#endif  // ZELTA_SRC_SNMP_ENGINESTATE_H_
