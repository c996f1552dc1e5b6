// DynMibTable: a table parameter served through Net-SNMP's table_tdata
// helper, with RowStatus row creation and deletion.
//
// A SET runs in Net-SNMP's phases: RESERVE1 checks each binding on its own
// (type, length, range, index), RESERVE2 checks the bindings of one row
// together (RowStatus transitions, readiness), ACTION asks the column
// validators, and COMMIT applies the whole PDU. Nothing changes before
// COMMIT, so a refused binding leaves every row as it was.
#include "snmp/snmpinternal.h"

#include <algorithm>
#include <cstring>

#include "base/trace.h"
#include "snmp/agentengine.h"
#include "snmp/notifier.h"
#include "snmp/snmpcodec.h"
#include "zelta/common.h"
#include "zelta/logging.h"
#include "zelta/mibtypes.h"

namespace Quorvel::Kvan::SNMP {

namespace {

// RowStatus values (RFC 2579).
enum RowStatus { kActive = 1, kNotInService = 2, kNotReady = 3, kCreateAndGo = 4, kCreateAndWait = 5, kDestroy = 6 };

const long kCellSet = 5;

struct PendingCell {
  netsnmp_request_info* request;
  MibCell cell;
};

// What one SET PDU asks of one row.
struct PendingRow {
  RowIdx indexes;
  bool existed = false;
  int status = 0;  // requested RowStatus, 0 = none
  netsnmp_request_info* statusRequest = nullptr;
  std::vector<PendingCell> cells;
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
int checkCellValue(const FieldType& field, const netsnmp_variable_list& vb, MibCell& out) {
  const SnmpCodec* codec = SnmpCodec::of(field.type);
  if (codec == nullptr) return SNMP_ERR_NOTWRITABLE;
  const Bounds bounds(field.min, field.max);
  const int status = codec->checkSet(vb, bounds, out);
  if (status != SNMP_ERR_NOERROR) return status;
  if (!codec->inRange(out, bounds)) return SNMP_ERR_WRONGVALUE;
  out.hasValue = true;
  return SNMP_ERR_NOERROR;
}

// The first row `pending` creates beyond `limit` rows, counting from the
// `held` rows less those it destroys; null when there is none.
const PendingRow* creationBeyondLimit(const PendingSet& pending, size_t held, size_t limit) {
  for (const PendingRow& row : pending.rows)
    if (row.existed && row.status == kDestroy && held > 0) --held;
  for (const PendingRow& row : pending.rows)
    if (!row.existed && (row.status == kCreateAndGo || row.status == kCreateAndWait) && ++held > limit) return &row;
  return nullptr;
}

}  // namespace

// ---- The Net-SNMP handler

struct DynMibTable::Handler {
  static int handle(netsnmp_mib_handler* handler, netsnmp_handler_registration* reginfo,
                    netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) {
    return internal::guardHandler([&] { return handleUnguarded(handler, reginfo, reqinfo, requests); }, requests);
  }
  static int handleUnguarded(netsnmp_mib_handler* handler, netsnmp_handler_registration* reginfo,
                             netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) {
    auto* self = static_cast<DynMibTable*>(handler->myvoid);
    std::lock_guard lock(agentLock());
    switch (reqinfo->mode) {
      case MODE_GET:
        self->get_request(reqinfo, requests);
        break;
      case MODE_SET_RESERVE1:
        self->prepare_set_request(reqinfo, requests, pendingSet(reqinfo, reginfo, true));
        break;
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

void DynMibTable::get_request(netsnmp_agent_request_info_s* reqinfo, netsnmp_request_info_s* requests) {
  const bool hidden = get_access() == NOACCESS;
  for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
    if (request->processed) continue;
    if (hidden) {
      // Made NOACCESS at run time: hidden like a table never published.
      netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHOBJECT);
      continue;
    }
    netsnmp_table_request_info* info = netsnmp_extract_table_info(request);
    if (info == nullptr) continue;
    RowIdx indexes(info->index_oid, info->index_oid + info->index_oid_len);
    if (!callFiller(indexes, info->colnum)) {
      internal::setReadError(reqinfo, request, SNMP_ERR_RESOURCEUNAVAILABLE);
      continue;
    }
    // Looked up again: the filler may have changed the table.
    auto it = rows.find(indexes);
    MibCell* cell = it == rows.end() ? nullptr : it->second.cell(info->colnum);
    if (it == rows.end()) {
      netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHINSTANCE);
    } else if (cell == nullptr && info->colnum != rowStatusColumn) {
      // A column that is not served; a walk goes on with the next one.
      netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHOBJECT);
    } else if (cell == nullptr) {
      long status = it->second.rowStatus;
      snmp_set_var_typed_value(request->requestvb, ASN_INTEGER, &status, sizeof status);
    } else {
      SnmpCodec::of(cell->type)->answer(request->requestvb, *cell);
    }
  }
}

void DynMibTable::prepare_set_request(netsnmp_agent_request_info_s* reqinfo, netsnmp_request_info_s* requests,
                                      void* pendingData) {
  auto& pending = *static_cast<PendingSet*>(pendingData);
  for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
    if (request->processed) continue;
    netsnmp_table_request_info* info = netsnmp_extract_table_info(request);
    if (info == nullptr) continue;
    const netsnmp_variable_list& vb = *request->requestvb;
    int status = SNMP_ERR_NOERROR;
    RowIdx indexes(info->index_oid, info->index_oid + info->index_oid_len);
    unsigned int column = info->colnum;
    if (get_access() < READWRITE) {
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
        PendingRow& row = pending.row(indexes, rows.count(indexes) != 0);
        if (row.status != 0) {
          status = SNMP_ERR_INCONSISTENTVALUE;  // two RowStatus bindings for one row
        } else {
          row.status = static_cast<int>(requested);
          row.statusRequest = request;
        }
      }
    } else {
      auto field = columns.find(column);
      if (field == columns.end() || SnmpCodec::of(field->second.type) == nullptr) {
        status = SNMP_ERR_NOTWRITABLE;
      } else {
        MibCell cell;
        cell.column = column;
        cell.type = field->second.type;
        status = checkCellValue(field->second, vb, cell);
        if (status == SNMP_ERR_NOERROR) {
          PendingRow& row = pending.row(indexes, rows.count(indexes) != 0);
          for (const PendingCell& other : row.cells)
            if (other.cell.column == column) status = SNMP_ERR_INCONSISTENTVALUE;  // one cell set twice
          if (status == SNMP_ERR_NOERROR) row.cells.push_back(PendingCell{request, std::move(cell)});
        }
      }
    }
    if (status != SNMP_ERR_NOERROR) netsnmp_set_request_error(reqinfo, request, status);
  }
}

