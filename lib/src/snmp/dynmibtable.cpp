// DynMibTable: a table parameter served straight from its Table, through one
// Net-SNMP handler registered at the table's OID, with RowStatus row creation
// and deletion.
//
// GET and GETNEXT read the Table: a cell is entry.column.index, and GETNEXT
// walks the served columns in turn, each over the rows in index order, found
// by binary search in the Table's sorted rows. A SET runs in Net-SNMP's
// phases: RESERVE1 checks each binding on its own (type, length, range,
// index), RESERVE2 checks the bindings of one row together (RowStatus
// transitions, readiness), ACTION asks the column validators, and COMMIT
// applies the whole PDU. Nothing changes before COMMIT, so a refused binding
// leaves every row as it was.
#include "snmp/dynmibtable.h"

#include <algorithm>
#include <cstring>

#include "base/trace.h"
#include "snmp/agentengine.h"
#include "snmp/notifier.h"
#include "snmp/snmpcodec.h"
#include "zelta/logging.h"
#include "zelta/text.h"

namespace Quorvel::Kvan::SNMP {

namespace {

// RowStatus values (RFC 2579).
enum RowStatus { kActive = 1, kNotInService = 2, kNotReady = 3, kCreateAndGo = 4, kCreateAndWait = 5, kDestroy = 6 };

const long kCellSet = 5;

// One cell a SET PDU writes, checked.
struct PendingCell {
  netsnmp_request_info* request;
  unsigned int column;
  ValueType type;
  SnmpValue value;
};

// What one SET PDU asks of one row.
struct PendingRow {
  RowIdx indexes;
  bool existed = false;
  int status = 0;  // requested RowStatus, 0 = none
  netsnmp_request_info* statusRequest = nullptr;
  std::vector<PendingCell> cells;

  bool sets(unsigned int column) const {
    return std::any_of(cells.begin(), cells.end(), [&](const PendingCell& c) { return c.column == column; });
  }
};

// What one SET PDU asks of one table; lives with the PDU.
struct PendingSet {
  std::vector<PendingRow> rows;
  bool reserve2Done = false;
  bool actionDone = false;
  bool commitDone = false;

  PendingRow& row(const RowIdx& indexes, bool existed) {
    for (PendingRow& r : rows)
      if (r.indexes == indexes) return r;
    rows.push_back(PendingRow{indexes, existed, 0, nullptr, {}});
    return rows.back();
  }
};

void freePendingSet(void* data) { delete static_cast<PendingSet*>(data); }

// Type, length and bounds of a SET value for a cell of `field`: 0 or the
// error status; `out` then holds the value.
int checkCellValue(const FieldType& field, const netsnmp_variable_list& vb, SnmpValue& out) {
  const SnmpCodec* codec = SnmpCodec::of(field.type);
  if (codec == nullptr) return SNMP_ERR_NOTWRITABLE;
  const Bounds bounds(field.min, field.max);
  const int status = codec->checkSet(vb, bounds, out);
  if (status != SNMP_ERR_NOERROR) return status;
  return codec->inRange(out, bounds) ? SNMP_ERR_NOERROR : SNMP_ERR_WRONGVALUE;
}

// Where a binding's name lies below `entry`: its column, and in `index` the
// sub-identifiers after the column. False when it does not lie below the
// entry (the entry itself included).
struct CellName {
  unsigned long column = 0;
  const oid* index = nullptr;
  size_t indexLength = 0;

  bool parse(const MibEntry& entry, const netsnmp_variable_list& vb) {
    const size_t length = entry.oidLength();
    if (length == 0 || vb.name_length <= length || !std::equal(entry.oidData(), entry.oidData() + length, vb.name))
      return false;
    column = vb.name[length];
    index = vb.name + length + 1;
    indexLength = vb.name_length - length - 1;
    return true;
  }
};

// The first row `pending` creates beyond `limit` rows, counting from the
// `held` rows less those it destroys; null when there is none.
const PendingRow* creationBeyondLimit(const PendingSet& pending, size_t held, size_t limit) {
  for (const PendingRow& row : pending.rows)
    if (row.existed && row.status == kDestroy && held > 0) --held;
  for (const PendingRow& row : pending.rows)
    if (!row.existed && (row.status == kCreateAndGo || row.status == kCreateAndWait) && ++held > limit) return &row;
  return nullptr;
}

// Gives a request another mode for a scope.
class ModeFor {
 public:
  ModeFor(netsnmp_agent_request_info* request, int mode) : reqinfo(request), saved(request->mode) {
    request->mode = mode;
  }
  ~ModeFor() { reqinfo->mode = saved; }
  ModeFor(const ModeFor&) = delete;
  ModeFor& operator=(const ModeFor&) = delete;

