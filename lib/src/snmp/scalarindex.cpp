#include "snmp/snmpinternal.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>

#include "base/trace.h"
#include "snmp/agentengine.h"
#include "snmp/mibleaves.h"
#include "snmp/notifier.h"
#include "snmp/scalarindex.h"

namespace Quorvel::Kvan::SNMP {

namespace {

using Oid = std::vector<unsigned long>;

// A leaf's OID against a Net-SNMP one: <0, 0 or >0, as snmp_oid_compare.
int compare(const MibEntry& leaf, const unsigned long* name, size_t length) {
  const uint32_t* ids = leaf.oidData();
  const size_t count = leaf.oidLength();
  for (size_t i = 0; i < count && i < length; ++i)
    if (ids[i] != name[i]) return ids[i] < name[i] ? -1 : 1;
  return count == length ? 0 : (count < length ? -1 : 1);
}

bool isPrefix(const MibEntry& leaf, const unsigned long* name, size_t length) {
  return leaf.oidLength() <= length && std::equal(leaf.oidData(), leaf.oidData() + leaf.oidLength(), name);
}

}  // namespace

struct ScalarIndex::Handler {
  static int handle(netsnmp_mib_handler* handler, netsnmp_handler_registration* /*reginfo*/,
                    netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) {
    return internal::guardHandler([&] { return handleUnguarded(handler, reqinfo, requests); }, requests);
  }

  static int handleUnguarded(netsnmp_mib_handler* handler, netsnmp_agent_request_info* reqinfo,
                             netsnmp_request_info* requests) {
    auto* index = static_cast<ScalarIndex*>(handler->myvoid);
    LibraryLockGuard lock(libraryMutex());
    if (reqinfo->mode == MODE_GET) index->prefetch(requests);
    for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
      if (request->processed) continue;
      netsnmp_variable_list* vb = request->requestvb;
      switch (reqinfo->mode) {
        case MODE_GET:
          index->get(reqinfo, request);
          break;
        case MODE_GETNEXT:
          index->getNext(reqinfo, request);
          break;
        case MODE_SET_RESERVE1: {
          MibLeaf* leaf = index->find(vb->name, vb->name_length);
          // Below a scalar nothing can ever be created; elsewhere nothing is
          // writable.
          const int status = leaf != nullptr ? MibLeaf::Internal::check_set(*leaf, *vb)
                             : index->below(vb->name, vb->name_length) != nullptr ? SNMP_ERR_NOCREATION
                                                                                  : SNMP_ERR_NOTWRITABLE;
          if (status != SNMP_ERR_NOERROR) netsnmp_set_request_error(reqinfo, request, status);
          break;
        }
        case MODE_SET_COMMIT:
          // Every binding of the PDU passed its checks: only now is anything
          // written, so a failing binding leaves every parameter unchanged.
          if (MibLeaf* leaf = index->find(vb->name, vb->name_length)) {
            if (MibLeaf::Internal::set_value(*leaf, *vb) != SNMP_ERR_NOERROR)
              netsnmp_set_request_error(reqinfo, request, SNMP_ERR_COMMITFAILED);
            else if (leaf->get_access() >= READWRITE)
              Notifier::committed_nolock(*leaf, *vb, reqinfo->asp, request->index);
          }
          break;
        default:
          break;
      }
    }
    return SNMP_ERR_NOERROR;
  }
};

ScalarIndex::~ScalarIndex() { clear(); }

// ---- Lookups

namespace {

// The first leaf whose OID is not below `name` (or above it, when `after`).
std::vector<MibLeaf*>::const_iterator seek(const std::vector<MibLeaf*>& leaves, const unsigned long* name,
                                           size_t length, bool after) {
  return std::partition_point(leaves.begin(), leaves.end(), [&](const MibLeaf* leaf) {
    const int order = compare(*leaf, name, length);
    return after ? order <= 0 : order < 0;
  });
}

}  // namespace

template <class SubId>
uint64_t ScalarIndex::hash(const SubId* name, size_t length) {
  uint64_t h = 0x9e3779b97f4a7c15ull ^ length;
  for (size_t i = 0; i < length; ++i) h = (h ^ name[i]) * 0x100000001b3ull;
  return h ^ (h >> 29);
}

