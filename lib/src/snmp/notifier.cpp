// Notifications: coldStart and change notifications, sent from the agent
// thread between loop turns.
#include "snmp/snmpinternal.h"

#include <net-snmp/agent/agent_callbacks.h>

#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "base/liblock.h"
#include "snmp/agentengine.h"
#include "snmp/dynmibtable.h"
#include "snmp/mibleaves.h"
#include "snmp/notifier.h"
#include "snmp/snmpcodec.h"
#include "zelta/logging.h"

// Net-SNMP's notification originator for SNMP-NOTIFICATION-MIB
// (libnetsnmpmibs); its header is not installed.
extern "C" int send_notifications(int major, int minor, void* serverarg, void* clientarg);

namespace Quorvel::Kvan::SNMP {

namespace {

// The running notifier, if any.
Notifier* activeNotifier GUARDED_BY(libraryMutex()) = nullptr;

const std::vector<unsigned long> kSysUpTime = {1, 3, 6, 1, 2, 1, 1, 3, 0};
const std::vector<unsigned long> kSnmpTrapOid = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};
const std::vector<unsigned long> kColdStart = {1, 3, 6, 1, 6, 3, 1, 1, 5, 1};

// How often the counts of dropped and unanswered informs are logged at most.
constexpr std::chrono::seconds kCountLogInterval(10);

// "0x80001f88..." or "80001f88..." as bytes; false for anything else.
bool parseHex(const std::string& text, std::string& out) {
  size_t start = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0 ? 2 : 0;
  if ((text.size() - start) % 2 != 0 || text.size() == start) return false;
  out.clear();
  for (size_t i = start; i < text.size(); i += 2) {
    auto nibble = [](char c) -> int {
      if (c >= '0' && c <= '9') return c - '0';
      if (c >= 'a' && c <= 'f') return c - 'a' + 10;
      if (c >= 'A' && c <= 'F') return c - 'A' + 10;
      return -1;
    };
    int high = nibble(text[i]), low = nibble(text[i + 1]);
    if (high < 0 || low < 0) return false;
    out.push_back(static_cast<char>(high * 16 + low));
  }
  return true;
}

// A passphrase turned into a master key (Ku) for `proto`; false when
// Net-SNMP refuses it (too short).
bool masterKey(const oid* proto, size_t protoLen, const std::string& passphrase, u_char* key, size_t* keyLen) {
  *keyLen = USM_AUTH_KU_LEN;
  std::vector<u_char> bytes(passphrase.begin(), passphrase.end());
  return generate_Ku(proto, static_cast<u_int>(protoLen), bytes.data(), bytes.size(), key, keyLen) == SNMPERR_SUCCESS;
}

}  // namespace

Notifier::~Notifier() { stop(); }

bool Notifier::openSession(Target& target) {
  const NotifyTarget& config = target.config;
  netsnmp_session session;
  snmp_sess_init(&session);
  std::string peer = "udp:" + config.address + ":" + std::to_string(config.port);
  session.peername = peer.data();
  // Retries are ours: Net-SNMP times an attempt out, flush() sends the next.
  session.retries = 0;
  session.timeout = std::max(config.timeoutMs, 1) * 1000L;
  // Informs are answered from the receiver's port; traps need no reply.
  session.flags |= SNMP_FLAGS_DONT_PROBE;
  std::string community = config.community;
  std::string engineId;
  std::vector<oid> authProto(usmHMACSHA1AuthProtocol, usmHMACSHA1AuthProtocol + USM_AUTH_PROTO_SHA_LEN);
  std::vector<oid> privProto(usmAESPrivProtocol, usmAESPrivProtocol + USM_PRIV_PROTO_AES_LEN);
  std::string user = config.v3User;
  if (config.v3User.empty()) {
    session.version = SNMP_VERSION_2c;
    session.community = reinterpret_cast<u_char*>(community.data());
    session.community_len = community.size();
  } else {
    session.version = SNMP_VERSION_3;
    session.securityName = user.data();
    session.securityNameLen = user.size();
    session.securityModel = SNMP_SEC_MODEL_USM;
    session.securityAuthProto = authProto.data();
    session.securityAuthProtoLen = authProto.size();
    if (!masterKey(authProto.data(), authProto.size(), config.v3AuthPassphrase, session.securityAuthKey,
                   &session.securityAuthKeyLen)) {
      Log["libzelta"].append(WARNING, "SNMPAgent: notification target %s ignored: bad authentication passphrase\n",
                             target.label.c_str());
      return false;
    }
    session.securityLevel = SNMP_SEC_LEVEL_AUTHNOPRIV;
    if (!config.v3PrivPassphrase.empty()) {
      session.securityPrivProto = privProto.data();
      session.securityPrivProtoLen = privProto.size();
      if (!masterKey(authProto.data(), authProto.size(), config.v3PrivPassphrase, session.securityPrivKey,
                     &session.securityPrivKeyLen)) {
        Log["libzelta"].append(WARNING, "SNMPAgent: notification target %s ignored: bad privacy passphrase\n",
                               target.label.c_str());
        return false;
      }
      session.securityLevel = SNMP_SEC_LEVEL_AUTHPRIV;
    }
    if (config.inform) {
      // The receiver of an inform is the authoritative engine. Discovering
      // its engine ID would wait for its answer, so it is given.
      if (!parseHex(config.v3EngineId, engineId)) {
        Log["libzelta"].append(WARNING,
                               "SNMPAgent: SNMPv3 inform target %s ignored: it needs the receiver's engine ID "
                               "in hex\n",
                               target.label.c_str());
        return false;
      }
    } else {
      // For a trap the agent is the authoritative engine.
      u_char local[SNMP_MAXBUF_SMALL];
      size_t len = snmpv3_get_engineID(local, sizeof local);
      engineId.assign(reinterpret_cast<const char*>(local), len);
    }
    session.securityEngineID = reinterpret_cast<u_char*>(engineId.data());
    session.securityEngineIDLen = engineId.size();
  }
  target.session = snmp_open(&session);
  if (target.session == nullptr) {
    Log["libzelta"].append(WARNING, "SNMPAgent: cannot open a session to notification target %s\n",
                           target.label.c_str());
    return false;
  }
  return true;
}

