// Loading and saving group files, each against a baseline taken in the same
// run on the same file: reading it line by line without parsing (load), and
// writing its bytes with fprintf plus fsync (save). The cases are a group of
// 10,000 single values and a table parameter of 10,000 and 100,000 rows, each
// without and with SNMP publication (the MIB objects exist, table rows reach
// the DynMibTable; no agent runs).
//
// Besides the usual output, a console run ends with a summary of the ratios to
// the baselines and of the growth from 10,000 to 100,000 rows. Pass
// --benchmark_repetitions=N to have the summary use medians.
//
// heap/table/N/snmp is the heap a loaded row of the published table takes
// while an agent serves the table (on a free loopback port): four value
// columns, two short strings and two integers, each row as the Table holds
// it, all that is kept while the agent serves it; heap/table/N/plain the
// same unpublished.
//
// Where a load spends its time, in one short run:
//   valgrind --tool=callgrind --toggle-collect='Quorvel::Kvan::ParamManager::loadGroups*'
//     param_bench --benchmark_filter='^load/table/10000/snmp/' --benchmark_min_time=0.001
// (one command line; under the tool a single iteration runs).
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "../tests/loopback.h"
#include "zelta/logging.h"
#include "zelta/mibtypes.h"
#include "zelta/param.h"
#include "zelta/parammanager.h"
#include "zelta/snmpagent.h"
#include "zelta/tabledef.h"

using namespace Quorvel::Kvan;

namespace {

const char kScalarBase[] = "1.3.6.1.4.1.99999.20.1.";
const char kTableEntry[] = "1.3.6.1.4.1.99999.20.2.1";

// ---- The files

enum class Kind { Scalars, Table };

struct Case {
  Kind kind;
  int lines;
  std::string label;  // "scalars/10000"
  std::string path;   // the file the loads read
  std::string text;   // its bytes, as the writer produces them
  std::vector<std::string> fileLines;
};

// Cycles through integer, string, IP address and TimeTicks values.
ValueType scalarType(int i) {
  static const ValueType kTypes[] = {INTEGER, STRING, IPADDRESS, TIMETICKS};
  return kTypes[i % 4];
}

std::string ipFor(int i) {
  return "10." + std::to_string((i >> 16) & 255) + "." + std::to_string((i >> 8) & 255) + "." + std::to_string(i & 255);
}

std::string scalarFileText(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    text += "p" + std::to_string(i) + ".0 = 0:" + std::to_string(static_cast<int>(scalarType(i))) + ":";
    switch (scalarType(i)) {
      case INTEGER:
        text += std::to_string(i % 5000 - 1000);
        break;
      case STRING:
        text += "\"Unit " + std::to_string(i) + " (hall)\"";
        break;
      case IPADDRESS:
        text += ipFor(i);
        break;
      default:
        text += std::to_string(i * 100);
        break;
    }
    text += "\n";
  }
  return text;
}

// Index column 1 and RowStatus 2, so that every value column is stored.
TableDef makeTableDef(std::map<unsigned int, FieldType>& fields) {
  fields = {{3, FieldType(INTEGER, 0, 65535)},
            {4, FieldType(STRING, 0, 32)},
            {5, FieldType(IPADDRESS, NO_RANGE, NO_RANGE)},
            {6, FieldType(TIMETICKS, NO_RANGE, NO_RANGE)}};
  return TableDef({1}, 2, fields, 1);
}

