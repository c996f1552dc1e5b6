// The published scalars of a running agent, in OID order, behind few
// Net-SNMP registrations.
//
// Net-SNMP keeps its registrations in a list it walks linearly, so one
// registration per scalar makes start-up quadratic and every lookup linear in
// the number of scalars. Here the scalars share one registration per parent
// OID (the scalar's OID without its last two sub-identifiers: the scalar
// group), and one handler finds the scalar of a request by binary search.
// What a manager sees stays as with one registration per scalar: GET of a
// scalar, noSuchInstance below one, noSuchObject elsewhere; GETNEXT in OID
// order, across other registrations in between; SET statuses alike.
//
// Thread safety: everything runs with the library lock held (the handler
// takes it); build() and clear() on the agent thread.
#ifndef ZELTA_SRC_SNMP_SCALARINDEX_H_
#define ZELTA_SRC_SNMP_SCALARINDEX_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/liblock.h"

struct netsnmp_handler_registration_s;
struct netsnmp_agent_request_info_s;
struct netsnmp_request_info_s;

namespace Quorvel::Kvan::SNMP {

class MibLeaf;

class ScalarIndex {
 public:
  ScalarIndex() = default;
  ~ScalarIndex();
  ScalarIndex(const ScalarIndex&) = delete;
  ScalarIndex& operator=(const ScalarIndex&) = delete;

  // Registers `candidates`, after every other registration of the agent.
  // Leaves with an OID that is invalid or taken by an earlier leaf, or that
  // Net-SNMP cannot route to us, are refused: their positions in
  // `candidates` come back in `refused`. The index is empty.
  void build(const std::vector<MibLeaf*>& candidates, std::vector<size_t>& refused) REQUIRES(libraryMutex());
  // Unregisters everything.
  void clear() REQUIRES(libraryMutex());
  // Drops a leaf that is being destroyed.
  void forget(MibLeaf* leaf) REQUIRES(libraryMutex());
  size_t size() const REQUIRES(libraryMutex()) { return leaves.size(); }
  // The registered leaves, in OID order.
  std::vector<MibLeaf*>::const_iterator begin() const REQUIRES(libraryMutex()) { return leaves.begin(); }
  std::vector<MibLeaf*>::const_iterator end() const REQUIRES(libraryMutex()) { return leaves.end(); }

  // The Net-SNMP handler of every registration; internal.
  struct Handler;

 private:
  // Registers a handler at `root`; false when Net-SNMP refuses.
  bool registerRoot(const std::vector<unsigned long>& root) REQUIRES(libraryMutex());
  // The leaf published at `name`, or null.
  MibLeaf* find(const unsigned long* name, size_t length) const REQUIRES(libraryMutex());
  // The leaf whose OID is a prefix of `name`, or null.
  MibLeaf* below(const unsigned long* name, size_t length) const REQUIRES(libraryMutex());
  // Asks memory early for what a GET of `requests` reads.
  void prefetch(netsnmp_request_info_s* requests) const REQUIRES(libraryMutex());
  // Answers one GET or GETNEXT binding.
  void get(netsnmp_agent_request_info_s* reqinfo, netsnmp_request_info_s* request) const REQUIRES(libraryMutex());
  void getNext(netsnmp_agent_request_info_s* reqinfo, netsnmp_request_info_s* request) const REQUIRES(libraryMutex());

  // An open-addressing table of the leaves by OID, for exact lookups.
  // 8 bytes: the hash's upper half, to skip most other leaves without
  // reading them, and the leaf's position in `leaves` plus one (0: empty).
  struct Slot {
    uint32_t tag = 0;
    uint32_t position = 0;
  };
  // Of a request's name, and of a leaf's OID in place: the same value.
  template <class SubId>
  static uint64_t hash(const SubId* name, size_t length);
  void rehash() REQUIRES(libraryMutex());

  std::vector<MibLeaf*> leaves GUARDED_BY(libraryMutex());  // sorted by OID, for GETNEXT
  // A power of two, at least 5/4 as many as leaves and 16.
  std::vector<Slot> slots GUARDED_BY(libraryMutex());
  std::vector<netsnmp_handler_registration_s*> roots GUARDED_BY(libraryMutex());
};

}  // namespace Quorvel::Kvan::SNMP

#endif  // ZELTA_SRC_SNMP_SCALARINDEX_H_