MibLeaf* ScalarIndex::find(const unsigned long* name, size_t length) const {
  if (slots.empty()) return nullptr;
  // Exact lookups go through the hash table: with many scalars a binary
  // search would wait on memory at each of its steps.
  const uint64_t h = hash(name, length);
  const auto tag = static_cast<uint32_t>(h >> 32);
  for (size_t i = h & (slots.size() - 1);; i = (i + 1) & (slots.size() - 1)) {
    const Slot& slot = slots[i];
    if (slot.position == 0) return nullptr;
    if (slot.tag == tag) {
      MibLeaf* leaf = leaves[slot.position - 1];
      if (compare(*leaf, name, length) == 0) return leaf;
    }
  }
}

void ScalarIndex::prefetch(netsnmp_request_info* requests) const {
  if (slots.empty()) return;
  // A GET of many scalars of a large index would wait on memory for each:
  // their slots are asked for first, then, pass by pass, the places in the
  // list they name, the leaves and their values.
  const size_t mask = slots.size() - 1;
  size_t count = 0;
  size_t at[64];
  for (netsnmp_request_info* r = requests; r != nullptr && count < 64; r = r->next) {
    at[count] = hash(r->requestvb->name, r->requestvb->name_length) & mask;
    __builtin_prefetch(&slots[at[count++]]);
  }
  for (size_t i = 0; i < count; ++i)
    if (slots[at[i]].position != 0) __builtin_prefetch(&leaves[slots[at[i]].position - 1]);
  for (size_t i = 0; i < count; ++i)
    if (slots[at[i]].position != 0) __builtin_prefetch(leaves[slots[at[i]].position - 1]);
  for (size_t i = 0; i < count; ++i)
    if (slots[at[i]].position != 0) MibLeaf::Internal::prefetchValue(*leaves[slots[at[i]].position - 1]);
}

void ScalarIndex::rehash() {
  // At least a fifth of the slots stay free: linear probes stay short, and
  // the table costs 8 bytes per leaf or a little more.
  size_t capacity = 16;
  while (capacity * 4 < leaves.size() * 5) capacity *= 2;
  slots.assign(capacity, Slot());
  for (size_t position = 0; position < leaves.size(); ++position) {
    const MibLeaf* leaf = leaves[position];
    const uint64_t h = hash(leaf->oidData(), leaf->oidLength());
    size_t i = h & (capacity - 1);
    while (slots[i].position != 0) i = (i + 1) & (capacity - 1);
    slots[i] = Slot{static_cast<uint32_t>(h >> 32), static_cast<uint32_t>(position + 1)};
  }
}

MibLeaf* ScalarIndex::below(const unsigned long* name, size_t length) const {
  // A leaf that is a prefix of `name` sorts right before it.
  auto it = seek(leaves, name, length, false);
  if (it == leaves.begin()) return nullptr;
  --it;
  return isPrefix(**it, name, length) ? *it : nullptr;
}

void ScalarIndex::get(netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request) const {
  const netsnmp_variable_list* vb = request->requestvb;
  MibLeaf* leaf = find(vb->name, vb->name_length);
  // An object made NOACCESS at run time is hidden like one never published.
  if (leaf != nullptr && leaf->get_access() != NOACCESS)
    MibLeaf::Internal::get_request(*leaf, reqinfo, request);
  else
    netsnmp_set_request_error(
        reqinfo, request,
        leaf == nullptr && below(vb->name, vb->name_length) != nullptr ? SNMP_NOSUCHINSTANCE : SNMP_NOSUCHOBJECT);
}

void ScalarIndex::getNext(netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request) const {
  netsnmp_variable_list* vb = request->requestvb;
  // An inclusive request (a retry at the start of the next registration)
  // takes the name itself if it is a scalar.
  for (auto it = seek(leaves, vb->name, vb->name_length, request->inclusive == 0); it != leaves.end(); ++it) {
    // Beyond this registration (or the part of it between two others): the
    // agent goes on with the next one.
    if (compare(**it, request->range_end, request->range_end_len) >= 0) return;
    if ((*it)->get_access() == NOACCESS) continue;
    oid name[MAX_OID_LEN];
    std::copy((*it)->oidData(), (*it)->oidData() + (*it)->oidLength(), name);
    snmp_set_var_objid(vb, name, (*it)->oidLength());
    MibLeaf::Internal::get_request(**it, reqinfo, request);
    return;
  }
}