 private:
  netsnmp_agent_request_info* reqinfo;
  int saved;
};

}  // namespace

// ---- The Net-SNMP handler

struct DynMibTable::Impl::Handler {
  static int handle(netsnmp_mib_handler* handler, netsnmp_handler_registration* reginfo,
                    netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) {
    return internal::guardHandler([&] { return handleUnguarded(handler, reginfo, reqinfo, requests); }, requests);
  }
  static int handleUnguarded(netsnmp_mib_handler* handler, netsnmp_handler_registration* reginfo,
                             netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) {
    auto* self = static_cast<Impl*>(handler->myvoid);
    LibraryLockGuard lock(libraryMutex());
    switch (reqinfo->mode) {
      case MODE_GETBULK:
        self->get_bulk_request(reginfo, reqinfo, requests);
        break;
      case MODE_GET:
      case MODE_GETNEXT:
        for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
          if (request->processed) continue;
          if (reqinfo->mode == MODE_GET)
            self->get_request(reqinfo, request);
          else
            self->get_next_request(reqinfo, request);
        }
        break;
      case MODE_SET_RESERVE1: {
        void* pending = pendingSet(reqinfo, reginfo, true);
        for (netsnmp_request_info* request = requests; request != nullptr; request = request->next)
          if (!request->processed) self->prepare_set_request(reqinfo, request, pending);
        break;
      }
      case MODE_SET_RESERVE2:
      case MODE_SET_ACTION:
      case MODE_SET_COMMIT: {
        PendingSet* pending = pendingSet(reqinfo, reginfo, false);
        if (pending == nullptr) break;
        if (reqinfo->mode == MODE_SET_RESERVE2 && !pending->reserve2Done) {
          pending->reserve2Done = true;
          self->check_row_transitions(reqinfo, pending);
        } else if (reqinfo->mode == MODE_SET_ACTION && !pending->actionDone) {
          pending->actionDone = true;
          self->validate_set_request(reqinfo, pending);
        } else if (reqinfo->mode == MODE_SET_COMMIT && !pending->commitDone) {
          pending->commitDone = true;
          self->commit_set_request(reqinfo, pending);
        }
        break;
      }
      default:  // FREE and UNDO: nothing was changed before COMMIT
        break;
    }
    return SNMP_ERR_NOERROR;
  }

  // The PDU's pending changes for this table, kept with the request so that
  // Net-SNMP frees them when the PDU is done.
  static PendingSet* pendingSet(netsnmp_agent_request_info* reqinfo, netsnmp_handler_registration* reginfo,
                                bool create) {
    char name[64];
    snprintf(name, sizeof name, "zeltaTableSet:%p", static_cast<void*>(reginfo));
    auto* pending = static_cast<PendingSet*>(netsnmp_agent_get_list_data(reqinfo, name));
    if (pending == nullptr && create) {
      pending = new PendingSet();
      netsnmp_agent_add_list_data(reqinfo, netsnmp_create_data_list(name, pending, freePendingSet));
    }
    return pending;
  }
};

void DynMibTable::Impl::get_request(netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request) {
  CellName name;
  // Outside the columns, or made NOACCESS at run time: hidden like a table
  // never published.
  if (owner.get_access() == NOACCESS || !name.parse(owner, *request->requestvb) || served.empty() ||
      name.column < served.front() || name.column > served.back()) {
    netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHOBJECT);
    return;
  }
  const auto column = static_cast<unsigned int>(name.column);
  const auto& rows = table().getRows();
  scratch.assign(name.index, name.index + name.indexLength);
  if (!servable(scratch) || rows.count(scratch) == 0) {
    netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHINSTANCE);
    return;
  }
  if (!owner.callFiller(scratch, column)) {
    internal::setReadError(reqinfo, request, SNMP_ERR_RESOURCEUNAVAILABLE);
    return;
  }
  // Looked up again: the filler may have changed the table.
  auto row = rows.find(scratch);
  if (row == rows.end())
    netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHINSTANCE);
  else
    answer(reqinfo, request, row->first, row->second, column);
}

