// The steps of a request on a scalar leaf: a GET, the checks of a SET value
// and its commit. The agent's scalar index dispatches each binding to them,
// on the agent thread with the library lock held.
#ifndef ZELTA_SRC_SNMP_MIBLEAVES_H_
#define ZELTA_SRC_SNMP_MIBLEAVES_H_

#include "snmp/snmpinternal.h"

#include "base/liblock.h"
#include "zelta/mibtypes.h"

namespace Quorvel::Kvan::SNMP {

struct ZELTA_LOCAL MibLeaf::Internal {
  // The checks of a SET value: 0, or the error status (notWritable,
  // wrongType, wrongLength, wrongValue).
  static int check_set(MibLeaf& leaf, const netsnmp_variable_list& vb) REQUIRES(libraryMutex());
  // Writes the value into the Variant and notifies its listener once.
  // Returns an SNMP error status (0 = done). A leaf that is not writable
  // ignores the write and returns 0.
  static int set_value(MibLeaf& leaf, const netsnmp_variable_list& vb) REQUIRES(libraryMutex());
  // Runs the filler and answers the request; false when the filler refused.
  static bool get_request(MibLeaf& leaf, netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request)
      REQUIRES(libraryMutex());
  // Asks memory for the bound value and its owner before a request reads them.
  static void prefetchValue(const MibLeaf& leaf) {
    __builtin_prefetch(leaf.value);
    __builtin_prefetch(leaf.value->getListener());
  }
  // The value the leaf serves, for a change the host reports.
  static const Variant& value_nolock(const MibLeaf& leaf) REQUIRES(libraryMutex()) { return *leaf.value; }
  // Marks the leaf as served by the agent's scalar index, or no more.
  static void setRegistered_nolock(MibLeaf& leaf, bool on) REQUIRES(libraryMutex()) { leaf.setRegistered(on); }
};

}  // namespace Quorvel::Kvan::SNMP

#endif  // ZELTA_SRC_SNMP_MIBLEAVES_H_