// ---- Registration

bool ScalarIndex::registerRoot(const std::vector<unsigned long>& root) {
  const unsigned long* data = root.data();
  const size_t length = root.size();
  netsnmp_handler_registration* reg =
      netsnmp_create_handler_registration("zeltaScalars", Handler::handle, data, length, HANDLER_CAN_RWRITE);
  if (reg == nullptr) return false;
  reg->handler->myvoid = this;
  // Net-SNMP puts helpers in front of the handler; the registration's own
  // pointer tells our subtrees from the others.
  reg->my_reg_void = this;
  // On failure Net-SNMP frees the registration itself.
  if (netsnmp_register_handler(reg) != MIB_REGISTERED_OK) return false;
  roots.push_back(reg);
  return true;
}

namespace {

// A leaf's OID held in the record the sort moves: comparing through each
// leaf's own vector would wait on memory at every step. OIDs longer than the
// record holds are compared through the leaf.
struct Record {
  static constexpr uint32_t kInline = 24;
  uint32_t sub[kInline];
  uint32_t length;
  uint32_t position;  // in the candidates
  MibLeaf* leaf;

  bool before(const Record& other) const {
    const uint32_t shared = std::min({length, other.length, kInline});
    for (uint32_t i = 0; i < shared; ++i)
      if (sub[i] != other.sub[i]) return sub[i] < other.sub[i];
    if (std::min(length, other.length) > kInline) {
      const uint32_t* mine = leaf->oidData();
      const uint32_t* theirs = other.leaf->oidData();
      return std::lexicographical_compare(mine, mine + length, theirs, theirs + other.length);
    }
    return length < other.length;
  }
  bool sameOid(const Record& other) const { return !before(other) && !other.before(*this); }
  // The first `count` sub-identifiers of the OID.
  Oid prefix(size_t count) const {
    const uint32_t* ids = length > kInline ? leaf->oidData() : sub;
    return Oid(ids, ids + count);
  }
  bool startsWith(const Oid& start) const {
    if (start.size() > length) return false;
    for (size_t i = 0; i < start.size(); ++i)
      if ((i < kInline ? sub[i] : leaf->oidData()[i]) != start[i]) return false;
    return true;
  }
  // The OID against a Net-SNMP one: <0, 0 or >0.
  int compare(const unsigned long* name, size_t nameLength) const {
    if (length > kInline) return Quorvel::Kvan::SNMP::compare(*leaf, name, nameLength);
    for (size_t i = 0; i < length && i < nameLength; ++i)
      if (sub[i] != name[i]) return sub[i] < name[i] ? -1 : 1;
    return length == nameLength ? 0 : (length < nameLength ? -1 : 1);
  }
};

}  // namespace

