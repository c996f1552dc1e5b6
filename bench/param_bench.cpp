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
// Where a load spends its time, in one short run:
//   valgrind --tool=callgrind --toggle-collect='Quorvel::Kvan::ParamManager::loadFromFile*'
//     param_bench --benchmark_filter='^load/table/10000/snmp/' --benchmark_min_time=0.001
// (one command line; under the tool a single iteration runs).
#include <benchmark/benchmark.h>
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

#include "zelta/logging.h"
#include "zelta/mibtypes.h"
#include "zelta/param.h"
#include "zelta/parammanager.h"
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

// Keeps the seconds per iteration of each benchmark (the median when
// repeated) for the summary.
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
      seconds[name] = run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
      if (median) medians[name] = true;
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // Seconds per iteration, or 0 when the benchmark did not run.
  double get(const std::string& name) const {
    auto it = seconds.find(name);
    return it == seconds.end() ? 0.0 : it->second;
  }

 private:
  std::map<std::string, double> seconds;
  std::map<std::string, bool> medians;
};

std::string fixed(double value, int decimals) {
  char text[32];
  snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

std::string orDash(double value, double ratio, int decimals) { return value > 0 ? fixed(ratio, decimals) : "-"; }

void printSummary(const SummaryReporter& r) {
  printf("\nGroup files, real time per load or save of the whole group (x base: ratio to the baseline)\n");
  printf("%-15s %-4s %8s %9s %10s %10s %7s %10s %7s %14s %14s\n", "case", "op", "lines", "KiB", "base ms", "plain ms",
         "x base", "snmp ms", "x base", "plain lines/s", "snmp lines/s");
  for (const char* op : {"load", "save"}) {
    for (const Case& c : cases) {
      const std::string key = std::string(op) + "/" + c.label;
      const double base = r.get(key + "/baseline");
      const double plain = r.get(key + "/plain");
      const double snmp = r.get(key + "/snmp");
      if (base == 0 && plain == 0 && snmp == 0) continue;
      printf("%-15s %-4s %8d %9.0f %10.2f %10.2f %7s %10.2f %7s %14s %14s\n", c.label.c_str(), op, c.lines,
             static_cast<double>(c.text.size()) / 1024.0, base * 1e3, plain * 1e3,
             orDash(plain * base, plain / base, 2).c_str(), snmp * 1e3, orDash(snmp * base, snmp / base, 2).c_str(),
             orDash(plain, c.lines / plain, 0).c_str(), orDash(snmp, c.lines / snmp, 0).c_str());
    }
  }
  printf("\nGrowth from table/10000 to table/100000 (10x the lines; linear is 10, target at most 11)\n");
  printf("%-4s %10s %10s %10s\n", "op", "baseline", "plain", "snmp");
  for (const char* op : {"load", "save"}) {
    auto growth = [&](const char* variant) {
      const double small = r.get(std::string(op) + "/table/10000/" + variant);
      const double large = r.get(std::string(op) + "/table/100000/" + variant);
      return orDash(small * large, large / small, 2);
    };
    printf("%-4s %10s %10s %10s\n", op, growth("baseline").c_str(), growth("plain").c_str(), growth("snmp").c_str());
  }
  printf("\nTargets: save at most 3x its baseline; load/baseline is recorded, not bounded.\n");
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
