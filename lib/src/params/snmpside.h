// How a published parameter reaches the SNMP side, which this layer does not
// include: the SNMP layer gives it the object that serves the parameter, a
// leaf or a table by the value type's SNMP rules (snmp/mibtypes.cpp).
//
// The SNMP layer registers its maker when an SNMPInfo is made; a parameter is
// published only through one, made before the parameter, so the maker is
// there when a published parameter is constructed.
//
// Thread safety: the maker is set and read atomically, from any thread.
#ifndef ZELTA_SRC_PARAMS_SNMPSIDE_H_
#define ZELTA_SRC_PARAMS_SNMPSIDE_H_

#include "zelta/tabledef.h"

namespace Quorvel::Kvan {

namespace SNMP {
class SNMPInfo;
}

// Gives `info` the object that serves `value`, a parameter of `type` whose
// SET values lie in min..max (NO_RANGE in either: no range).
using EntryMaker = void (*)(SNMP::SNMPInfo& info, Variant& value, ValueType type, unsigned long min, unsigned long max);

void setEntryMaker(EntryMaker maker);
// The registered maker; null before any SNMPInfo was made.
EntryMaker entryMaker();

}  // namespace Quorvel::Kvan

#endif  // ZELTA_SRC_PARAMS_SNMPSIDE_H_
