// What serves a DynMibTable: the table's shape as published, its Net-SNMP
// registration and the steps of a request, which run on the agent thread with
// the library lock held.
#ifndef ZELTA_SRC_SNMP_DYNMIBTABLE_H_
#define ZELTA_SRC_SNMP_DYNMIBTABLE_H_

#include "snmp/snmpinternal.h"

#include <atomic>
#include <vector>

#include "base/liblock.h"
#include "zelta/mibtypes.h"

namespace Quorvel::Kvan::SNMP {

struct ZELTA_LOCAL DynMibTable::Impl {
  Impl(DynMibTable& table, Variant* value);

  static Impl& of(const DynMibTable& table) { return *table.impl; }

  Table& table() const { return *value->getMutableTable(); }
  // True when a row with this index can be served (the index fits the
  // table and SNMP's 32-bit sub-identifiers).
  bool servable(const RowIdx& indexes) const;

  // Registers the table's handler at the table's OID. False (with an ERROR
  // line) when the OID is no entry's or the table has no RowStatus column,
  // or Net-SNMP refuses. The agent is initialising.
  bool registerEntry_nolock() REQUIRES(libraryMutex());
  // Undoes registerEntry_nolock; harmless when not registered.
  void unregisterEntry_nolock() REQUIRES(libraryMutex());

  // The steps of a request. `pending` is the PDU's set of changes for this
  // table.
  void get_request(netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request) REQUIRES(libraryMutex());
  void get_next_request(netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request) REQUIRES(libraryMutex());
  // GETBULK: the repetitions of each request as GETNEXTs, left for the
  // agent's next pass as Net-SNMP's bulk_to_next helper leaves them; as many
  // passes made here as the agent would bring straight back.
  void get_bulk_request(netsnmp_handler_registration* reginfo, netsnmp_agent_request_info* reqinfo,
                        netsnmp_request_info* requests) REQUIRES(libraryMutex());
  // After a pass: true when the agent's next pass would hold only requests
  // that moved on to their next repetition here, and at least one.
  static bool nextPassHereOnly(netsnmp_request_info* requests);
  // RESERVE1: each binding on its own (access, index, type, length, range).
  void prepare_set_request(netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request, void* pending)
      REQUIRES(libraryMutex());
  // RESERVE2: the bindings of each row together (RowStatus, readiness).
  void check_row_transitions(netsnmp_agent_request_info* reqinfo, void* pending) REQUIRES(libraryMutex());
  // ACTION: activeRowsReadOnly and the column validators.
  void validate_set_request(netsnmp_agent_request_info* reqinfo, void* pending) REQUIRES(libraryMutex());
  // COMMIT: applies the PDU to the Table, and notifies.
  void commit_set_request(netsnmp_agent_request_info* reqinfo, void* pending) REQUIRES(libraryMutex());
  // Answers a request for a cell of an existing row, the filler having run.
  void answer(netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request, const RowIdx& indexes,
              const TableRow& row, unsigned int column) REQUIRES(libraryMutex());

  // The definition of a host write's column when the row and the column
  // exist; null, with a trace line, otherwise.
  const FieldType* writableCell_nolock(const RowIdx& indexes, unsigned int column) REQUIRES(libraryMutex());
  // Stores a host value converted for the column; false, with a trace line,
  // when it could not be converted or the Table refuses it.
  bool storeCell_nolock(const RowIdx& indexes, unsigned int column, bool converted, const Variant& cell)
      REQUIRES(libraryMutex());

  void initIndexes();
  void initRowStatus();
  void initFields();
  void initValues();
  // False, with an ERROR line, for a column type that cannot be published.
  bool makeLeaf(const FieldType& type) const;

  // Row events, told to the Variant's listener with a new ExtraInfo.
  void notify_nolock(const char* reason, const RowIdx& indexes, int action, int column) REQUIRES(libraryMutex());
  void row_added(const RowIdx& indexes) REQUIRES(libraryMutex());
  void row_activated(const RowIdx& indexes) REQUIRES(libraryMutex());
  void row_deactivated(const RowIdx& indexes) REQUIRES(libraryMutex());
  void row_delete(const RowIdx& indexes) REQUIRES(libraryMutex());

  DynMibTable& owner;
  Variant* const value;
  TableDef* definition = nullptr;
  unsigned int rowStatusColumn = 0;
  int numIdx = -1;
  std::vector<unsigned int> served;           // RowStatus and the published value columns, ascending
  std::vector<unsigned int> withoutDefault;   // value columns a new row cannot be ready without
  RowIdx scratch GUARDED_BY(libraryMutex());  // the index of a request, without an allocation each
  std::atomic<size_t> maxRowCount{0};
  // While registered; owned by Net-SNMP.
  netsnmp_handler_registration* registration GUARDED_BY(libraryMutex()) = nullptr;

  // The Net-SNMP handler of the table.
  struct Handler;
};

}  // namespace Quorvel::Kvan::SNMP

#endif  // ZELTA_SRC_SNMP_DYNMIBTABLE_H_