void DynMibTable::Impl::get_next_request(netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request) {
  // Hidden at run time: the agent goes on with the next registration.
  if (owner.get_access() == NOACCESS || served.empty()) return;
  netsnmp_variable_list* vb = request->requestvb;
  const size_t entryLength = owner.oidLength();
  const auto& rows = table().getRows();
  // Where the walk starts: the first served column at or after the name's,
  // and in the name's own column the first row after its index (at it, for
  // an inclusive request: a retry at the start of this registration).
  auto column = served.begin();
  auto row = rows.begin();
  CellName named;
  oid name[MAX_OID_LEN];
  std::copy(owner.oidData(), owner.oidData() + entryLength, name);
  if (named.parse(owner, *vb)) {
    column = std::lower_bound(served.begin(), served.end(), named.column);
    if (column != served.end() && *column == named.column) {
      scratch.assign(named.index, named.index + named.indexLength);
      row = request->inclusive != 0 ? rows.lower_bound(scratch) : rows.upper_bound(scratch);
    }
  } else if (snmp_oid_compare(vb->name, vb->name_length, name, entryLength) > 0) {
    return;  // past the entry: nothing of ours follows
  }
  for (; column != served.end(); ++column, row = rows.begin()) {
    name[entryLength] = *column;
    while (row != rows.end()) {
      const RowIdx& indexes = row->first;
      if (!servable(indexes)) {
        ++row;
        continue;
      }
      const size_t length = entryLength + 1 + indexes.size();
      std::copy(indexes.begin(), indexes.end(), name + entryLength + 1);
      // Beyond this registration (or the part of it between two others):
      // the agent goes on with the next one.
      if (snmp_oid_compare(name, length, request->range_end, request->range_end_len) >= 0) return;
      scratch.assign(indexes.begin(), indexes.end());
      if (!owner.callFiller(scratch, *column)) {
        snmp_set_var_objid(vb, name, length);
        internal::setReadError(reqinfo, request, SNMP_ERR_RESOURCEUNAVAILABLE);
        return;
      }
      // The filler may have removed the row, or others: looked up again.
      row = rows.find(scratch);
      if (row == rows.end()) {
        row = rows.upper_bound(scratch);
        continue;
      }
      snmp_set_var_objid(vb, name, length);
      answer(reqinfo, request, row->first, row->second, *column);
      return;
    }
  }
}

void DynMibTable::Impl::get_bulk_request(netsnmp_handler_registration* reginfo, netsnmp_agent_request_info* reqinfo,
                                         netsnmp_request_info* requests) {
  // While this table holds every request of the PDU still walking and lies
  // wholly in the manager's view, the agent's next pass would bring back
  // exactly the requests that moved on, with no view to check: that pass is
  // made here, without the agent's lookup and view check of each repetition.
  // The agent's rough size check between passes is left out too: an answer
  // too big for the manager is cut (or refused) when it is sent, as before,
  // and only the fillers of the cells cut off have run in vain.
  const netsnmp_agent_session* asp = reqinfo->asp;
  const bool alone = asp != nullptr && asp->treecache_num == 0 &&
                     netsnmp_acm_check_subtree(asp->pdu, reginfo->rootoid, reginfo->rootoid_len) == VACM_SUCCESS;
  for (;;) {
    // One pass: the next cell of each request still walking, as a GETNEXT.
    // A hook's exception leaves through here to the handler's guard, which
    // fails the PDU; the agent gets its mode back either way.
    {
      ModeFor getnext(reqinfo, MODE_GETNEXT);
      for (netsnmp_request_info* request = requests; request != nullptr; request = request->next)
        if (request->processed == 0 && request->requestvb->type == ASN_NULL) get_next_request(reqinfo, request);
    }
    // Each answered request moves on to its next repetition.
    netsnmp_bulk_to_next_fix_requests(requests);
    if (!alone || !nextPassHereOnly(requests)) return;
    // As the agent hands them back for the next pass.
    for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
      if (request->requestvb->type != ASN_PRIV_RETRY) continue;
      request->requestvb->type = ASN_NULL;
      request->processed = 0;
      request->delegated = 0;
      request->requestvb_start = request->requestvb;
    }
  }
}

bool DynMibTable::Impl::nextPassHereOnly(netsnmp_request_info* requests) {
  // What the agent checks between two passes: an error ends the PDU, a
  // request left unanswered goes on with the next registration, and an
  // answer it would not take (past the registration, or one that ends the
  // view) it deals with itself.
  bool again = false;
  for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
    const netsnmp_variable_list* vb = request->requestvb;
    if (request->status != SNMP_ERR_NOERROR || request->parent_data != nullptr || request->inclusive != 0 ||
        vb->type == ASN_NULL || vb->type == SNMP_ENDOFMIBVIEW)
      return false;
    if (vb->type == ASN_PRIV_RETRY) {
      again = true;
    } else if (request->repeat > 0 ||
               snmp_oid_compare(vb->name, vb->name_length, request->range_end, request->range_end_len) >= 0) {
      return false;
    }
  }
  return again;
}

