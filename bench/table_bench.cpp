// Row insertion, lookup and next-free-index cost as tables grow, so that the
// logarithmic growth stays on record. Tables are shaped like a typical SNMP
// table: one index column and an integer, a string and an address column.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <vector>

#include "zelta/tabledef.h"

using namespace Quorvel::Kvan;

namespace {

TableDef makeDef() {
  std::map<unsigned int, FieldType> fields{
      {2, {INTEGER, 0, 100}}, {3, {STRING, 0, 32}}, {4, {IPADDRESS, NO_RANGE, NO_RANGE}}};
  return TableDef({1}, 5, fields, 1);
}

void fill(Table& table, int64_t rows) {
  for (int64_t i = 0; i < rows; ++i) table.addRow({static_cast<unsigned long>(i)});
}

// Reported as time per inserted row.
void BM_TableAddRow(benchmark::State& state) {
  TableDef def = makeDef();
  for (auto _ : state) {
    Table table(&def);
    fill(table, state.range(0));
    benchmark::DoNotOptimize(table.getRows().size());
    state.PauseTiming();  // destruction is not insertion
    table = Table(&def);
    state.ResumeTiming();
  }
  state.counters["per_row"] = benchmark::Counter(
      static_cast<double>(state.range(0)), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// One lookup of a random existing row per iteration.
void BM_TableLookup(benchmark::State& state) {
  TableDef def = makeDef();
  Table table(&def);
  fill(table, state.range(0));
  std::vector<RowIdx> keys;
  for (const auto& row : table.getRows()) keys.push_back(row.first);
  std::shuffle(keys.begin(), keys.end(), std::mt19937(42));
  size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(table[keys[next]].size());
    if (++next == keys.size()) next = 0;
  }
}

void BM_TableNextAvailableRowIdx(benchmark::State& state) {
  TableDef def = makeDef();
  Table table(&def);
  fill(table, state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(table.getNextAvailableRowIdx());
}

// Starting in the middle of the rows: every step is one more lookup, so this
// grows with the run of used indexes after the start, not with the table.
void BM_TableNextAvailableRowIdxFrom(benchmark::State& state) {
  TableDef def = makeDef();
  Table table(&def);
  fill(table, state.range(0));
  table.deleteRow({static_cast<unsigned long>(state.range(0) / 2 + 10)});
  const RowIdx start{static_cast<unsigned long>(state.range(0) / 2)};
  for (auto _ : state) benchmark::DoNotOptimize(table.getNextAvailableRowIdx(start));
}

}  // namespace

BENCHMARK(BM_TableAddRow)->RangeMultiplier(10)->Range(1000, 100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TableLookup)->RangeMultiplier(10)->Range(1000, 100000);
BENCHMARK(BM_TableNextAvailableRowIdx)->RangeMultiplier(10)->Range(1000, 100000);
BENCHMARK(BM_TableNextAvailableRowIdxFrom)->RangeMultiplier(10)->Range(1000, 100000);
