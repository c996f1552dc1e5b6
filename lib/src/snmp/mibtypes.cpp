// SNMPInfo and the object each value type is published as, the MibEntry
// base, the SET value conversions and the OID helpers shared by the leaves,
// the table and the agent.
#include "snmp/snmpinternal.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>

#include "params/snmpside.h"
#include "zelta/logging.h"
#include "zelta/mibtypes.h"

namespace Quorvel::Kvan::SNMP {

namespace internal {

std::string printable(const netsnmp_variable_list& vb) {
  char buf[64];
  switch (vb.type) {
    case ASN_INTEGER:
      if (vb.val.integer == nullptr) return "";
      snprintf(buf, sizeof buf, "%ld", *vb.val.integer);
      return buf;
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS:
    case ASN_UINTEGER:
      if (vb.val.integer == nullptr) return "";
      snprintf(buf, sizeof buf, "%lu", static_cast<unsigned long>(*vb.val.integer) & 0xFFFFFFFFul);
      return buf;
    case ASN_IPADDRESS:
      if (vb.val.string == nullptr || vb.val_len != 4) return "";
      snprintf(buf, sizeof buf, "%u.%u.%u.%u", vb.val.string[0], vb.val.string[1], vb.val.string[2], vb.val.string[3]);
      return buf;
    case ASN_OBJECT_ID:
      if (vb.val.objid == nullptr) return "";
      return oidToText(vb.val.objid, vb.val_len / sizeof(oid));
    case ASN_OCTET_STR:
    case ASN_OPAQUE: {
      if (vb.val.string == nullptr) return "";
      // Log lines are short; non-printable bytes would garble the terminal.
      size_t len = vb.val_len < kMaxStringLen ? vb.val_len : kMaxStringLen;
      std::string text(reinterpret_cast<const char*>(vb.val.string), len);
      for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7e) c = '.';
      return text;
    }
    case SNMP_NOSUCHOBJECT:
      return "noSuchObject";
    case SNMP_NOSUCHINSTANCE:
      return "noSuchInstance";
    case SNMP_ENDOFMIBVIEW:
      return "endOfMibView";
    default:
      return "";
  }
}

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

// ---- SET value conversions

long vbxToLong(const ::variable_list& vb) {
  const long marker = static_cast<long>(static_cast<int32_t>(0xDEADBEEFu));
  if (vb.val.integer == nullptr || (vb.val_len != sizeof(long) && vb.val_len != sizeof(int32_t))) return marker;
  // Read only the bytes the binding holds; a 4-byte value set through
  // snmp_set_var_value must not be read as 8.
  long raw = 0;
  if (vb.val_len == sizeof(long)) {
    raw = *vb.val.integer;
  } else {
    int32_t small = 0;
    memcpy(&small, vb.val.integer, sizeof small);
    raw = small;
  }
  // 32-bit semantics on every build, as on the target.
  if (vb.type == ASN_TIMETICKS) return static_cast<long>(static_cast<int32_t>(static_cast<uint32_t>(raw)));
  if (vb.type == ASN_INTEGER) return static_cast<long>(static_cast<int32_t>(raw));
  return marker;
}

std::string vbxToString(const ::variable_list& vb) {
  if (vb.type == ASN_IPADDRESS) return internal::printable(vb);
  bool octets = vb.type == ASN_OCTET_STR || vb.type == ASN_OPAQUE;
  if (!octets || (vb.val.string == nullptr && vb.val_len > 0) || vb.val_len > internal::kMaxStringLen) {
    Log["libzelta"].append(ERROR, "vbxToString: cannot extract a valid value! ('%s')\n",
                           internal::printable(vb).c_str());
    return "ERROR";
  }
  if (vb.val_len == 0) {
    Log["libzelta"].append(VERBOSE, "vbxToString: value has length 0! ('%s')\n", internal::printable(vb).c_str());
    return std::string();
  }
  std::string value(reinterpret_cast<const char*>(vb.val.string), vb.val_len);
  Log["libzelta"].append(VERBOSE, "vbxToString: ok, extracted string ('%s')\n", value.c_str());
  return value;
}

}  // namespace Quorvel::Kvan::SNMP