void DynMibTable::Impl::answer(netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request,
                               const RowIdx& indexes, const TableRow& row, unsigned int column) {
  if (column == rowStatusColumn) {
    const long status = table().getRowStatus(indexes);
    snmp_set_var_typed_value(request->requestvb, ASN_INTEGER, &status, sizeof status);
    return;
  }
  auto field = definition->fields.find(column);
  if (!std::binary_search(served.begin(), served.end(), column) || field == definition->fields.end()) {
    // A column that is not served; a walk goes on with the next one.
    netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHOBJECT);
    return;
  }
  const SnmpCodec& codec = *SnmpCodec::of(field->second.type);
  SnmpValue cell;
  // A cell the row lacks, or of a kind the column does not hold, reads as
  // the column's default.
  auto found = row.find(column);
  if (found == row.end() || !codec.toSnmp(found->second, cell)) codec.toSnmp(codec.defaultValue(), cell);
  codec.answer(request->requestvb, cell);
}

ZELTA_COLD void DynMibTable::Impl::prepare_set_request(netsnmp_agent_request_info* reqinfo,
                                                       netsnmp_request_info* request, void* pendingData) {
  auto& pending = *static_cast<PendingSet*>(pendingData);
  const netsnmp_variable_list& vb = *request->requestvb;
  CellName name;
  const bool below = name.parse(owner, vb);
  const unsigned long column = name.column;
  int status = SNMP_ERR_NOERROR;
  const RowIdx indexes(name.index, name.index + name.indexLength);
  if (owner.get_access() < READWRITE || !below || served.empty() || column < served.front() || column > served.back()) {
    status = SNMP_ERR_NOTWRITABLE;
  } else if (indexes.empty() || (numIdx != -1 && indexes.size() != static_cast<size_t>(numIdx))) {
    // No row can ever have this index.
    status = SNMP_ERR_NOCREATION;
  } else if (column == rowStatusColumn) {
    long requested = vbxToLong(vb);
    if (vb.type != ASN_INTEGER || vb.val.integer == nullptr) {
      status = SNMP_ERR_WRONGTYPE;
    } else if (requested < kActive || requested > kDestroy || requested == kNotReady) {
      status = SNMP_ERR_WRONGVALUE;
    } else {
      PendingRow& row = pending.row(indexes, table().getRows().count(indexes) != 0);
      if (row.status != 0) {
        status = SNMP_ERR_INCONSISTENTVALUE;  // two RowStatus bindings for one row
      } else {
        row.status = static_cast<int>(requested);
        row.statusRequest = request;
      }
    }
  } else {
    auto field = definition->fields.find(static_cast<unsigned int>(column));
    if (field == definition->fields.end() || !std::binary_search(served.begin(), served.end(), column)) {
      status = SNMP_ERR_NOTWRITABLE;
    } else {
      PendingCell cell{request, static_cast<unsigned int>(column), field->second.type, SnmpValue()};
      status = checkCellValue(field->second, vb, cell.value);
      if (status == SNMP_ERR_NOERROR) {
        PendingRow& row = pending.row(indexes, table().getRows().count(indexes) != 0);
        if (row.sets(cell.column))
          status = SNMP_ERR_INCONSISTENTVALUE;  // one cell set twice
        else
          row.cells.push_back(std::move(cell));
      }
    }
  }
  if (status != SNMP_ERR_NOERROR) netsnmp_set_request_error(reqinfo, request, status);
}

ZELTA_COLD void DynMibTable::Impl::check_row_transitions(netsnmp_agent_request_info* reqinfo, void* pendingRef) {
  auto& pending = *static_cast<PendingSet*>(pendingRef);
  for (PendingRow& row : pending.rows) {
    netsnmp_request_info* blame = row.statusRequest != nullptr ? row.statusRequest : row.cells.front().request;
    int status = SNMP_ERR_NOERROR;
    // Ready once this PDU's values are in: each column still without a
    // value gets one here.
    bool ready = true;
    if (!row.existed) {
      for (unsigned int column : withoutDefault) ready = ready && row.sets(column);
    } else if (auto missing = table().getInactiveRows().find(row.indexes); missing != table().getInactiveRows().end()) {
      for (const auto& cell : missing->second) ready = ready && row.sets(cell.first);
    }
    if (!row.existed) {
      if (row.status == 0) {
        status = SNMP_ERR_NOCREATION;  // cells of a row nobody creates
      } else if (row.status == kActive || row.status == kNotInService) {
        status = SNMP_ERR_INCONSISTENTVALUE;
      } else if (row.status == kDestroy && !row.cells.empty()) {
        status = SNMP_ERR_INCONSISTENTVALUE;
      } else if (row.status == kCreateAndGo && !ready) {
        status = SNMP_ERR_INCONSISTENTVALUE;
      }
    } else {
      if (row.status == kCreateAndGo || row.status == kCreateAndWait) {
        status = SNMP_ERR_INCONSISTENTVALUE;
      } else if ((row.status == kActive || row.status == kNotInService) && !ready) {
        status = SNMP_ERR_INCONSISTENTVALUE;
      } else if (row.status == kDestroy && !row.cells.empty()) {
        status = SNMP_ERR_INCONSISTENTVALUE;
      }
    }
    if (status == SNMP_ERR_NOCREATION) {
      for (const PendingCell& c : row.cells) netsnmp_set_request_error(reqinfo, c.request, status);
    } else if (status != SNMP_ERR_NOERROR) {
      netsnmp_set_request_error(reqinfo, blame, status);
    }
  }
  const size_t limit = maxRowCount.load();
  const PendingRow* beyond = limit != 0 ? creationBeyondLimit(pending, table().getRows().size(), limit) : nullptr;
  if (beyond != nullptr) netsnmp_set_request_error(reqinfo, beyond->statusRequest, SNMP_ERR_RESOURCEUNAVAILABLE);
}