// Rows in index order, as the writer lists them.
std::string tableFileText(int count) {
  std::string text;
  for (int i = 1; i <= count; ++i) {
    text += "routes." + std::to_string(i) + " = 3:2:" + std::to_string(i % 1000) + " 4:4:\"route " + std::to_string(i) +
            "\" 5:64:" + ipFor(i) + " 6:67:" + std::to_string(i * 10) + " \n";
  }
  return text;
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

bool writeFile(const std::string& path, const std::string& text) {
  FILE* file = fopen(path.c_str(), "w");
  if (file == nullptr) return false;
  bool ok = fwrite(text.data(), 1, text.size(), file) == text.size();
  return fclose(file) == 0 && ok;
}

// ---- The parameters

// A group of single values named p0, p1, ... whose file is `path`.
struct ScalarSet {
  ScalarSet(int count, bool snmp, const std::string& path) : group("scalars", path) {
    for (int i = 0; i < count; ++i) {
      SNMP::SNMPInfo* info = nullptr;
      if (snmp) {
        infos.push_back(std::make_unique<SNMP::SNMPInfo>(kScalarBase + std::to_string(i + 1) + ".0", SNMP::READWRITE));
        info = infos.back().get();
      }
      params.push_back(std::make_unique<Param>(group, scalarType(i), info));
      manager.add("p" + std::to_string(i), params.back().get());
    }
  }

  // Members are destroyed bottom-up: the manager and the parameters go before
  // the SNMP objects, which point at the parameters' values only while alive.
  ParamGroup group;
  std::vector<std::unique_ptr<SNMP::SNMPInfo>> infos;
  std::vector<std::unique_ptr<Param>> params;
  ParamManager manager;
};

// One empty table parameter "routes" in its own group.
struct TableSet {
  TableSet(bool snmp, const std::string& path) : def(makeTableDef(fields)), group("routes", path) {
    if (snmp) info = std::make_unique<SNMP::SNMPInfo>(kTableEntry, SNMP::READCREATE);
    param = std::make_unique<Param>(group, TABLE, Variant(Table(&def)), info.get());
    manager.add("routes", param.get());
  }

  size_t rowCount() { return param->getValue().getTable().getRows().size(); }
  bool lastRowPublished(int count) {
    auto* table = param->snmpEntryAs<SNMP::DynMibTable>();
    return table == nullptr || table->isRowActive({static_cast<unsigned long>(count)});
  }

  std::map<unsigned int, FieldType> fields;
  TableDef def;
  std::unique_ptr<SNMP::SNMPInfo> info;
  ParamGroup group;
  std::unique_ptr<Param> param;
  ParamManager manager;
};

std::string tempDir;
std::vector<Case> cases;

void setCounters(benchmark::State& state, const Case& c) {
  state.counters["lines"] = c.lines;
  state.counters["bytes"] = static_cast<double>(c.text.size());
  state.counters["lines_per_s"] = benchmark::Counter(c.lines, benchmark::Counter::kIsIterationInvariantRate);
}

// ---- Load

// What every reader pays at least: the file read line by line, as the reader
// does it, with nothing done to the lines.
void loadBaseline(benchmark::State& state, const Case& c) {
  for (auto _ : state) {
    std::ifstream in(c.path, std::ios::in | std::ios::binary);
    std::string line;
    size_t bytes = 0;
    while (std::getline(in, line)) bytes += line.size();
    benchmark::DoNotOptimize(bytes);
  }
  setCounters(state, c);
}

void loadScalars(benchmark::State& state, const Case& c, bool snmp) {
  ScalarSet set(c.lines, snmp, c.path);
  // Loading over values already loaded costs what a start-up load does, so
  // one set serves every iteration.
  for (auto _ : state) set.manager.loadGroup(set.group);
  if (set.params.back()->toFileText() != c.fileLines.back() + "\n")
    state.SkipWithError("the last value was not loaded");
  setCounters(state, c);
}

// A start-up load fills empty tables, so each iteration gets a fresh
// parameter; building and destroying it is not timed.
void loadTable(benchmark::State& state, const Case& c, bool snmp) {
  for (auto _ : state) {
    state.PauseTiming();
    auto set = std::make_unique<TableSet>(snmp, c.path);
    state.ResumeTiming();
    set->manager.loadGroup(set->group);
    state.PauseTiming();
    const bool complete = set->rowCount() == static_cast<size_t>(c.lines) && set->lastRowPublished(c.lines);
    set.reset();
    state.ResumeTiming();
    if (!complete) {
      state.SkipWithError("rows missing after the load");
      break;
    }
  }
  setCounters(state, c);
}

// ---- Heap

// The heap a loaded row takes, the agent serving the published table.
void heapPerRow(benchmark::State& state, const Case& c, bool snmp) {
  double bytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    TableSet set(snmp, c.path);
    std::unique_ptr<SNMP::SNMPAgent> agent;
    if (snmp) {
      SNMP::SNMPAgent::Options options;
      options.listenAddress = "127.0.0.1";
      options.port = zelta_test::freeUdpPort();
      agent = std::make_unique<SNMP::SNMPAgent>(&set.manager, options);
      agent->start();
      for (int i = 0; i < 10000 && !agent->isRunning() && !agent->hasFinished(); ++i) usleep(1000);
      if (!agent->isRunning()) {
        state.SkipWithError("the agent did not start");
        break;
      }
    }
    const size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
    state.ResumeTiming();
    set.manager.loadGroup(set.group);
    state.PauseTiming();
    bytes = static_cast<double>(mallinfo2().uordblks + mallinfo2().hblkhd - before) / c.lines;
    if (agent) {
      agent->stop();
      agent->waitForFinish();
    }
    state.ResumeTiming();
  }
  state.counters["heap_bytes_per_row"] = bytes;
}