void Notifier::start(const SNMPAgent::Options& options) {
  LibraryLockGuard lock(libraryMutex());
  if (running) return;
  changeOid.clear();
  if (!options.changeNotificationOid.empty() && !internal::parseOid(options.changeNotificationOid, changeOid))
    Log["libzelta"].append(WARNING, "SNMPAgent: change notification OID '%s' ignored: not an OID\n",
                           options.changeNotificationOid.c_str());
  maxPending = options.maxPendingInforms;
  for (const NotifyTarget& config : options.notifyTargets) {
    Target target;
    target.config = config;
    target.label = config.address + ":" + std::to_string(config.port);
    if (openSession(target)) targets.push_back(std::move(target));
  }
  running = true;
  subagent = !options.agentxMaster.empty();
  activeNotifier = this;
  // A subagent's master announces its own start; a subagent sends none.
  if (options.agentxMaster.empty()) send_nolock(kColdStart, nullptr);
}

void Notifier::stop() {
  LibraryLockGuard lock(libraryMutex());
  if (!running) return;
  logCounts_nolock(true);
  if (activeNotifier == this) activeNotifier = nullptr;
  // Closing a session frees its outstanding requests; the callback finds
  // no inform for them any more.
  for (auto& [id, inform] : pending) snmp_free_pdu(inform.pdu);
  pending.clear();
  for (Target& target : targets)
    if (target.session != nullptr) snmp_close(target.session);
  targets.clear();
  queued.clear();
  running = false;
}

void Notifier::flush() {
  LibraryLockGuard lock(libraryMutex());
  if (!running || (queued.empty() && pending.empty())) return;
  // Only a turn in which an inform was answered or timed out (in the
  // engine's turn) looks at them all: the others cost no more with many
  // pending. Those done make room before anything new is sent.
  if (informsDue) {
    informsDue = false;
    for (auto& [id, inform] : pending)
      if (inform.resendDue) sendInform_nolock(id, inform);
    eraseDone_nolock();
  }
  if (!queued.empty()) {
    // One PDU's bindings in their order; PDUs and host changes as they came.
    std::unordered_map<const void*, size_t> firstSeen;
    for (size_t i = 0; i < queued.size(); ++i)
      if (queued[i].pdu != nullptr) firstSeen.emplace(queued[i].pdu, i);
    std::vector<std::pair<size_t, int>> keys(queued.size());
    for (size_t i = 0; i < queued.size(); ++i) {
      const Change& c = queued[i];
      keys[i] = c.pdu == nullptr ? std::make_pair(i, 0) : std::make_pair(firstSeen[c.pdu], c.position);
    }
    std::vector<size_t> order(queued.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](size_t x, size_t y) { return keys[x] < keys[y]; });
    std::vector<Change> batch;
    batch.swap(queued);
    for (size_t i : order) send_nolock(changeOid, &batch[i]);
  }
  logCounts_nolock(false);
}

Notifier* Notifier::accepting_nolock(const MibEntry& entry) {
  Notifier* self = activeNotifier;
  if (self == nullptr || self->changeOid.empty() || !entry.sendsChangeNotification()) return nullptr;
  return self;
}