ZELTA_COLD void DynMibTable::Impl::validate_set_request(netsnmp_agent_request_info* reqinfo, void* pendingRef) {
  auto& pending = *static_cast<PendingSet*>(pendingRef);
  const size_t indexColumnCount = definition->indexColumns.size();
  for (PendingRow& row : pending.rows) {
    const bool activeNow = table().isRowActive(row.indexes);
    for (PendingCell& c : row.cells) {
      int status = SNMP_ERR_NOERROR;
      auto field = definition->fields.find(c.column);
      if (table().activeRowsReadOnly == 1 && activeNow) {
        ZELTA_TRACE();
        status = SNMP_ERR_COMMITFAILED;
      } else if (field == definition->fields.end() || c.column < indexColumnCount + 1 || field->second.type != c.type) {
        // The Table would refuse the cell.
        ZELTA_TRACE();
        status = SNMP_ERR_COMMITFAILED;
      } else if (field->second.validator) {
        // The ExtraInfo is the validator's to read only; it is freed here.
        ExtraInfo info(row.indexes, kCellSet, static_cast<int>(c.column));
        if (!field->second.validator(SnmpCodec::of(c.type)->fromSnmp(c.value), &info)) status = SNMP_ERR_COMMITFAILED;
      }
      if (status != SNMP_ERR_NOERROR) netsnmp_set_request_error(reqinfo, c.request, status);
    }
  }
}

ZELTA_COLD void DynMibTable::Impl::commit_set_request(netsnmp_agent_request_info* reqinfo, void* pendingRef) {
  auto& pending = *static_cast<PendingSet*>(pendingRef);
  Table& rows = table();
  auto write = [&](const RowIdx& indexes, const PendingCell& c) {
    return rows.setCellValue(indexes, c.column, SnmpCodec::of(c.type)->fromSnmp(c.value));
  };
  // The row's status after the PDU: destroy once the row is gone.
  auto tellStatus = [&](const PendingRow& p) REQUIRES(libraryMutex()) {
    const int status = rows.getRowStatus(p.indexes);
    Notifier::committedStatus_nolock(owner, *p.statusRequest->requestvb, status != -1 ? status : kDestroy, reqinfo->asp,
                                     p.statusRequest->index);
  };
  for (PendingRow& pendingRow : pending.rows) {
    const RowIdx& indexes = pendingRow.indexes;
    if (!pendingRow.existed) {
      if (pendingRow.status != kCreateAndGo && pendingRow.status != kCreateAndWait) continue;
      // The row is born with this PDU's cell values, without a notice of
      // their own, and not in service until activated: not ready while a
      // column without default has no value.
      rows.addOrUpdateRow(indexes);
      rows.setRowStatus(indexes, false, withoutDefault);
      for (const PendingCell& c : pendingRow.cells) write(indexes, c);
      row_added(indexes);
      if (pendingRow.status == kCreateAndGo) row_activated(indexes);
      for (const PendingCell& c : pendingRow.cells)
        Notifier::committed_nolock(owner, *c.request->requestvb, reqinfo->asp, c.request->index);
      tellStatus(pendingRow);
      continue;
    }
    for (const PendingCell& c : pendingRow.cells) {
      if (rows.getRows().count(indexes) == 0) continue;  // removed by a listener meanwhile
      if (!write(indexes, c)) {
        ZELTA_TRACE();
        netsnmp_set_request_error(reqinfo, c.request, SNMP_ERR_COMMITFAILED);
        continue;
      }
      notify_nolock("set row field value", indexes, kCellSet, static_cast<int>(c.column));
      Notifier::committed_nolock(owner, *c.request->requestvb, reqinfo->asp, c.request->index);
    }
    if (rows.getRows().count(indexes) == 0) continue;
    if (pendingRow.status == kActive) {
      row_activated(indexes);
    } else if (pendingRow.status == kNotInService) {
      row_deactivated(indexes);
    } else if (pendingRow.status == kDestroy) {
      row_delete(indexes);
    }
    if (pendingRow.status != 0) tellStatus(pendingRow);
  }
}

