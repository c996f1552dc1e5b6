#include "snmpinternal.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>

#include "agentengine.h"
#include "scalarindex.h"
#include "zelta/mibtypes.h"

namespace Quorvel::Kvan::SNMP {

namespace {

using Oid = std::vector<unsigned long>;

int compare(const unsigned long* a, size_t aLength, const unsigned long* b, size_t bLength) {
  return snmp_oid_compare(a, aLength, b, bLength);
}

bool isPrefix(const Oid& prefix, const unsigned long* name, size_t length) {
  return prefix.size() <= length && std::equal(prefix.begin(), prefix.end(), name);
}

// The registration a scalar shares with its group: its OID without the
// instance and the object's own sub-identifier.
size_t groupLength(const Oid& name) { return name.size() > 2 ? name.size() - 2 : name.size(); }

}  // namespace

struct ScalarIndex::Handler {
  static int handle(netsnmp_mib_handler* handler, netsnmp_handler_registration* /*reginfo*/,
                    netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) {
    return internal::guardHandler([&] { return handleUnguarded(handler, reqinfo, requests); }, requests);
  }

  static int handleUnguarded(netsnmp_mib_handler* handler, netsnmp_agent_request_info* reqinfo,
                             netsnmp_request_info* requests) {
    auto* index = static_cast<ScalarIndex*>(handler->myvoid);
    std::lock_guard lock(agentLock());
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
          const int status = leaf != nullptr                                      ? leaf->check_set(*vb)
                             : index->below(vb->name, vb->name_length) != nullptr ? SNMP_ERR_NOCREATION
                                                                                  : SNMP_ERR_NOTWRITABLE;
          if (status != SNMP_ERR_NOERROR) netsnmp_set_request_error(reqinfo, request, status);
          break;
        }
        case MODE_SET_COMMIT:
          // Every binding of the PDU passed its checks: only now is anything
          // written, so a failing binding leaves every parameter unchanged.
          if (MibLeaf* leaf = index->find(vb->name, vb->name_length)) {
            if (leaf->set_value(*vb) != SNMP_ERR_NOERROR)
              netsnmp_set_request_error(reqinfo, request, SNMP_ERR_COMMITFAILED);
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
    const int order = compare(leaf->oidParts().data(), leaf->oidParts().size(), name, length);
    return after ? order <= 0 : order < 0;
  });
}

}  // namespace

MibLeaf* ScalarIndex::find(const unsigned long* name, size_t length) const {
  auto it = seek(leaves, name, length, false);
  if (it == leaves.end() || compare((*it)->oidParts().data(), (*it)->oidParts().size(), name, length) != 0)
    return nullptr;
  return *it;
}

MibLeaf* ScalarIndex::below(const unsigned long* name, size_t length) const {
  // A leaf that is a prefix of `name` sorts right before it.
  auto it = seek(leaves, name, length, false);
  if (it == leaves.begin()) return nullptr;
  --it;
  return isPrefix((*it)->oidParts(), name, length) ? *it : nullptr;
}

void ScalarIndex::get(netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request) const {
  const netsnmp_variable_list* vb = request->requestvb;
  MibLeaf* leaf = find(vb->name, vb->name_length);
  // An object made NOACCESS at run time is hidden like one never published.
  if (leaf != nullptr && leaf->get_access() != NOACCESS)
    leaf->get_request(reqinfo, request);
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
    const Oid& name = (*it)->oidParts();
    // Beyond this registration (or the part of it between two others): the
    // agent goes on with the next one.
    if (compare(name.data(), name.size(), request->range_end, request->range_end_len) >= 0) return;
    if ((*it)->get_access() == NOACCESS) continue;
    snmp_set_var_objid(vb, name.data(), name.size());
    (*it)->get_request(reqinfo, request);
    return;
  }
}

// ---- Registration

