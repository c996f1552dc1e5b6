// SNMPInfo and the object each value type is published as, the MibEntry
// base, and a failed read's status for the leaves and the table.
#include "snmp/snmpinternal.h"

#include <memory>

#include "params/snmpside.h"
#include "zelta/logging.h"
#include "zelta/mibtypes.h"

namespace Quorvel::Kvan::SNMP {

namespace internal {

void setReadError(netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request, int v2Status) {
  int status = v2Status;
  if (reqinfo != nullptr && reqinfo->asp != nullptr && reqinfo->asp->pdu != nullptr &&
      reqinfo->asp->pdu->version == SNMP_VERSION_1)
    status = SNMP_ERR_GENERR;
  netsnmp_set_request_error(reqinfo, request, status);
}

}  // namespace internal

// ---- MibEntry

MibEntry::MibEntry(const SNMPInfo& info) : oidText(&info.getOid()), access(static_cast<uint8_t>(info.getAccess())) {
  std::vector<unsigned long> parts;
  if (!internal::parseOid(*oidText, parts)) {
    Log["libzelta"].append(ERROR, "MibEntry: '%s' is not a valid OID, the object cannot be published\n",
                           oidText->c_str());
    parts.clear();
  }
  // parseOid keeps to 128 sub-identifiers of 32 bits.
  oidCount = static_cast<uint8_t>(parts.size());
  uint32_t* ids = oidCount <= kInlineSubIds ? inlineIds : (heapIds = new uint32_t[oidCount]);
  std::copy(parts.begin(), parts.end(), ids);
}

std::string MibEntry::getOid() const {
  const std::string& text = *oidText;
  return !text.empty() && text[0] == '.' ? text.substr(1) : text;
}

MibEntry::~MibEntry() {
  if (oidCount > kInlineSubIds) delete[] heapIds;
}

// ---- SNMPInfo

namespace {

// The object that serves a parameter of each type: a leaf, a ranged one when
// the parameter has a range and the type has a ranged leaf, or a table.
struct Maker {
  ValueType type;
  std::unique_ptr<MibEntry> (*plain)(SNMPInfo* info, Variant* value);
  std::unique_ptr<MibEntry> (*ranged)(SNMPInfo* info, Variant* value, unsigned long min, unsigned long max);
};

template <class Entry>
std::unique_ptr<MibEntry> make(SNMPInfo* info, Variant* value) {
  return std::make_unique<Entry>(info, value);
}

template <class Leaf, class Bound>
std::unique_ptr<MibEntry> makeRanged(SNMPInfo* info, Variant* value, unsigned long min, unsigned long max) {
  return std::make_unique<Leaf>(info, value, static_cast<Bound>(min), static_cast<Bound>(max));
}

const Maker kMakers[] = {
    {INTEGER, make<IntMibLeaf>, makeRanged<MinMaxIntMibLeaf, int>},
    {STRING, make<StringMibLeaf>, makeRanged<MinMaxStringMibLeaf, unsigned int>},
    {IPADDRESS, make<IPAddressMibLeaf>, nullptr},
    {TIMETICKS, make<TimeTicksMibLeaf>, nullptr},
    {LOGADDRMAIN, make<LogaddrmainMibLeaf>, nullptr},
    {TABLE, make<DynMibTable>, nullptr},
};

// Gives a published parameter its object; a parameter of another type has
// none.
void publish(SNMPInfo& info, Variant& value, ValueType type, unsigned long min, unsigned long max) {
  const bool ranged = min != NO_RANGE && max != NO_RANGE;
  for (const Maker& maker : kMakers)
    if (maker.type == type) {
      std::unique_ptr<MibEntry> entry =
          ranged && maker.ranged != nullptr ? maker.ranged(&info, &value, min, max) : maker.plain(&info, &value);
      info.setEntry(entry.release());
      return;
    }
}

}  // namespace

SNMPInfo::SNMPInfo(const std::string& oidText, mib_access mode) : oid(oidText), access(mode) {
  // A parameter is published through an SNMPInfo made before it: from here
  // on the parameters find the SNMP side.
  setEntryMaker(publish);
}

SNMPInfo::~SNMPInfo() = default;

void SNMPInfo::setEntry(MibEntry* entry) {
  ZELTA_ASSERT(mibEntry == nullptr, "mibEntry == __null");
  mibEntry.reset(entry);
}

}  // namespace Quorvel::Kvan::SNMP