// ---- Construction

ZELTA_COLD DynMibTable::Impl::Impl(DynMibTable& table, Variant* boundValue) : owner(table), value(boundValue) {}

ZELTA_COLD DynMibTable::DynMibTable(SNMPInfo* info, Variant* boundValue)
    : MibEntry(*info), impl(std::make_unique<Impl>(*this, boundValue)) {
  impl->definition = impl->table().getDef();
  Log["libzelta"].append(VERBOSE, "DynMibTable:  oid:   .%s\n", getOid().c_str());
  if (impl->definition == nullptr)
    Log["libzelta"].append(ERROR, "DynMibTable: .%s has no table definition, it cannot be published\n",
                           getOid().c_str());
  impl->initIndexes();
  impl->initRowStatus();
  impl->initFields();
  impl->initValues();
}

ZELTA_COLD DynMibTable::~DynMibTable() {
  if (isRegistered()) {
    LibraryLockGuard lock(libraryMutex());
    impl->unregisterEntry_nolock();
    AgentEngine::forgetEntry_nolock(this);
  }
}

void DynMibTable::Impl::initIndexes() { numIdx = definition != nullptr ? definition->numIdx : -1; }

void DynMibTable::Impl::initRowStatus() { rowStatusColumn = definition != nullptr ? definition->rowStatusColumn : 0; }

ZELTA_COLD void DynMibTable::Impl::initFields() {
  if (definition == nullptr) return;
  Log["libzelta"].append(VERBOSE, "DynMibTable: fields size: %d\n", static_cast<int>(definition->fields.size()));
  if (rowStatusColumn != 0) served.push_back(rowStatusColumn);
  for (const auto& [column, field] : definition->fields) {
    if (makeLeaf(field)) {
      served.push_back(column);
      // Until set, an address keeps a new row from being ready.
      if (!ValueCodec::of(field.type)->hasCellDefault()) withoutDefault.push_back(column);
    } else {
      ZELTA_TRACE();
    }
    Log["libzelta"].append(VERBOSE, "DynMibTable: field: .%s.%u\n", owner.getOid().c_str(), column);
  }
  std::sort(served.begin(), served.end());
  served.erase(std::unique(served.begin(), served.end()), served.end());
}

ZELTA_COLD void DynMibTable::Impl::initValues() {
  // The rows already in the Table are served as they are.
  LogChannel& channel = Log["libzelta"];
  if (channel.level < VERBOSE) return;
  for (const auto& entry : table().getRows())
    channel.append(VERBOSE, "DynMibTable: adding new row with indexes {%s}\n", Common::flatten(entry.first).c_str());
}

bool DynMibTable::Impl::makeLeaf(const FieldType& field) const {
  if (SnmpCodec::of(field.type) != nullptr) return true;
  Log["libzelta"].append(ERROR, "DynMibTable: unhandled type %d\n", static_cast<int>(field.type));
  return false;
}

bool DynMibTable::Impl::servable(const RowIdx& indexes) const {
  if (indexes.empty() || (numIdx != -1 && indexes.size() != static_cast<size_t>(numIdx)) ||
      owner.oidLength() + 1 + indexes.size() > internal::kMaxOidLen)
    return false;
  return std::all_of(indexes.begin(), indexes.end(), [](unsigned long c) { return c <= 0xFFFFFFFFul; });
}

// ---- Host operations

ZELTA_COLD bool DynMibTable::addRow(std::vector<unsigned long> indexes, std::map<unsigned int, Variant> row) {
  const int numIdx = impl->numIdx;
  if (numIdx != -1 && static_cast<size_t>(numIdx) != indexes.size()) {
    Log["libzelta"].append(DEBUG, "DynMibTable: cannot add row, indexes must be %d and %d were provided!\n", numIdx,
                           static_cast<int>(indexes.size()));
    return false;
  }
  if (indexes.empty()) {
    Log["libzelta"].append(DEBUG, "DynMibTable: cannot add row, an index needs at least one component\n");
    return false;
  }
  for (unsigned long component : indexes)
    if (component > 0xFFFFFFFFul) {
      Log["libzelta"].append(DEBUG, "DynMibTable: cannot add row, index component %lu is above 32 bits\n", component);
      return false;
    }
  LibraryLockGuard lock(libraryMutex());
  Table& rows = impl->table();
  rows.addOrUpdateRow(indexes);
  // A cell of a kind the column does not take keeps its value.
  for (const auto& [column, cell] : row) rows.setCellValue(indexes, column, cell);
  // A loaded row is active at once, defaults included, and nobody is told.
  rows.setRowStatus(indexes, true);
  return true;
}