bool ScalarIndex::registerRoot(const unsigned long* root, size_t length) {
  netsnmp_handler_registration* reg =
      netsnmp_create_handler_registration("zeltaScalars", Handler::handle, root, length, HANDLER_CAN_RWRITE);
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

void ScalarIndex::build(const std::vector<MibLeaf*>& candidates, std::vector<MibLeaf*>& refused) {
  // In OID order; of two leaves on one OID the earlier one is published. The
  // sort moves records that hold the OID itself: comparing through each
  // leaf's own vector would wait on memory at every step.
  struct Record {
    uint32_t sub[24];
    uint32_t length;
    uint32_t position;
    MibLeaf* leaf;
  };
  std::vector<Record> records;
  records.reserve(candidates.size());
  for (MibLeaf* leaf : candidates) {
    const Oid& name = leaf->oidParts();
    if (name.empty()) {
      refused.push_back(leaf);
      continue;
    }
    Record record;
    record.length = static_cast<uint32_t>(name.size());
    record.position = static_cast<uint32_t>(records.size());
    record.leaf = leaf;
    const size_t inline_ = std::min(name.size(), std::size(record.sub));
    for (size_t i = 0; i < inline_; ++i) record.sub[i] = static_cast<uint32_t>(name[i]);
    records.push_back(record);
  }
  std::sort(records.begin(), records.end(), [](const Record& a, const Record& b) {
    const uint32_t shared = std::min({a.length, b.length, static_cast<uint32_t>(std::size(a.sub))});
    for (uint32_t i = 0; i < shared; ++i)
      if (a.sub[i] != b.sub[i]) return a.sub[i] < b.sub[i];
    if (std::min(a.length, b.length) > std::size(a.sub) && a.leaf->oidParts() != b.leaf->oidParts())
      return a.leaf->oidParts() < b.leaf->oidParts();
    return a.length != b.length ? a.length < b.length : a.position < b.position;
  });
  leaves.reserve(records.size());
  for (const Record& record : records) {
    if (!leaves.empty() && leaves.back()->oidParts() == record.leaf->oidParts())
      refused.push_back(record.leaf);
    else
      leaves.push_back(record.leaf);
  }

  // One registration per group; a group whose root Net-SNMP refuses (another
  // object registered exactly there) falls back to one per leaf below.
  // Neighbours mostly share their group: the map is asked when it changes.
  std::vector<bool> routed(leaves.size(), false);
  std::map<Oid, bool> groups;  // root: registered
  const std::pair<const Oid, bool>* last = nullptr;
  for (size_t i = 0; i < leaves.size(); ++i) {
    const Oid& name = leaves[i]->oidParts();
    const size_t length = groupLength(name);
    if (last == nullptr || last->first.size() != length || !isPrefix(last->first, name.data(), name.size())) {
      Oid root(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(length));
      auto group = groups.find(root);
      if (group == groups.end()) {
        const bool registered = registerRoot(root.data(), root.size());
        group = groups.emplace(std::move(root), registered).first;
      }
      last = &*group;
    }
    routed[i] = last->second;
  }

  // A leaf that lies inside another object's registration (a table, a
  // standard group) is reached only through one of its own: one walk over
  // the agent's sorted subtrees beside the sorted leaves finds them.
  const netsnmp_subtree* subtree = netsnmp_subtree_find_first("");
  for (size_t i = 0; i < leaves.size(); ++i) {
    const Oid& name = leaves[i]->oidParts();
    while (subtree != nullptr && compare(subtree->end_a, subtree->end_len, name.data(), name.size()) <= 0)
      subtree = subtree->next;
    const bool ours = subtree != nullptr &&
                      compare(subtree->start_a, subtree->start_len, name.data(), name.size()) <= 0 &&
                      subtree->reginfo != nullptr && subtree->reginfo->my_reg_void == this;
    if (!ours) routed[i] = false;
  }
  size_t kept = 0;
  for (size_t i = 0; i < leaves.size(); ++i) {
    if (routed[i] || registerRoot(leaves[i]->oidParts().data(), leaves[i]->oidParts().size())) {
      leaves[kept++] = leaves[i];
    } else {
      refused.push_back(leaves[i]);
    }
  }
  leaves.resize(kept);
  // Registered: the leaf knows it, so that it forgets itself if destroyed
  // while the agent runs.
  for (MibLeaf* leaf : leaves) leaf->registration = roots.front();
}

void ScalarIndex::clear() {
  for (MibLeaf* leaf : leaves) leaf->registration = nullptr;
  leaves.clear();
  for (netsnmp_handler_registration* reg : roots) netsnmp_unregister_handler(reg);
  roots.clear();
}

void ScalarIndex::forget(MibLeaf* leaf) {
  auto it = seek(leaves, leaf->oidParts().data(), leaf->oidParts().size(), false);
  if (it != leaves.end() && *it == leaf) leaves.erase(it);
}

}  // namespace Quorvel::Kvan::SNMP
