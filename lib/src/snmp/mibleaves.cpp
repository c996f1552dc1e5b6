// The seven scalar leaves: the steps of a request on one scalar. The agent's
// scalar index registers them and dispatches requests to them.
#include "snmp/mibleaves.h"

#include <cstring>

#include "snmp/agentengine.h"
#include "snmp/snmpcodec.h"
#include "zelta/logging.h"

namespace Quorvel::Kvan::SNMP {

// ---- MibLeaf

MibLeaf::MibLeaf(SNMPInfo* info, Variant* boundValue, ValueType valueType)
    : MibEntry(*info), value(boundValue), type(valueType) {}

MibLeaf::MibLeaf(SNMPInfo* info, Variant* boundValue, ValueType valueType, uint32_t min, uint32_t max)
    : MibLeaf(info, boundValue, valueType) {
  bounded = true;
  boundMin = min;
  boundMax = max;
}

bool MibLeaf::getBounds(long& min, long& max) const {
  if (type == STRING) {
    min = static_cast<long>(boundMin);
    max = static_cast<long>(boundMax);
  } else {
    min = static_cast<int32_t>(boundMin);
    max = static_cast<int32_t>(boundMax);
  }
  return bounded;
}

MibLeaf::~MibLeaf() {
  if (isRegistered()) {
    LibraryLockGuard lock(libraryMutex());
    setRegistered(false);
    AgentEngine::forgetEntry_nolock(this);
  }
}

void MibLeaf::setAccess(mib_access mode) { storeAccess(mode); }

namespace {

// What a leaf's SET is announced with, by the leaf's type: a ranged leaf
// shares its plain sibling's text, so a listener cannot tell them apart.
const char* setReason(ValueType type) {
  static const struct {
    ValueType type;
    const char* text;
  } kReasons[] = {{INTEGER, "set value on int leaf"},
                  {TIMETICKS, "set value on timeticks leaf"},
                  {IPADDRESS, "set value on ip address leaf"},
                  {STRING, "set value on string leaf"},
                  {LOGADDRMAIN, "set value on logaddr_main_t leaf"}};
  for (const auto& reason : kReasons)
    if (reason.type == type) return reason.text;
  return "";
}

// Type, length and a string's length bounds, then the validator, then an
// integer's range: 0 or the status of the first check that fails.
int checkValue(ValueType type, bool bounded, uint32_t min, uint32_t max, Variant& value,
               const netsnmp_variable_list& vb) {
  const SnmpCodec* codec = SnmpCodec::of(type);
  const Bounds bounds = bounded ? Bounds::of(min, max) : Bounds();
  SnmpValue checked;
  const int status = codec->checkSet(vb, bounds, checked);
  if (status != SNMP_ERR_NOERROR) return status;
  // A parameter the host declared with a value of another kind than its type
  // cannot take a value of the type: the device's fault, refused rather than
  // aborting the agent.
  if (value.getType() != VariantType::UNDEFINED && !codec->fits(value)) return SNMP_ERR_GENERR;
  // The validator sees out-of-range integers too.
  const bool ok = value.callValidator(codec->fromSnmp(checked)) && codec->inRange(checked, bounds);
  return ok ? SNMP_ERR_NOERROR : SNMP_ERR_WRONGVALUE;
}

}  // namespace

int MibLeaf::Internal::check_set(MibLeaf& leaf, const netsnmp_variable_list& vb) {
  // Writability is checked per request, so that setAccess takes effect on
  // the next one.
  if (leaf.get_access() < READWRITE) return SNMP_ERR_NOTWRITABLE;
  return checkValue(leaf.type, leaf.bounded, leaf.boundMin, leaf.boundMax, *leaf.value, vb);
}

int MibLeaf::Internal::set_value(MibLeaf& leaf, const netsnmp_variable_list& vb) {
  // A leaf made read-only after the checks ignores the write.
  if (leaf.get_access() < READWRITE) return SNMP_ERR_NOERROR;
  const SnmpCodec* codec = SnmpCodec::of(leaf.type);
  SnmpValue checked;
  if (codec->checkSet(vb, Bounds(), checked) != SNMP_ERR_NOERROR) return SNMP_ERR_WRONGTYPE;
  *leaf.value = codec->fromSnmp(checked);
  leaf.value->notifyListener(setReason(leaf.type), nullptr);
  return SNMP_ERR_NOERROR;
}

bool MibLeaf::Internal::get_request(MibLeaf& leaf, netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request) {
  if (!leaf.value->callFiller(nullptr)) {
    internal::setReadError(reqinfo, request, SNMP_ERR_RESOURCEUNAVAILABLE);
    return false;
  }
  const SnmpCodec* codec = SnmpCodec::of(leaf.type);
  SnmpValue answer;
  // A parameter whose value is of another kind than its type answers its
  // type's default rather than aborting the agent.
  if (!codec->toSnmp(*leaf.value, answer)) codec->toSnmp(codec->defaultValue(), answer);
  codec->answer(request->requestvb, answer);
  return true;
}

// ---- The seven leaves: a value type and its bounds.

IntMibLeaf::IntMibLeaf(SNMPInfo* info, Variant* boundValue) : MibLeaf(info, boundValue, INTEGER) {}

IntMibLeaf::IntMibLeaf(SNMPInfo* info, Variant* boundValue, int min, int max)
    : MibLeaf(info, boundValue, INTEGER, static_cast<uint32_t>(min), static_cast<uint32_t>(max)) {}

MinMaxIntMibLeaf::MinMaxIntMibLeaf(SNMPInfo* info, Variant* boundValue, int minValue, int maxValue)
    : IntMibLeaf(info, boundValue, minValue, maxValue) {}

TimeTicksMibLeaf::TimeTicksMibLeaf(SNMPInfo* info, Variant* boundValue) : MibLeaf(info, boundValue, TIMETICKS) {}

IPAddressMibLeaf::IPAddressMibLeaf(SNMPInfo* info, Variant* boundValue) : MibLeaf(info, boundValue, IPADDRESS) {}

StringMibLeaf::StringMibLeaf(SNMPInfo* info, Variant* boundValue) : MibLeaf(info, boundValue, STRING) {}

StringMibLeaf::StringMibLeaf(SNMPInfo* info, Variant* boundValue, unsigned int min, unsigned int max)
    : MibLeaf(info, boundValue, STRING, min, max) {}

MinMaxStringMibLeaf::MinMaxStringMibLeaf(SNMPInfo* info, Variant* boundValue, unsigned int minLength,
                                         unsigned int maxLength)
    : StringMibLeaf(info, boundValue, minLength, maxLength) {}

LogaddrmainMibLeaf::LogaddrmainMibLeaf(SNMPInfo* info, Variant* boundValue) : MibLeaf(info, boundValue, LOGADDRMAIN) {}

}  // namespace Quorvel::Kvan::SNMP