void Notifier::committed_nolock(const MibEntry& entry, const netsnmp_variable_list& vb, const void* pdu, int position) {
  Notifier* self = accepting_nolock(entry);
  if (self == nullptr) return;
  Change change;
  change.name.assign(vb.name, vb.name + vb.name_length);
  change.type = vb.type;
  if (vb.val.string != nullptr) change.value.assign(reinterpret_cast<const char*>(vb.val.string), vb.val_len);
  change.pdu = pdu;
  change.position = position;
  self->queue_nolock(std::move(change));
}

void Notifier::committedStatus_nolock(const MibEntry& entry, const netsnmp_variable_list& vb, long status,
                                      const void* pdu, int position) {
  Notifier* self = accepting_nolock(entry);
  if (self == nullptr) return;
  Change change;
  change.name.assign(vb.name, vb.name + vb.name_length);
  change.type = ASN_INTEGER;
  change.value.assign(reinterpret_cast<const char*>(&status), sizeof status);
  change.pdu = pdu;
  change.position = position;
  self->queue_nolock(std::move(change));
}

bool Notifier::leafChange_nolock(const MibEntry& entry) {
  Notifier* self = accepting_nolock(entry);
  const auto* leaf = dynamic_cast<const MibLeaf*>(&entry);
  if (self == nullptr || leaf == nullptr || entry.oidLength() == 0) return false;
  const SnmpCodec* codec = SnmpCodec::of(leaf->getType());
  SnmpValue now;
  if (codec == nullptr || !codec->toSnmp(MibLeaf::Internal::value_nolock(*leaf), now)) return false;
  Change change;
  change.name = entry.oidParts();
  change.type = codec->asnType();
  change.value = codec->bindingBytes(now);
  self->queue_nolock(std::move(change));
  return true;
}

bool Notifier::cellChange_nolock(const DynMibTable& table, const std::vector<unsigned long>& index,
                                 unsigned int column) {
  Notifier* self = accepting_nolock(table);
  const DynMibTable::Impl& served = DynMibTable::Impl::of(table);
  if (self == nullptr || table.oidLength() == 0 || served.definition == nullptr) return false;
  const Table& rows = served.table();
  auto row = rows.getRows().find(index);
  auto field = served.definition->fields.find(column);
  if (row == rows.getRows().end() || field == served.definition->fields.end()) return false;
  const SnmpCodec* codec = SnmpCodec::of(field->second.type);
  // A cell without a value yet has nothing to tell.
  if (codec == nullptr || rows.isCellUnset(index, column)) return false;
  SnmpValue now;
  auto cell = row->second.find(column);
  if (cell == row->second.end() || !codec->toSnmp(cell->second, now)) codec->toSnmp(codec->defaultValue(), now);
  Change change;
  change.name = table.oidParts();
  change.name.push_back(column);
  change.name.insert(change.name.end(), index.begin(), index.end());
  change.type = codec->asnType();
  change.value = codec->bindingBytes(now);
  self->queue_nolock(std::move(change));
  return true;
}

bool Notifier::rowChange_nolock(const DynMibTable& table, const std::vector<unsigned long>& index) {
  Notifier* self = accepting_nolock(table);
  const DynMibTable::Impl& served = DynMibTable::Impl::of(table);
  if (self == nullptr || table.oidLength() == 0 || served.rowStatusColumn == 0 || index.empty()) return false;
  const int current = served.table().getRowStatus(index);
  const long status = current != -1 ? current : 6;  // destroy
  Change change;
  change.name = table.oidParts();
  change.name.push_back(served.rowStatusColumn);
  change.name.insert(change.name.end(), index.begin(), index.end());
  change.type = ASN_INTEGER;
  change.value.assign(reinterpret_cast<const char*>(&status), sizeof status);
  self->queue_nolock(std::move(change));
  return true;
}

void Notifier::queue_nolock(Change change) { queued.push_back(std::move(change)); }

