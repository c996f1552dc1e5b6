// The seven scalar leaves and their Net-SNMP handler.
#include "snmpinternal.h"

#include <arpa/inet.h>

#include <cstring>

#include "agentengine.h"
#include "zelta/common.h"
#include "zelta/logging.h"
#include "zelta/mibtypes.h"

namespace Quorvel::Kvan::SNMP {

namespace {

// One leaf per registration, reached through the handler's myvoid. The
// instance helper in front of it lets only the exact OID through and turns
// GETNEXT into GET.
int leafHandlerUnguarded(netsnmp_mib_handler* handler, netsnmp_agent_request_info* reqinfo,
                         netsnmp_request_info* requests) {
  auto* leaf = static_cast<MibLeaf*>(handler->myvoid);
  std::lock_guard lock(agentLock());
  for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
    if (request->processed) continue;
    const netsnmp_variable_list& vb = *request->requestvb;
    switch (reqinfo->mode) {
      case MODE_GET:
        // An object made NOACCESS at run time is hidden like one never
        // published; a walk steps over it.
        if (leaf->get_access() == NOACCESS)
          netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHOBJECT);
        else
          leaf->get_request(reqinfo, request);
        break;
      case MODE_SET_RESERVE1: {
        // Writability is checked per request, so that setAccess takes effect
        // on the next one.
        int status = leaf->get_access() >= READWRITE ? leaf->check_syntax(vb) : SNMP_ERR_NOTWRITABLE;
        if (status == SNMP_ERR_NOERROR && !leaf->value_ok(vb)) status = SNMP_ERR_WRONGVALUE;
        if (status != SNMP_ERR_NOERROR) netsnmp_set_request_error(reqinfo, request, status);
        break;
      }
      case MODE_SET_COMMIT: {
        // Every binding of the PDU passed its checks: only now is anything
        // written, so a failing binding leaves every parameter unchanged.
        int status = leaf->set_value(vb);
        if (status != SNMP_ERR_NOERROR) netsnmp_set_request_error(reqinfo, request, SNMP_ERR_COMMITFAILED);
        break;
      }
      default:
        break;
    }
  }
  return SNMP_ERR_NOERROR;
}

int leafHandler(netsnmp_mib_handler* handler, netsnmp_handler_registration* /*reginfo*/,
                netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) {
  return internal::guardHandler([&] { return leafHandlerUnguarded(handler, reqinfo, requests); }, requests);
}

}  // namespace

// ---- MibLeaf

MibLeaf::MibLeaf(SNMPInfo* info, Variant* boundValue, unsigned char leafSyntax, const char* reasonText)
    : MibEntry(info->getOid(), info->getAccess()), value(boundValue), syntax(leafSyntax), reason(reasonText) {}

MibLeaf::~MibLeaf() {
  if (isRegistered()) {
    std::lock_guard lock(agentLock());
    MibLeaf::unregisterEntry();
    AgentEngine::forgetEntry_nolock(this);
  }
}

void MibLeaf::setAccess(mib_access mode) { storeAccess(mode); }

void MibLeaf::refreshFromVariant() {
  std::lock_guard lock(agentLock());
  loadFrom(*value);
}

int MibLeaf::check_syntax(const ::variable_list& vb) const {
  if (vb.type != syntax || vb.val.integer == nullptr) return SNMP_ERR_WRONGTYPE;
  if (vb.val_len != sizeof(long)) return SNMP_ERR_WRONGLENGTH;
  return SNMP_ERR_NOERROR;
}

int MibLeaf::set_value(const ::variable_list& vb) {
  // A leaf made read-only after the checks ignores the write.
  if (get_access() < READWRITE) return SNMP_ERR_NOERROR;
  *value = toVariant(vb);
  loadFrom(*value);
  value->notifyListener(reason, nullptr);
  return SNMP_ERR_NOERROR;
}