ZELTA_COLD bool DynMibTable::isRowActive(const std::vector<unsigned long>& indexes) {
  if (getRowStatus(indexes) == kActive) return true;
  Log["libzelta"].append(DEBUG, "DynMibTable: row {%s} is not ACTIVE!\n", Common::flatten(indexes).c_str());
  return false;
}

ZELTA_COLD void DynMibTable::removeRow(const std::vector<unsigned long>& indexes) {
  LibraryLockGuard lock(libraryMutex());
  Table& rows = impl->table();
  bool wasActive = false;
  if (rows.getRows().count(indexes) != 0) {
    ZELTA_TRACE();
    wasActive = rows.isRowActive(indexes);
  }
  if (wasActive) impl->notify_nolock("new row deactivated", indexes, 4, -1);
  rows.deleteRow(indexes);
  impl->notify_nolock("removed row", indexes, 2, -1);
}

ZELTA_COLD void DynMibTable::removeRow(const std::string& index) { removeRow(convertToIndexOids(index)); }

ZELTA_COLD Variant* DynMibTable::getCell(const std::vector<unsigned long>& indexes, const unsigned int& column) {
  LibraryLockGuard lock(libraryMutex());
  Table& rows = impl->table();
  if (rows.getRows().count(indexes) != 0) {
    TableRow& row = rows[indexes];
    auto cell = row.find(column);
    if (cell != row.end()) return &cell->second;
  }
  ZELTA_TRACE();
  return nullptr;
}

ZELTA_COLD bool DynMibTable::setCellValue(const std::vector<unsigned long>& indexes, const unsigned int& column,
                                          const long& newValue) {
  LibraryLockGuard lock(libraryMutex());
  const FieldType* field = impl->writableCell_nolock(indexes, column);
  Variant converted;
  return field != nullptr &&
         impl->storeCell_nolock(indexes, column, ValueCodec::of(field->type)->fromNumber(newValue, converted),
                                converted);
}

ZELTA_COLD bool DynMibTable::setCellValue(const std::vector<unsigned long>& indexes, const unsigned int& column,
                                          const std::string& newValue) {
  LibraryLockGuard lock(libraryMutex());
  const FieldType* field = impl->writableCell_nolock(indexes, column);
  Variant converted;
  return field != nullptr &&
         impl->storeCell_nolock(indexes, column, ValueCodec::of(field->type)->fromText(newValue, converted), converted);
}

ZELTA_COLD const FieldType* DynMibTable::Impl::writableCell_nolock(const RowIdx& indexes, unsigned int column) {
  const FieldType* field = nullptr;
  if (definition != nullptr && table().getRows().count(indexes) != 0) {
    auto found = definition->fields.find(column);
    if (found != definition->fields.end() && ValueCodec::of(found->second.type) != nullptr) field = &found->second;
  }
  if (field == nullptr) ZELTA_TRACE();
  return field;
}

ZELTA_COLD bool DynMibTable::Impl::storeCell_nolock(const RowIdx& indexes, unsigned int column, bool converted,
                                                    const Variant& cell) {
  // A value the cell cannot take (a number for a string column, a text that
  // is no address) leaves it as it was.
  if (converted && table().setCellValue(indexes, column, cell)) return true;
  ZELTA_TRACE();
  return false;
}

int DynMibTable::getRowStatus(const std::vector<unsigned long>& indexes) {
  LibraryLockGuard lock(libraryMutex());
  return impl->table().getRowStatus(indexes);
}

int DynMibTable::getRowStatus(const std::string& index) { return getRowStatus(convertToIndexOids(index)); }

ZELTA_COLD std::string DynMibTable::convertToOidx(const std::vector<unsigned long>& indexes) const {
  return internal::oidToText(indexes.data(), indexes.size());
}

ZELTA_COLD std::vector<unsigned long> DynMibTable::convertToIndexOids(const std::string& text) const {
  std::vector<unsigned long> parts;
  if (!internal::parseOid(text, parts)) parts.clear();
  return parts;
}

ZELTA_COLD bool DynMibTable::findCellCoords(const std::string& text, std::vector<unsigned long>& indexes, int& column) {
  std::vector<unsigned long> parts = convertToIndexOids(text);
  LibraryLockGuard lock(libraryMutex());
  const auto& rows = impl->table().getRows();
  for (size_t n = 1; n <= 7 && n < parts.size(); ++n) {
    RowIdx candidate(parts.end() - static_cast<std::ptrdiff_t>(n), parts.end());
    if (rows.count(candidate) != 0) {
      indexes = candidate;
      column = static_cast<int>(parts[parts.size() - 1 - n]);
      return true;
    }
  }
  return false;
}