// ---- Save

void saveBaseline(benchmark::State& state, const Case& c) {
  const std::string path = tempDir + "/baseline.txt";
  for (auto _ : state) {
    FILE* file = fopen(path.c_str(), "w");
    if (file == nullptr) {
      state.SkipWithError("cannot write the baseline file");
      break;
    }
    for (const std::string& line : c.fileLines) fprintf(file, "%s\n", line.c_str());
    fflush(file);
    fsync(fileno(file));
    fclose(file);
  }
  setCounters(state, c);
}

// Saves a loaded group to its own file; the first save must give the bytes it
// was loaded from.
template <class Set>
void saveGroup(benchmark::State& state, const Case& c, Set& set) {
  set.manager.loadGroup(set.group);
  const std::string path = tempDir + "/saved.txt";
  set.group.setParams(set.group.getName(), path);
  if (!set.group.save() || readFile(path) != c.text) {
    state.SkipWithError("the saved file differs from the loaded one");
    return;
  }
  for (auto _ : state) set.group.save();
  setCounters(state, c);
}

void saveScalars(benchmark::State& state, const Case& c, bool snmp) {
  ScalarSet set(c.lines, snmp, c.path);
  saveGroup(state, c, set);
}

void saveTable(benchmark::State& state, const Case& c, bool snmp) {
  TableSet set(snmp, c.path);
  saveGroup(state, c, set);
}

// ---- Registration

void registerCase(const Case& c) {
  auto add = [&](const std::string& name, auto fn) {
    benchmark::RegisterBenchmark(name.c_str(), fn)->Unit(benchmark::kMillisecond)->UseRealTime();
  };
  const bool table = c.kind == Kind::Table;
  add("load/" + c.label + "/baseline", [&c](benchmark::State& s) { loadBaseline(s, c); });
  for (bool snmp : {false, true}) {
    const std::string suffix = snmp ? "/snmp" : "/plain";
    if (table)
      add("load/" + c.label + suffix, [&c, snmp](benchmark::State& s) { loadTable(s, c, snmp); });
    else
      add("load/" + c.label + suffix, [&c, snmp](benchmark::State& s) { loadScalars(s, c, snmp); });
  }
  if (table) {
    for (bool snmp : {false, true}) {
      benchmark::RegisterBenchmark(("heap/" + c.label + (snmp ? "/snmp" : "/plain")).c_str(),
                                   [&c, snmp](benchmark::State& s) { heapPerRow(s, c, snmp); })
          ->Iterations(1)
          ->Unit(benchmark::kMillisecond);
    }
  }
  add("save/" + c.label + "/baseline", [&c](benchmark::State& s) { saveBaseline(s, c); });
  for (bool snmp : {false, true}) {
    const std::string suffix = snmp ? "/snmp" : "/plain";
    if (table)
      add("save/" + c.label + suffix, [&c, snmp](benchmark::State& s) { saveTable(s, c, snmp); });
    else
      add("save/" + c.label + suffix, [&c, snmp](benchmark::State& s) { saveScalars(s, c, snmp); });
  }
}

bool makeCases() {
  const std::pair<Kind, int> shapes[] = {{Kind::Scalars, 10000}, {Kind::Table, 10000}, {Kind::Table, 100000}};
  for (const auto& [kind, lines] : shapes) {
    Case c;
    c.kind = kind;
    c.lines = lines;
    c.label = std::string(kind == Kind::Table ? "table/" : "scalars/") + std::to_string(lines);
    c.path = tempDir + "/" + (kind == Kind::Table ? "table" : "scalars") + std::to_string(lines) + ".txt";
    c.text = kind == Kind::Table ? tableFileText(lines) : scalarFileText(lines);
    c.fileLines = splitLines(c.text);
    if (!writeFile(c.path, c.text)) return false;
    cases.push_back(std::move(c));
  }
  return true;
}

// ---- Summary

// Real and CPU seconds per iteration of one benchmark.
struct Timing {
  double real = 0;
  double cpu = 0;
};