ZELTA_COLD void ScalarIndex::build(const std::vector<MibLeaf*>& candidates, std::vector<size_t>& refused) {
  // One pass over the leaves, where they lie in memory: their OIDs into
  // records, and the mark that they are registered (taken back from those
  // refused).
  std::vector<Record> records;
  records.reserve(candidates.size());
  for (size_t i = 0; i < candidates.size(); ++i) {
    // Leaves lie all over the heap: the ones a few steps ahead are asked for
    // early, their OIDs once the leaves are there.
    if (i + 16 < candidates.size()) __builtin_prefetch(candidates[i + 16]);
    if (i + 8 < candidates.size()) __builtin_prefetch(candidates[i + 8]->oidData());
    MibLeaf* leaf = candidates[i];
    const size_t length = leaf->oidLength();
    if (length == 0) {
      refused.push_back(i);
      continue;
    }
    Record record;
    record.length = static_cast<uint32_t>(length);
    record.position = static_cast<uint32_t>(i);
    record.leaf = leaf;
    std::copy(leaf->oidData(), leaf->oidData() + std::min<size_t>(length, Record::kInline), record.sub);
    records.push_back(record);
    MibLeaf::Internal::setRegistered_nolock(*leaf, true);
  }
  // In OID order; of two leaves on one OID the earlier one is published.
  std::sort(records.begin(), records.end(),
            [](const Record& a, const Record& b) { return a.before(b) || (!b.before(a) && a.position < b.position); });
  auto refuse = [&](const Record& record) REQUIRES(libraryMutex()) {
    MibLeaf::Internal::setRegistered_nolock(*record.leaf, false);
    refused.push_back(record.position);
  };
  size_t kept = 0;
  for (size_t i = 0; i < records.size(); ++i) {
    if (kept > 0 && records[kept - 1].sameOid(records[i]))
      refuse(records[i]);
    else
      records[kept++] = records[i];
  }
  records.resize(kept);

  // The groups: a scalar's group is its OID without the instance and the
  // object's own sub-identifier. Neighbours mostly share their group, so the
  // map is asked only when it changes.
  std::map<Oid, std::vector<size_t>> groups;  // root: records
  std::vector<size_t>* members = nullptr;
  const Oid* lastRoot = nullptr;
  for (size_t i = 0; i < records.size(); ++i) {
    const size_t length = records[i].length > 2 ? records[i].length - 2 : records[i].length;
    if (lastRoot == nullptr || lastRoot->size() != length || !records[i].startsWith(*lastRoot)) {
      auto group = groups.try_emplace(records[i].prefix(length)).first;
      lastRoot = &group->first;
      members = &group->second;
    }
    members->push_back(i);
  }
  // Each registration costs Net-SNMP a step in every lookup, so groups that
  // are siblings share one at their parent; a registration Net-SNMP refuses
  // (another object registered exactly there) falls back to the groups, and
  // a group's to its leaves, one by one, below.
  std::map<Oid, std::vector<std::map<Oid, std::vector<size_t>>::iterator>> siblings;  // parent: groups
  for (auto group = groups.begin(); group != groups.end(); ++group) {
    const Oid& root = group->first;
    siblings[Oid(root.begin(), root.end() - (root.size() > 1 ? 1 : 0))].push_back(group);
  }
  std::vector<bool> routed(records.size(), false);
  for (const auto& [parent, children] : siblings) {
    const bool shared = children.size() > 1 && registerRoot(parent);
    for (const auto& group : children) {
      if (!shared && !registerRoot(group->first)) continue;
      for (size_t i : group->second) routed[i] = true;
    }
  }

  // A leaf that lies inside another object's registration (a table, a
  // standard group) is reached only through one of its own: one walk over
  // the agent's sorted subtrees beside the sorted leaves finds them.
  const netsnmp_subtree* subtree = netsnmp_subtree_find_first("");
  for (size_t i = 0; i < records.size(); ++i) {
    while (subtree != nullptr && records[i].compare(subtree->end_a, subtree->end_len) >= 0) subtree = subtree->next;
    const bool ours = subtree != nullptr && records[i].compare(subtree->start_a, subtree->start_len) >= 0 &&
                      subtree->reginfo != nullptr && subtree->reginfo->my_reg_void == this;
    if (!ours) routed[i] = false;
  }
  leaves.reserve(records.size());
  for (size_t i = 0; i < records.size(); ++i) {
    if (routed[i] || registerRoot(records[i].leaf->oidParts()))
      leaves.push_back(records[i].leaf);
    else
      refuse(records[i]);
  }
  rehash();
}

void ScalarIndex::clear() {
  for (MibLeaf* leaf : leaves) MibLeaf::Internal::setRegistered_nolock(*leaf, false);
  leaves.clear();
  slots.clear();
  for (netsnmp_handler_registration* reg : roots) netsnmp_unregister_handler(reg);
  roots.clear();
}

void ScalarIndex::forget(MibLeaf* leaf) {
  const Oid name = leaf->oidParts();
  auto it = seek(leaves, name.data(), name.size(), false);
  if (it == leaves.end() || *it != leaf) return;
  leaves.erase(it);
  rehash();
}

}  // namespace Quorvel::Kvan::SNMP