void DynMibTable::check_row_transitions(netsnmp_agent_request_info_s* reqinfo, void* pendingRef) {
  auto& pending = *static_cast<PendingSet*>(pendingRef);
  for (PendingRow& row : pending.rows) {
    netsnmp_request_info* blame = row.statusRequest != nullptr ? row.statusRequest : row.cells.front().request;
    int status = SNMP_ERR_NOERROR;
    // Readiness once this PDU's values are in.
    auto current = rows.find(row.indexes);
    MibRow after = current != rows.end() ? current->second : newRow();
    for (const PendingCell& c : row.cells)
      if (MibCell* cell = after.cell(c.cell.column)) cell->hasValue = true;
    bool ready = after.isReady();
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
  const size_t limit = getMaxRows();
  const PendingRow* beyond = limit != 0 ? creationBeyondLimit(pending, rows.size(), limit) : nullptr;
  if (beyond != nullptr) netsnmp_set_request_error(reqinfo, beyond->statusRequest, SNMP_ERR_RESOURCEUNAVAILABLE);
}

void DynMibTable::validate_set_request(netsnmp_agent_request_info_s* reqinfo, void* pendingRef) {
  auto& pending = *static_cast<PendingSet*>(pendingRef);
  size_t indexColumnCount = definition != nullptr ? definition->indexColumns.size() : 0;
  for (PendingRow& row : pending.rows) {
    auto current = rows.find(row.indexes);
    bool activeNow = current != rows.end() && current->second.rowStatus == kActive;
    for (PendingCell& c : row.cells) {
      int status = SNMP_ERR_NOERROR;
      const unsigned int column = c.cell.column;
      const FieldType* field = nullptr;
      if (definition != nullptr) {
        auto found = definition->fields.find(column);
        if (found != definition->fields.end()) field = &found->second;
      }
      if (table->activeRowsReadOnly == 1 && activeNow) {
        ZELTA_TRACE();
        status = SNMP_ERR_COMMITFAILED;
      } else if (field == nullptr || column < indexColumnCount + 1 || field->type != c.cell.type) {
        // The Table would refuse the cell.
        ZELTA_TRACE();
        status = SNMP_ERR_COMMITFAILED;
      } else if (field->validator) {
        // The ExtraInfo is the validator's to read only; it is freed here.
        ExtraInfo info(row.indexes, kCellSet, static_cast<int>(column));
        if (!field->validator(SnmpCodec::of(c.cell.type)->fromSnmp(c.cell), &info)) status = SNMP_ERR_COMMITFAILED;
      }
      if (status != SNMP_ERR_NOERROR) netsnmp_set_request_error(reqinfo, c.request, status);
    }
  }
}

void DynMibTable::commit_set_request(netsnmp_agent_request_info_s* reqinfo, void* pendingRef) {
  auto& pending = *static_cast<PendingSet*>(pendingRef);
  // The row's status after the PDU: destroy once the row is gone.
  auto tellStatus = [&](const PendingRow& p) {
    auto it = rows.find(p.indexes);
    Notifier::committedStatus_nolock(*this, *p.statusRequest->requestvb,
                                     it != rows.end() ? it->second.rowStatus : kDestroy, reqinfo->asp,
                                     p.statusRequest->index);
  };
  for (PendingRow& pendingRow : pending.rows) {
    const RowIdx& indexes = pendingRow.indexes;
    if (!pendingRow.existed) {
      if (pendingRow.status != kCreateAndGo && pendingRow.status != kCreateAndWait) continue;
      // The row is born with this PDU's cell values: they reach the Table
      // with the creation, without a notice of their own.
      MibRow created = newRow();
      for (const PendingCell& c : pendingRow.cells)
        if (MibCell* cell = created.cell(c.cell.column)) *cell = c.cell;
      created.rowStatus = created.isReady() ? kNotInService : kNotReady;
      auto it = rows.emplace(indexes, std::move(created)).first;
      if (tdata != nullptr) insertTdataRow_nolock(indexes, it->second);
      table->addOrUpdateRow(indexes);
      refreshDataOnCreateRow(indexes);
      row_added(indexes);
      if (pendingRow.status == kCreateAndGo) {
        it = rows.find(indexes);
        if (it != rows.end()) row_activated(indexes, it->second);
      }
      for (const PendingCell& c : pendingRow.cells)
        Notifier::committed_nolock(*this, *c.request->requestvb, reqinfo->asp, c.request->index);
      tellStatus(pendingRow);
      continue;
    }
    for (const PendingCell& c : pendingRow.cells) {
      auto it = rows.find(indexes);
      MibCell* cell = it == rows.end() ? nullptr : it->second.cell(c.cell.column);
      if (cell == nullptr) continue;  // removed by a listener meanwhile
      *cell = c.cell;
      if (it->second.rowStatus == kNotReady && it->second.isReady()) it->second.rowStatus = kNotInService;
      if (!writeTableCell(indexes, c.cell)) {
        ZELTA_TRACE();
        netsnmp_set_request_error(reqinfo, c.request, SNMP_ERR_COMMITFAILED);
        continue;
      }
      notify("set row field value", indexes, kCellSet, static_cast<int>(c.cell.column));
      Notifier::committed_nolock(*this, *c.request->requestvb, reqinfo->asp, c.request->index);
    }
    auto it = rows.find(indexes);
    if (it == rows.end()) continue;
    if (pendingRow.status == kActive) {
      row_activated(indexes, it->second);
    } else if (pendingRow.status == kNotInService) {
      row_deactivated(indexes, it->second);
    } else if (pendingRow.status == kDestroy) {
      row_delete(indexes);
    }
    if (pendingRow.status != 0) tellStatus(pendingRow);
  }
}

// ---- Construction

DynMibTable::DynMibTable(SNMPInfo* info, Variant* boundValue)
    : MibEntry(info->getOid(), info->getAccess()), value(boundValue) {
  table = value->getMutableTable();
  definition = table->getDef();
  Log["libzelta"].append(VERBOSE, "DynMibTable:  oid:   .%s\n", getOid().c_str());
  if (definition == nullptr)
    Log["libzelta"].append(ERROR, "DynMibTable: .%s has no table definition, it cannot be published\n",
                           getOid().c_str());
  initIndexes();
  initRowStatus();
  initFields();
  initValues();
}

DynMibTable::~DynMibTable() {
  if (isRegistered()) {
    std::lock_guard lock(agentLock());
    DynMibTable::unregisterEntry();
    AgentEngine::forgetEntry_nolock(this);
  }
}

void DynMibTable::initIndexes() { numIdx = definition != nullptr ? definition->numIdx : -1; }

void DynMibTable::initRowStatus() { rowStatusColumn = definition != nullptr ? definition->rowStatusColumn : 0; }

void DynMibTable::initFields() {
  if (definition == nullptr) return;
  Log["libzelta"].append(VERBOSE, "DynMibTable: fields size: %d\n", static_cast<int>(definition->fields.size()));
  for (const auto& [column, field] : definition->fields) {
    columns[column] = field;
    MibCell prototype;
    if (makeLeaf(column, field, prototype))
      prototypes.push_back(prototype);
    else
      ZELTA_TRACE();
    Log["libzelta"].append(VERBOSE, "DynMibTable: field: .%s.%u\n", getOid().c_str(), column);
  }
}

void DynMibTable::initValues() {
  RowIdx empty;
  std::vector<std::pair<RowIdx, TableRow>> existing;
  for (const auto& [indexes, row] : table->getRows()) existing.emplace_back(indexes, row);
  for (auto& [indexes, row] : existing) {
    Log["libzelta"].append(VERBOSE, "DynMibTable: adding new row with indexes {%s}\n",
                           Common::flatten(indexes).c_str());
    addRow(indexes, row);
  }
}

bool DynMibTable::makeLeaf(unsigned int column, const FieldType& field, MibCell& out) const {
  out = MibCell();
  out.column = column;
  out.type = field.type;
  const SnmpCodec* codec = SnmpCodec::of(field.type);
  if (codec == nullptr) {
    Log["libzelta"].append(ERROR, "DynMibTable: unhandled type %d\n", static_cast<int>(field.type));
    return false;
  }
  // Until set, an address reads as zeros and keeps its row from being ready.
  codec->toSnmp(codec->defaultValue(), out);
  out.hasValue = codec->hasCellDefault();
  return true;
}

MibRow DynMibTable::newRow() const {
  MibRow row;
  row.cells = prototypes;
  return row;
}

// ---- Host operations

bool DynMibTable::addRow(std::vector<unsigned long> indexes, std::map<unsigned int, Variant> row) {
  return loadRow(indexes, row);
}

bool DynMibTable::loadRow(const RowIdx& indexes, const TableRow& row) {
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
  std::lock_guard lock(agentLock());
  // Files list rows in index order: a row after the last one is appended
  // without a search.
  auto it = !rows.empty() && rows.rbegin()->first < indexes ? rows.end() : rows.find(indexes);
  if (it == rows.end()) it = insertRow_nolock(rows.end(), indexes);
  table->addOrUpdateRow(indexes);
  loadActiveRow_nolock(it->second, row);
  return true;
}

void DynMibTable::reloadFromTable() {
  std::lock_guard lock(agentLock());
  // One merged pass over both sorted row sets: rows the Table no longer has
  // go, the others take the Table's cells.
  auto mine = rows.begin();
  for (const auto& [indexes, row] : table->getRows()) {
    while (mine != rows.end() && mine->first < indexes) eraseRow_nolock(mine++);
    const bool usable = !indexes.empty() && (numIdx == -1 || static_cast<size_t>(numIdx) == indexes.size());
    if (!usable) continue;
    if (mine == rows.end() || indexes < mine->first) mine = insertRow_nolock(mine, indexes);
    loadActiveRow_nolock(mine->second, row);
    ++mine;
  }
  while (mine != rows.end()) eraseRow_nolock(mine++);
}

std::map<RowIdx, MibRow>::iterator DynMibTable::insertRow_nolock(std::map<RowIdx, MibRow>::iterator hint,
                                                                 const RowIdx& indexes) {
  auto it = rows.emplace_hint(hint, indexes, newRow());
  if (tdata != nullptr) insertTdataRow_nolock(indexes, it->second);
  return it;
}

void DynMibTable::loadActiveRow_nolock(MibRow& agentRow, const TableRow& row) {
  for (const auto& [column, cellValue] : row) {
    MibCell* cell = agentRow.cell(column);
    // A cell of a kind the column does not take keeps its value.
    if (cell != nullptr) SnmpCodec::of(cell->type)->toSnmp(cellValue, *cell);
  }
  // A loaded row is active at once, defaults included, and nobody is told.
  for (MibCell& cell : agentRow.cells) cell.hasValue = true;
  agentRow.rowStatus = kActive;
}

bool DynMibTable::isRowActive(const std::vector<unsigned long>& indexes) {
  if (getRowStatus(indexes) == kActive) return true;
  Log["libzelta"].append(DEBUG, "DynMibTable: row {%s} is not ACTIVE!\n", Common::flatten(indexes).c_str());
  return false;
}

void DynMibTable::removeRow(const std::vector<unsigned long>& indexes) {
  std::lock_guard lock(agentLock());
  bool wasActive = false;
  auto it = rows.find(indexes);
  if (it != rows.end()) {
    ZELTA_TRACE();
    wasActive = it->second.rowStatus == kActive;
    eraseRow_nolock(it);
  }
  if (wasActive) notify("new row deactivated", indexes, 4, -1);
  table->deleteRow(indexes);
  notify("removed row", indexes, 2, -1);
}

void DynMibTable::removeRow(const std::string& index) { removeRow(convertToIndexOids(index)); }

MibCell* DynMibTable::getCell(const std::vector<unsigned long>& indexes, const unsigned int& column) {
  std::lock_guard lock(agentLock());
  auto it = rows.find(indexes);
  MibCell* cell = it == rows.end() ? nullptr : it->second.cell(column);
  if (cell == nullptr) ZELTA_TRACE();
  return cell;
}

bool DynMibTable::setCellValue(const std::vector<unsigned long>& indexes, const unsigned int& column,
                               const long& newValue) {
  return storeCell(indexes, column,
                   [&](const ValueCodec& codec, Variant& out) { return codec.fromNumber(newValue, out); });
}

bool DynMibTable::setCellValue(const std::vector<unsigned long>& indexes, const unsigned int& column,
                               const std::string& newValue) {
  return storeCell(indexes, column,
                   [&](const ValueCodec& codec, Variant& out) { return codec.fromText(newValue, out); });
}

bool DynMibTable::storeCell(const RowIdx& indexes, unsigned int column,
                            const std::function<bool(const ValueCodec&, Variant&)>& convert) {
  std::lock_guard lock(agentLock());
  MibCell* cell = getCell(indexes, column);
  if (cell == nullptr) return false;
  const SnmpCodec& codec = *SnmpCodec::of(cell->type);
  Variant converted;
  // A value the cell cannot take (a number for a string column, a text that
  // is no address) leaves it as it was.
  if (!convert(codec, converted) || !codec.toSnmp(converted, *cell)) {
    ZELTA_TRACE();
    return false;
  }
  cell->hasValue = true;
  MibRow& row = rows.find(indexes)->second;
  if (row.rowStatus == kNotReady && row.isReady()) row.rowStatus = kNotInService;
  return true;
}

std::vector<bool> DynMibTable::activeRowFlags(const Table& content) {
  std::lock_guard lock(agentLock());
  std::vector<bool> flags;
  flags.reserve(content.getRows().size());
  auto mine = rows.begin();
  for (const auto& entry : content.getRows()) {
    const RowIdx& index = entry.first;
    while (mine != rows.end() && mine->first < index) ++mine;
    const bool active = mine != rows.end() && mine->first == index && mine->second.rowStatus == kActive;
    if (!active)
      Log["libzelta"].append(DEBUG, "DynMibTable: row {%s} is not ACTIVE!\n", Common::flatten(index).c_str());
    flags.push_back(active);
  }
  return flags;
}

int DynMibTable::getRowStatus(const std::vector<unsigned long>& indexes) {
  std::lock_guard lock(agentLock());
  auto it = rows.find(indexes);
  return it == rows.end() ? -1 : it->second.rowStatus;
}

int DynMibTable::getRowStatus(const std::string& index) { return getRowStatus(convertToIndexOids(index)); }

std::string DynMibTable::convertToOidx(const std::vector<unsigned long>& indexes) const {
  return internal::oidToText(indexes.data(), indexes.size());
}

std::vector<unsigned long> DynMibTable::convertToIndexOids(const std::string& text) const {
  std::vector<unsigned long> parts;
  if (!internal::parseOid(text, parts)) parts.clear();
  return parts;
}

bool DynMibTable::findCellCoords(const std::string& text, std::vector<unsigned long>& indexes, int& column) {
  std::vector<unsigned long> parts = convertToIndexOids(text);
  std::lock_guard lock(agentLock());
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

bool DynMibTable::isNewRowCreationRequest(const std::string& text, std::vector<unsigned long>& indexes) {
  std::vector<unsigned long> parts = convertToIndexOids(text);
  const std::vector<unsigned long>& entry = oidParts();
  size_t length = entry.size();
  if (length == 0 || parts.size() <= length || !std::equal(entry.begin(), entry.end(), parts.begin())) return false;
  if (parts[length] != rowStatusColumn) return false;
  indexes.assign(parts.begin() + static_cast<std::ptrdiff_t>(length) + 1, parts.end());
  return true;
}

void DynMibTable::refreshDataOnCreateRow(const std::vector<unsigned long>& indexes) {
  std::lock_guard lock(agentLock());
  auto it = rows.find(indexes);
  const MibRow* mtRow = it == rows.end() ? nullptr : &it->second;
  ZELTA_ASSERT(mtRow != nullptr, "mtRow != __null");
  for (const MibCell& cell : mtRow->cells)
    if (definition != nullptr && definition->fields.count(cell.column) != 0) writeTableCell(indexes, cell);
}

bool DynMibTable::callFiller(const std::vector<unsigned long>& indexes, unsigned int column) {
  ExtraInfo info(indexes, kCellSet, static_cast<int>(column));
  return value->callFiller(&info);
}

void DynMibTable::setAccess(mib_access mode) { storeAccess(mode); }

// ---- Row events

void DynMibTable::notify(const char* reason, const RowIdx& indexes, int actionCode, int column) {
  // Without a listener nobody would free the ExtraInfo.
  if (value->getListener() == nullptr) return;
  value->notifyListener(reason, new ExtraInfo(indexes, actionCode, column));
}

void DynMibTable::row_added(const RowIdx& indexes) { notify("new row created", indexes, 1, -1); }

void DynMibTable::row_activated(const RowIdx& indexes, MibRow& row) {
  if (row.rowStatus == kActive) return;
  row.rowStatus = kActive;
  notify("new row activated", indexes, 3, -1);
}

void DynMibTable::row_deactivated(const RowIdx& indexes, MibRow& row) {
  if (row.rowStatus != kActive) return;
  notify("new row deactivated", indexes, 4, -1);
  // The listener may have removed the row meanwhile.
  auto it = rows.find(indexes);
  if (it != rows.end()) it->second.rowStatus = kNotInService;
}

void DynMibTable::row_delete(const RowIdx& indexes) {
  auto it = rows.find(indexes);
  if (it == rows.end()) return;
  bool wasActive = it->second.rowStatus == kActive;
  eraseRow_nolock(it);
  if (wasActive) notify("new row deactivated", indexes, 4, -1);
  table->deleteRow(indexes);
  notify("new row deleted", indexes, 2, -1);
}

bool DynMibTable::writeTableCell(const RowIdx& indexes, const MibCell& cell) {
  const SnmpCodec* codec = SnmpCodec::of(cell.type);
  return codec != nullptr && table->setCellValue(indexes, cell.column, codec->fromSnmp(cell));
}

// ---- Registration

bool DynMibTable::insertTdataRow_nolock(const std::vector<unsigned long>& indexes, MibRow& row) {
  netsnmp_tdata_row* twin = netsnmp_tdata_create_row();
  if (twin == nullptr) return false;
  twin->oid_index.oids = static_cast<oid*>(malloc(indexes.size() * sizeof(oid)));
  if (twin->oid_index.oids == nullptr) {
    netsnmp_tdata_delete_row(twin);
    return false;
  }
  memcpy(twin->oid_index.oids, indexes.data(), indexes.size() * sizeof(oid));
  twin->oid_index.len = indexes.size();
  twin->data = &row;
  if (netsnmp_tdata_add_row(tdata, twin) != SNMPERR_SUCCESS) {
    netsnmp_tdata_delete_row(twin);
    return false;
  }
  row.tdataRow = twin;
  return true;
}

void DynMibTable::eraseRow_nolock(std::map<RowIdx, MibRow>::iterator it) {
  if (tdata != nullptr && it->second.tdataRow != nullptr)
    netsnmp_tdata_remove_and_delete_row(tdata, static_cast<netsnmp_tdata_row*>(it->second.tdataRow));
  rows.erase(it);
}

bool DynMibTable::registerEntry() {
  if (isRegistered()) return true;
  const std::vector<unsigned long>& entry = oidParts();
  if (entry.size() < 2 || entry.back() != 1) {
    Log["libzelta"].append(ERROR, "DynMibTable: .%s is not a table entry OID (it must end in .1)\n", getOid().c_str());
    return false;
  }
  if (definition == nullptr || rowStatusColumn == 0) {
    Log["libzelta"].append(ERROR, "DynMibTable: .%s has no RowStatus column\n", getOid().c_str());
    return false;
  }
  std::vector<unsigned int> served{rowStatusColumn};
  for (const MibCell& prototype : prototypes) served.push_back(prototype.column);
  std::sort(served.begin(), served.end());
  served.erase(std::unique(served.begin(), served.end()), served.end());

  tableInfo = SNMP_MALLOC_TYPEDEF(netsnmp_table_registration_info);
  if (tableInfo == nullptr) return false;
  // One implied OID index takes every sub-identifier after the column; the
  // number of components is checked here, per request.
  netsnmp_table_helper_add_indexes(tableInfo, ASN_PRIV_IMPLIED_OBJECT_ID, 0);
  // Columns in between that are not served (index columns, types that are
  // not published) answer noSuchObject, which GETNEXT skips.
  tableInfo->min_column = served.front();
  tableInfo->max_column = served.back();

  tdata = netsnmp_tdata_create_table("zeltaTable", 0);
  netsnmp_handler_registration* reg = netsnmp_create_handler_registration("zeltaTable", Handler::handle, entry.data(),
                                                                          entry.size() - 1, HANDLER_CAN_RWRITE);
  if (tdata == nullptr || tdata->container == nullptr || reg == nullptr) {
    if (reg != nullptr) netsnmp_handler_registration_free(reg);
    freeRegistrationData_nolock();
    return false;
  }
  reg->handler->myvoid = this;
  for (auto& [indexes, row] : rows) insertTdataRow_nolock(indexes, row);
  if (netsnmp_tdata_register(reg, tdata, tableInfo) != MIB_REGISTERED_OK) {
    freeRegistrationData_nolock();
    return false;
  }
  registration = reg;
  return true;
}

void DynMibTable::freeRegistrationData_nolock() {
  if (tdata != nullptr) {
    for (auto& [indexes, row] : rows) {
      if (row.tdataRow != nullptr) netsnmp_tdata_delete_row(static_cast<netsnmp_tdata_row*>(row.tdataRow));
      row.tdataRow = nullptr;
    }
    if (tdata->container != nullptr) CONTAINER_CLEAR(tdata->container, nullptr, nullptr);
    netsnmp_tdata_delete_table(tdata);
    tdata = nullptr;
  }
  if (tableInfo != nullptr) {
    netsnmp_table_registration_info_free(tableInfo);
    tableInfo = nullptr;
  }
}

void DynMibTable::unregisterEntry() {
  if (registration == nullptr) return;
  // Rows first, then the registration (which frees the container), then
  // the table itself.
  for (auto& [indexes, row] : rows) {
    if (row.tdataRow != nullptr) netsnmp_tdata_delete_row(static_cast<netsnmp_tdata_row*>(row.tdataRow));
    row.tdataRow = nullptr;
  }
  CONTAINER_CLEAR(tdata->container, nullptr, nullptr);
  netsnmp_tdata_unregister(registration);
  registration = nullptr;
  tdata->container = nullptr;
  freeRegistrationData_nolock();
}

}  // namespace Quorvel::Kvan::SNMP