bool MibLeaf::get_request(netsnmp_agent_request_info_s* reqinfo, netsnmp_request_info_s* request) {
  if (!value->callFiller(nullptr)) {
    internal::setReadError(reqinfo, request, SNMP_ERR_RESOURCEUNAVAILABLE);
    return false;
  }
  loadFrom(*value);
  if (syntax == ASN_INTEGER || syntax == ASN_TIMETICKS)
    snmp_set_var_typed_value(request->requestvb, syntax, &num, sizeof num);
  else
    snmp_set_var_typed_value(request->requestvb, syntax, bytes.data(), bytes.size());
  return true;
}

bool MibLeaf::registerEntry() {
  if (isRegistered()) return true;
  const std::vector<unsigned long>& parts = oidParts();
  if (parts.empty()) return false;
  netsnmp_handler_registration* reg =
      netsnmp_create_handler_registration("zeltaLeaf", leafHandler, parts.data(), parts.size(), HANDLER_CAN_RWRITE);
  if (reg == nullptr) return false;
  reg->handler->myvoid = this;
  // On failure Net-SNMP frees the registration itself.
  if (netsnmp_register_instance(reg) != MIB_REGISTERED_OK) return false;
  registration = reg;
  return true;
}

void MibLeaf::unregisterEntry() {
  if (registration == nullptr) return;
  netsnmp_unregister_handler(registration);
  registration = nullptr;
}

// ---- IntMibLeaf, MinMaxIntMibLeaf

IntMibLeaf::IntMibLeaf(SNMPInfo* info, Variant* boundValue)
    : MibLeaf(info, boundValue, ASN_INTEGER, "set value on int leaf") {
  loadFrom(*boundValue);
}

bool IntMibLeaf::value_ok(const ::variable_list& vb) { return value->callValidator(toVariant(vb)); }

Variant IntMibLeaf::toVariant(const ::variable_list& vb) const { return Variant(vbxToLong(vb)); }

void IntMibLeaf::loadFrom(const Variant& v) { num = static_cast<long>(static_cast<int32_t>(v.getLong())); }

MinMaxIntMibLeaf::MinMaxIntMibLeaf(SNMPInfo* info, Variant* boundValue, int minValue, int maxValue)
    : IntMibLeaf(info, boundValue), min(minValue), max(maxValue) {}

bool MinMaxIntMibLeaf::value_ok(const ::variable_list& vb) {
  if (!IntMibLeaf::value_ok(vb)) return false;
  long v = vbxToLong(vb);
  return v >= min && v <= max;
}

// ---- TimeTicksMibLeaf

TimeTicksMibLeaf::TimeTicksMibLeaf(SNMPInfo* info, Variant* boundValue)
    : MibLeaf(info, boundValue, ASN_TIMETICKS, "set value on timeticks leaf") {
  loadFrom(*boundValue);
}

bool TimeTicksMibLeaf::value_ok(const ::variable_list& vb) { return value->callValidator(toVariant(vb)); }

Variant TimeTicksMibLeaf::toVariant(const ::variable_list& vb) const {
  return Variant(TimeTicksValue{static_cast<uint32_t>(vbxToLong(vb))});
}

void TimeTicksMibLeaf::loadFrom(const Variant& v) { num = static_cast<long>(v.getTimeTicks().value); }

// ---- IPAddressMibLeaf

IPAddressMibLeaf::IPAddressMibLeaf(SNMPInfo* info, Variant* boundValue)
    : MibLeaf(info, boundValue, ASN_IPADDRESS, "set value on ip address leaf") {
  loadFrom(*boundValue);
}

int IPAddressMibLeaf::check_syntax(const ::variable_list& vb) const {
  if (vb.type != ASN_IPADDRESS || vb.val.string == nullptr) return SNMP_ERR_WRONGTYPE;
  if (vb.val_len != 4) return SNMP_ERR_WRONGLENGTH;
  return SNMP_ERR_NOERROR;
}

bool IPAddressMibLeaf::value_ok(const ::variable_list& vb) { return value->callValidator(toVariant(vb)); }