void Notifier::send_nolock(const std::vector<unsigned long>& trapOid, const Change* change) {
  netsnmp_pdu* notification = snmp_pdu_create(SNMP_MSG_TRAP2);
  if (notification == nullptr) return;
  const long uptime = static_cast<long>(netsnmp_get_agent_uptime());
  snmp_pdu_add_variable(notification, kSysUpTime.data(), kSysUpTime.size(), ASN_TIMETICKS, &uptime, sizeof uptime);
  snmp_pdu_add_variable(notification, kSnmpTrapOid.data(), kSnmpTrapOid.size(), ASN_OBJECT_ID, trapOid.data(),
                        trapOid.size() * sizeof(oid));
  if (change != nullptr)
    snmp_pdu_add_variable(notification, change->name.data(), change->name.size(), change->type, change->value.data(),
                          change->value.size());

  // The targets of SNMP-NOTIFICATION-MIB: Net-SNMP's originator walks
  // snmpNotifyTable and sends to each tagged target. Called directly: its
  // callback is registered only by the first start in a process, and
  // Net-SNMP only calls it once a target came from its own configuration.
  send_notifications(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_SEND_TRAP2, notification, nullptr);
  // A subagent's trap sessions are its master: the notification goes there
  // as an AgentX Notify, and the master sends it to its own targets.
  if (subagent) send_v2trap(notification->variables);

  for (size_t i = 0; i < targets.size(); ++i) {
    Target& target = targets[i];
    netsnmp_pdu* copy = snmp_clone_pdu(notification);
    if (copy == nullptr) continue;
    copy->command = target.config.inform ? SNMP_MSG_INFORM : SNMP_MSG_TRAP2;
    copy->version = target.session->version;
    if (!target.config.inform) {
      if (snmp_send(target.session, copy) == 0) snmp_free_pdu(copy);
      continue;
    }
    if (pending.size() >= std::max<size_t>(maxPending, 1)) dropOldest_nolock();
    const long id = nextId++;
    Inform& inform = pending[id];
    inform.target = i;
    inform.pdu = copy;
    inform.attemptsLeft = std::max(target.config.retries, 0) + 1;
    sendInform_nolock(id, inform);
  }
  snmp_free_pdu(notification);
}

void Notifier::sendInform_nolock(long id, Inform& inform) {
  inform.resendDue = false;
  if (inform.attemptsLeft <= 0) {
    ++unanswered;
    snmp_free_pdu(inform.pdu);
    inform.pdu = nullptr;  // erased by flush()
    return;
  }
  --inform.attemptsLeft;
  netsnmp_pdu* attempt = snmp_clone_pdu(inform.pdu);
  if (attempt == nullptr) return;
  // Every attempt is a request of its own to Net-SNMP.
  attempt->reqid = snmp_get_next_reqid();
  attempt->msgid = snmp_get_next_msgid();
  if (snmp_async_send(targets[inform.target].session, attempt, informCallback, reinterpret_cast<void*>(id)) == 0) {
    snmp_free_pdu(attempt);
    inform.resendDue = true;  // tried again after the next turn
    informsDue = true;
  }
}

void Notifier::eraseDone_nolock() {
  for (auto it = pending.begin(); it != pending.end();) it = it->second.pdu == nullptr ? pending.erase(it) : ++it;
}

void Notifier::dropOldest_nolock() {
  // Informs already done make room first: their going is no drop.
  eraseDone_nolock();
  if (pending.size() < std::max<size_t>(maxPending, 1)) return;
  auto oldest = pending.begin();
  snmp_free_pdu(oldest->second.pdu);
  pending.erase(oldest);  // a reply to it, or its time-out, finds nothing
  ++dropped;
}

void Notifier::logCounts_nolock(bool force) {
  if (dropped == 0 && unanswered == 0) return;
  const auto now = std::chrono::steady_clock::now();
  if (!force && now - lastCountLog < kCountLogInterval) return;
  lastCountLog = now;
  if (dropped != 0)
    Log["libzelta"].append(WARNING, "SNMPAgent: %zu unacknowledged informs dropped: more than %zu were pending\n",
                           dropped, maxPending);
  if (unanswered != 0) Log["libzelta"].append(WARNING, "SNMPAgent: %zu informs were never acknowledged\n", unanswered);
  dropped = 0;
  unanswered = 0;
}

int Notifier::informCallback(int op, ::snmp_session* /*session*/, int /*reqid*/, ::snmp_pdu* pdu, void* magic) {
  // Called from Net-SNMP's read and timeout processing on the agent thread,
  // with the library lock held.
  libraryMutex().assertHeld();
  Notifier* self = activeNotifier;
  if (self == nullptr) return 1;
  auto it = self->pending.find(reinterpret_cast<long>(magic));
  if (it == self->pending.end() || it->second.pdu == nullptr) return 1;  // dropped meanwhile
  Inform& inform = it->second;
  self->informsDue = true;
  switch (op) {
    case NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE:
      if (pdu != nullptr && pdu->command == SNMP_MSG_RESPONSE) {
        snmp_free_pdu(inform.pdu);
        inform.pdu = nullptr;  // acknowledged; erased by flush()
      } else {
        inform.resendDue = true;  // a report Net-SNMP does not recover from (a USM error)
      }
      break;
    case NETSNMP_CALLBACK_OP_TIMED_OUT:
    case NETSNMP_CALLBACK_OP_SEND_FAILED:
    case NETSNMP_CALLBACK_OP_SEC_ERROR:
      inform.resendDue = true;  // the next attempt, if any, leaves from flush()
      break;
    default:
      // Net-SNMP resends by itself after a notInTimeWindow report, the
      // first exchange with an SNMPv3 receiver: nothing to do.
      break;
  }
  return 1;
}

}  // namespace Quorvel::Kvan::SNMP