ZELTA_COLD bool DynMibTable::isNewRowCreationRequest(const std::string& text, std::vector<unsigned long>& indexes) {
  std::vector<unsigned long> parts = convertToIndexOids(text);
  const std::vector<unsigned long> entry = oidParts();
  size_t length = entry.size();
  if (length == 0 || parts.size() <= length || !std::equal(entry.begin(), entry.end(), parts.begin())) return false;
  if (parts[length] != impl->rowStatusColumn) return false;
  indexes.assign(parts.begin() + static_cast<std::ptrdiff_t>(length) + 1, parts.end());
  return true;
}

ZELTA_COLD void DynMibTable::refreshDataOnCreateRow(const std::vector<unsigned long>& indexes) {
  LibraryLockGuard lock(libraryMutex());
  const auto& rows = impl->table().getRows();
  auto it = rows.find(indexes);
  const TableRow* mtRow = it == rows.end() ? nullptr : &it->second;
  ZELTA_ASSERT(mtRow != nullptr, "mtRow != __null");
}

bool DynMibTable::callFiller(const std::vector<unsigned long>& indexes, unsigned int column) {
  ExtraInfo info(indexes, kCellSet, static_cast<int>(column));
  return impl->value->callFiller(&info);
}

void DynMibTable::setAccess(mib_access mode) { storeAccess(mode); }

const TableDef* DynMibTable::getDefinition() const { return impl->definition; }

void DynMibTable::setMaxRows(size_t limit) { impl->maxRowCount.store(limit); }

size_t DynMibTable::getMaxRows() const { return impl->maxRowCount.load(); }

// ---- Row events

ZELTA_COLD void DynMibTable::Impl::notify_nolock(const char* reason, const RowIdx& indexes, int actionCode,
                                                 int column) {
  // Without a listener nobody would free the ExtraInfo.
  if (value->getListener() == nullptr) return;
  value->notifyListener(reason, new ExtraInfo(indexes, actionCode, column));
}

ZELTA_COLD void DynMibTable::Impl::row_added(const RowIdx& indexes) {
  notify_nolock("new row created", indexes, 1, -1);
}

ZELTA_COLD void DynMibTable::Impl::row_activated(const RowIdx& indexes) {
  if (table().isRowActive(indexes)) return;
  table().setRowStatus(indexes, true);
  notify_nolock("new row activated", indexes, 3, -1);
}

ZELTA_COLD void DynMibTable::Impl::row_deactivated(const RowIdx& indexes) {
  if (!table().isRowActive(indexes)) return;
  notify_nolock("new row deactivated", indexes, 4, -1);
  // The listener may have removed the row meanwhile (then this does nothing).
  table().setRowStatus(indexes, false);
}

ZELTA_COLD void DynMibTable::Impl::row_delete(const RowIdx& indexes) {
  Table& rows = table();
  if (rows.getRows().count(indexes) == 0) return;
  if (rows.isRowActive(indexes)) notify_nolock("new row deactivated", indexes, 4, -1);
  rows.deleteRow(indexes);
  notify_nolock("new row deleted", indexes, 2, -1);
}

// ---- Registration

ZELTA_COLD bool DynMibTable::Impl::registerEntry_nolock() {
  if (owner.isRegistered()) return true;
  const std::vector<unsigned long> entry = owner.oidParts();
  if (entry.size() < 2 || entry.back() != 1) {
    Log["libzelta"].append(ERROR, "DynMibTable: .%s is not a table entry OID (it must end in .1)\n",
                           owner.getOid().c_str());
    return false;
  }
  if (definition == nullptr || rowStatusColumn == 0) {
    Log["libzelta"].append(ERROR, "DynMibTable: .%s has no RowStatus column\n", owner.getOid().c_str());
    return false;
  }
  // The table OID: the handler sees everything below it and answers what
  // lies outside the entry's columns as a table does.
  netsnmp_handler_registration* reg = netsnmp_create_handler_registration(
      "zeltaTable", Handler::handle, entry.data(), entry.size() - 1, HANDLER_CAN_RWRITE | HANDLER_CAN_GETBULK);
  if (reg == nullptr) return false;
  reg->handler->myvoid = this;
  // On failure Net-SNMP frees the registration itself.
  if (netsnmp_register_handler(reg) != MIB_REGISTERED_OK) return false;
  registration = reg;
  owner.setRegistered(true);
  return true;
}

ZELTA_COLD void DynMibTable::Impl::unregisterEntry_nolock() {
  if (registration == nullptr) return;
  netsnmp_unregister_handler(registration);
  registration = nullptr;
  owner.setRegistered(false);
}

}  // namespace Quorvel::Kvan::SNMP