Variant IPAddressMibLeaf::toVariant(const ::variable_list& vb) const { return Variant(vbxToString(vb)); }

void IPAddressMibLeaf::loadFrom(const Variant& v) {
  in_addr address{};
  // A parameter holding no valid address reads as 0.0.0.0.
  if (inet_pton(AF_INET, v.getIPAddress().c_str(), &address) != 1) address.s_addr = 0;
  bytes.assign(reinterpret_cast<const char*>(&address.s_addr), 4);
}

// ---- StringMibLeaf, MinMaxStringMibLeaf

StringMibLeaf::StringMibLeaf(SNMPInfo* info, Variant* boundValue)
    : MibLeaf(info, boundValue, ASN_OCTET_STR, "set value on string leaf") {
  loadFrom(*boundValue);
}

int StringMibLeaf::check_syntax(const ::variable_list& vb) const {
  if (vb.type != ASN_OCTET_STR || (vb.val.string == nullptr && vb.val_len > 0)) return SNMP_ERR_WRONGTYPE;
  // Longer values cannot be converted; refuse them rather than store "ERROR".
  if (vb.val_len > internal::kMaxStringLen) return SNMP_ERR_WRONGLENGTH;
  return SNMP_ERR_NOERROR;
}

bool StringMibLeaf::value_ok(const ::variable_list& vb) { return value->callValidator(toVariant(vb)); }

Variant StringMibLeaf::toVariant(const ::variable_list& vb) const { return Variant(vbxToString(vb)); }

void StringMibLeaf::loadFrom(const Variant& v) {
  const std::string& text = v.getString();
  // Answers must fit a response; the parameter itself keeps its full value.
  bytes.assign(text, 0, text.size() < internal::kMaxStringLen ? text.size() : internal::kMaxStringLen);
}

MinMaxStringMibLeaf::MinMaxStringMibLeaf(SNMPInfo* info, Variant* boundValue, unsigned int minLength,
                                         unsigned int maxLength)
    : StringMibLeaf(info, boundValue), min(minLength), max(maxLength) {}

int MinMaxStringMibLeaf::check_syntax(const ::variable_list& vb) const {
  int status = StringMibLeaf::check_syntax(vb);
  if (status == SNMP_ERR_NOERROR && (vb.val_len < min || vb.val_len > max)) status = SNMP_ERR_WRONGLENGTH;
  return status;
}

// ---- LogaddrmainMibLeaf

LogaddrmainMibLeaf::LogaddrmainMibLeaf(SNMPInfo* info, Variant* boundValue)
    : MibLeaf(info, boundValue, ASN_OCTET_STR, "set value on logaddr_main_t leaf") {
  loadFrom(*boundValue);
}

int LogaddrmainMibLeaf::check_syntax(const ::variable_list& vb) const {
  if (vb.type != ASN_OCTET_STR || (vb.val.string == nullptr && vb.val_len > 0)) return SNMP_ERR_WRONGTYPE;
  // Exactly 8 bytes, so that nothing longer ever reaches logaddrMainSet.
  if (vb.val_len != 8) return SNMP_ERR_WRONGLENGTH;
  return SNMP_ERR_NOERROR;
}

bool LogaddrmainMibLeaf::value_ok(const ::variable_list& vb) { return value->callValidator(toVariant(vb)); }

Variant LogaddrmainMibLeaf::toVariant(const ::variable_list& vb) const {
  uint8_t address[8] = {0, 0, 0, 0, 0, 0, 0, 0};
  std::string text = vbxToString(vb);
  if (text.size() <= 8) Common::logaddrMainSet(address, text);
  return Variant(static_cast<const unsigned char*>(address));
}

void LogaddrmainMibLeaf::loadFrom(const Variant& v) {
  bytes.assign(reinterpret_cast<const char*>(v.getLogaddrMain()), 8);
}

}  // namespace Quorvel::Kvan::SNMP