// Keeps the timings of each benchmark (the median when repeated) for the
// summary.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  // Colours only on a terminal, as the default reporter does.
  SummaryReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (run.run_type == Run::RT_Aggregate && !median) continue;
      const std::string name = run.run_name.function_name;
      if (!median && medians.count(name) != 0) continue;
      const double unit = benchmark::GetTimeUnitMultiplier(run.time_unit);
      timings[name] = {run.GetAdjustedRealTime() / unit, run.GetAdjustedCPUTime() / unit};
      if (median) medians[name] = true;
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // Zero times when the benchmark did not run.
  Timing get(const std::string& name) const {
    auto it = timings.find(name);
    return it == timings.end() ? Timing() : it->second;
  }

 private:
  std::map<std::string, Timing> timings;
  std::map<std::string, bool> medians;
};

// "a/b" with `decimals` decimals, or "-" when either is missing.
std::string ratio(double a, double b, int decimals) {
  if (a <= 0 || b <= 0) return "-";
  char text[32];
  snprintf(text, sizeof text, "%.*f", decimals, a / b);
  return text;
}

void printSummary(const SummaryReporter& r) {
  printf("\nGroup files: time per load or save of the whole group; x base is the ratio to the baseline\n");
  printf("(save: real time, fsync included, is what the target bounds; CPU time leaves out the waits)\n");
  printf("%-14s %-4s %-8s %9s %10s %9s %8s %8s %12s\n", "case", "op", "variant", "KiB", "real ms", "cpu ms", "x base",
         "x b cpu", "lines/s");
  for (const char* op : {"load", "save"}) {
    for (const Case& c : cases) {
      const std::string key = std::string(op) + "/" + c.label + "/";
      const Timing base = r.get(key + "baseline");
      for (const char* variant : {"baseline", "plain", "snmp"}) {
        const Timing t = r.get(key + variant);
        if (t.real <= 0) continue;
        printf("%-14s %-4s %-8s %9.0f %10.2f %9.2f %8s %8s %12s\n", c.label.c_str(), op, variant,
               static_cast<double>(c.text.size()) / 1024.0, t.real * 1e3, t.cpu * 1e3,
               ratio(t.real, base.real, 2).c_str(), ratio(t.cpu, base.cpu, 2).c_str(),
               ratio(c.lines, t.real, 0).c_str());
      }
    }
  }
  const double bytesGrowth = cases.size() == 3 ? static_cast<double>(cases[2].text.size()) / cases[1].text.size() : 0;
  printf("\nGrowth from table/10000 to table/100000: 10x the lines (%.2fx the bytes); target at most 11\n",
         bytesGrowth);
  printf("%-4s %-8s %8s %8s\n", "op", "variant", "real", "cpu");
  for (const char* op : {"load", "save"}) {
    for (const char* variant : {"baseline", "plain", "snmp"}) {
      const Timing small = r.get(std::string(op) + "/table/10000/" + variant);
      const Timing large = r.get(std::string(op) + "/table/100000/" + variant);
      if (small.real <= 0 && large.real <= 0) continue;
      printf("%-4s %-8s %8s %8s\n", op, variant, ratio(large.real, small.real, 2).c_str(),
             ratio(large.cpu, small.cpu, 2).c_str());
    }
  }
  printf("\nTargets: save at most 3x its baseline (real); load/baseline is recorded, not bounded.\n");
}

bool consoleFormat(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (strncmp(argv[i], "--benchmark_format=", 19) == 0 && strcmp(argv[i] + 19, "console") != 0) return false;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const bool console = consoleFormat(argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  // Only real trouble may reach the terminal while the clock runs.
  Log["libzelta"].level = ERROR;

  char dirTemplate[] = "/tmp/param_bench.XXXXXX";
  if (mkdtemp(dirTemplate) == nullptr) {
    perror("mkdtemp");
    return 1;
  }
  tempDir = dirTemplate;
  cases.reserve(3);  // registered benchmarks keep references to the cases
  if (makeCases()) {
    for (const Case& c : cases) registerCase(c);
    if (console) {
      SummaryReporter reporter;
      benchmark::RunSpecifiedBenchmarks(&reporter);
      printSummary(reporter);
    } else {
      benchmark::RunSpecifiedBenchmarks();
    }
  } else {
    perror("writing the group files");
  }
  benchmark::Shutdown();
  std::error_code ignored;
  std::filesystem::remove_all(tempDir, ignored);
  return cases.size() == 3 ? 0 : 1;
}
