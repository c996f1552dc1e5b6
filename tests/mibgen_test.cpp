// MIB modules made from registries, judged by tools we did not write: smilint
// (libsmi) at level 6, and Net-SNMP's snmptranslate, snmpset, snmpwalk and
// snmptable with the module loaded, against an agent serving the registry.
#include "zelta/mibgen.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <random>
#include <regex>

#include "demo_params.h"
#include "snmp_fixture.h"

namespace zelta_test {
namespace {

const std::string kBaseModules = ZELTA_BASE_MIBS_DIR;

// Why the fixture could not fetch the IETF base modules, or "" when they are there.
std::string baseModulesMissing() {
  if (Common::fileExists(kBaseModules + "/SNMPv2-CONF.mib")) return "";
  const std::string why = Common::getFileContents(kBaseModules + "/why-missing.txt");
  return why.empty() ? "the MibGen.FetchBaseModules fixture has not run" : why;
}
#define REQUIRE_BASE_MODULES() \
  if (const std::string why = baseModulesMissing(); !why.empty()) GTEST_SKIP() << "no IETF base MIB modules: " << why

// The lines of a tool's output that are not empty.
Strings lines(const std::string& text) {
  Strings out = Common::split(text, '\n');
  out.erase(std::remove(out.begin(), out.end(), ""), out.end());
  return out;
}

// A module in a directory of its own, and the tools that read it.
struct ModuleFiles {
  explicit ModuleFiles(std::string name) : module(std::move(name)) {}
  std::string file() const { return dir.file(module + ".txt"); }
  // smilint's complaints at level 6: "" for none.
  std::string lint() const {
    return runTool({"env", "SMIPATH=" + kBaseModules + ":" + dir.path(), "smilint", "-l", "6", "-s", file()}).out;
  }
  ToolResult netSnmp(const std::string& tool, const Strings& rest) const {
    Strings args{tool, "-M", kBaseModules + ":" + dir.path(), "-m", module};
    args.insert(args.end(), rest.begin(), rest.end());
    return runTool(args);
  }
  // snmptranslate's tree of the module: fails on anything the parser had to say.
  void expectLoads(const std::string& identity) const {
    ToolResult tree = netSnmp("snmptranslate", {"-Tp", module + "::" + identity});
    EXPECT_EQ(tree.exitCode, 0) << tree.out;
    EXPECT_FALSE(std::regex_search(tree.out, std::regex("Unlinked|Undefined|Cannot|Did not find|Expected|Bad ")))
        << tree.out;
  }
  // A walk of `root` with the module loaded: every object by its name, and of
  // the type the module gives it (else Net-SNMP prints "Wrong Type").
  void expectWalkByName(const std::string& target, const std::string& root) const {
    ToolResult walk = netSnmp("snmpwalk", {"-v2c", "-c", "public", target, root});
    EXPECT_EQ(walk.exitCode, 0) << walk.out;
    EXPECT_FALSE(lines(walk.out).empty());
    for (const std::string& line : lines(walk.out)) {
      EXPECT_EQ(line.rfind(module + "::", 0), 0U) << line;
      EXPECT_EQ(line.find("Wrong Type"), std::string::npos) << line;
    }
  }

  TempDir dir;
  std::string module;
};

// ---- The demo's module

// The demo's module as written is the checked-in file, lints clean and names
// what the demo serves.
TEST(MibGen, DemoModuleIsTheCheckedInFileAndNamesTheServedObjects) {
  TempDir data;
  zelta_demo::DemoParams demo(data.path());
  ModuleFiles files("ZELTA-DEMO-MIB");
  std::string error;
  ASSERT_TRUE(writeMibModule(files.file(), demo.manager, zelta_demo::demoMibOptions(), error)) << error;
  EXPECT_EQ(Common::getFileContents(files.file()),
            Common::getFileContents(std::string(ZELTA_SOURCE_DIR) + "/examples/mibs/ZELTA-DEMO-MIB.txt"))
      << "run: build/examples/zelta_demo --write-mib examples/mibs/ZELTA-DEMO-MIB.txt";
  REQUIRE_BASE_MODULES();
  EXPECT_EQ(files.lint(), "");
  files.expectLoads("zeltaDemo");

  int port = 0;
  auto agent = startServingAgent(&demo.manager, port);
  ASSERT_NE(agent, nullptr);
  const std::string target = "127.0.0.1:" + std::to_string(port);
  // "=" takes each type from the module: a wrong SYNTAX is refused or sent as the wrong type.
  ToolResult set = files.netSnmp("snmpset", {"-v2c", "-c", "vorpal", target, "demoRouteStatus.7", "=", "createAndGo",
                                             "demoRouteDest.7", "=", "10.1.0.0", "demoRouteMetric.7", "=", "3",
                                             "demoRouteDescr.7", "=", "uplink", "demoVolume.0", "=", "42"});
  EXPECT_EQ(set.exitCode, 0) << set.out;
  ToolResult table = files.netSnmp("snmptable", {"-v2c", "-c", "public", "-Ci", target, "demoRouteTable"});
  EXPECT_EQ(table.exitCode, 0) << table.out;
  EXPECT_TRUE(std::regex_search(table.out, std::regex("index demoRouteStatus demoRouteDest demoRouteMetric "
                                                      "demoRouteDescr\n +7 +active +10.1.0.0 +3 +\"uplink\"")))
      << table.out;
  files.expectWalkByName(target, "zeltaDemo");
}

// ---- Randomised registries

// A registry of every type, with ranges and without, one- and two-column
// indexes, read-only and writable tables, objects one to three levels below
// the module, keys that need fixing up, some names given by the host.
class RandomRegistry {
 public:
  explicit RandomRegistry(unsigned seed) : number(seed), rng(seed) {
    options.moduleName = "ZELTA-RANDOM" + std::to_string(seed) + "-MIB";
    options.oid = pick(2) ? "1.3.6.1.4.1.99999." + std::to_string(10 + seed) : "1.3.6.1.3.4242." + std::to_string(seed);
    options.revisionDate = "2026-01-31";
    if (pick(2)) options.namePrefix = "zr";
    for (unsigned arc = 1, count = 6 + pick(6); arc <= count; ++arc) pick(3) == 0 ? addTable(arc) : addScalar(arc);
  }

  std::string identity() const { return "zeltaRandom" + std::to_string(number) + "MIB"; }

  MibModuleOptions options;
  Strings objectOids;  // where the module must have a descriptor: scalars, tables, served columns
  std::vector<std::pair<std::string, RowIdx>> tables;  // table OID and its row
  std::deque<ParamGroup> groups;
  std::deque<SNMPInfo> infos;
  std::deque<std::map<unsigned int, FieldType>> fields;
  std::deque<TableDef> defs;
  std::deque<Param> params;
  ParamManager manager;

 private:
  unsigned pick(unsigned n) { return static_cast<unsigned>(rng() % n); }
  static unsigned long bound(int value) { return static_cast<uint32_t>(value); }
  std::pair<unsigned long, unsigned long> range(ValueType type) {
    if (pick(3) == 0 || (type != INTEGER && type != STRING)) return {NO_RANGE, NO_RANGE};
    const int low = type == INTEGER ? static_cast<int>(pick(200)) - 100 : static_cast<int>(pick(3));
    return {bound(low), bound(low + static_cast<int>(pick(2000)))};
  }
  ValueType type() { return std::vector<ValueType>{INTEGER, STRING, IPADDRESS, TIMETICKS, LOGADDRMAIN}[pick(5)]; }
  std::string parent(unsigned arc) {
    std::string at = options.oid + "." + std::to_string(1 + pick(3));
    if (pick(2)) at += "." + std::to_string(50 + pick(2));
    return at + "." + std::to_string(arc);
  }
  std::string key(unsigned arc) {
    static const Strings kKeys{"value",
                               "route_table",
                               "routeTable",
                               "HTTPPort",
                               "gw.addr",
                               "x",
                               "ALLCAPS",
                               "name-with-dashes",
                               std::string(70, 'k') + "Long",
                               "ip_address",
                               "9lives"};
    std::string key = kKeys[pick(options.namePrefix.empty() ? 10 : 11)];
    if (pick(2) || manager.getParams().count(key) != 0) key += std::to_string(arc);
    if (pick(5) == 0) options.objects[key].name = "given" + std::to_string(arc);
    if (pick(4) == 0) options.objects[key].description = "Set by the host, number " + std::to_string(arc) + ".";
    return key;
  }
  void addScalar(unsigned arc) {
    const std::string oid = parent(arc);
    const ValueType t = type();
    groups.emplace_back("g" + std::to_string(arc), "/nonexistent/g.txt");
    infos.emplace_back(oid + ".0", pick(2) ? READONLY : READWRITE);
    params.emplace_back(groups.back(), t, &infos.back(), NEVER_SAVE, range(t));
    manager.add(key(arc), &params.back());
    objectOids.push_back(oid);
  }
  void addTable(unsigned arc) {
    const std::string oid = parent(arc);
    const unsigned indexes = 1 + pick(2);
    std::vector<unsigned long> indexColumns{1, 2};
    indexColumns.resize(indexes);
    const unsigned status = indexes + 1;
    auto& columns = fields.emplace_back();
    for (unsigned column = status + 1 + pick(2), count = 1 + pick(4); count > 0; --count, column += 1 + pick(2)) {
      const ValueType t = type();
      auto [low, high] = range(t);
      columns.emplace(column, FieldType(t, static_cast<unsigned>(low), static_cast<unsigned>(high)));
    }
    defs.emplace_back(indexColumns, status, columns, static_cast<int>(indexes));
    Table table(&defs.back());
    RowIdx row{1 + pick(9)};
    if (indexes == 2) row.push_back(pick(4000000000U));
    table.addRow(row);
    const mib_access access = std::vector<mib_access>{READONLY, READWRITE, READCREATE}[pick(3)];
    groups.emplace_back("t" + std::to_string(arc), "/nonexistent/t.txt");
    infos.emplace_back(oid + ".1", access);
    params.emplace_back(groups.back(), TABLE, Variant(table), &infos.back(), NEVER_SAVE);
    const std::string k = key(arc);
    manager.add(k, &params.back());
    if (pick(2)) options.objects[k].columnNames[status] = "statusOf" + std::to_string(arc);
    objectOids.push_back(oid);
    objectOids.push_back(oid + ".1." + std::to_string(status));
    for (const auto& column : columns) objectOids.push_back(oid + ".1." + std::to_string(column.first));
    tables.emplace_back(oid, row);
  }

  unsigned number;
  std::mt19937 rng;
};

TEST(MibGen, RandomRegistriesLintCleanAndNameWhatTheAgentServes) {
  REQUIRE_BASE_MODULES();
  for (unsigned seed = 1; seed <= 6; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomRegistry registry(seed);
    ModuleFiles files(registry.options.moduleName);
    std::string error;
    ASSERT_TRUE(writeMibModule(files.file(), registry.manager, registry.options, error)) << error;
    EXPECT_EQ(files.lint(), "");
    files.expectLoads(registry.identity());
    // A descriptor of its own at every object's OID, none a node's name plus arcs.
    Strings translate{"-Os"};
    translate.insert(translate.end(), registry.objectOids.begin(), registry.objectOids.end());
    const std::string translated = files.netSnmp("snmptranslate", translate).out;
    Strings names = lines(translated);
    ASSERT_EQ(names.size(), registry.objectOids.size()) << translated;
    for (size_t i = 0; i < names.size(); ++i)
      EXPECT_TRUE(std::regex_match(names[i], std::regex("[a-z][A-Za-z0-9]{0,63}"))) << registry.objectOids[i];

    int port = 0;
    auto agent = startServingAgent(&registry.manager, port);
    ASSERT_NE(agent, nullptr);
    const std::string target = "127.0.0.1:" + std::to_string(port);
    files.expectWalkByName(target, registry.options.oid);
    for (const auto& [oid, row] : registry.tables) {
      const std::string name = lines(files.netSnmp("snmptranslate", {"-Os", oid}).out).at(0);
      ToolResult table = files.netSnmp("snmptable", {"-v2c", "-c", "public", "-Ci", "-Cf", ",", target, name});
      EXPECT_EQ(table.exitCode, 0) << table.out;
      EXPECT_NE(table.out.find("\n" + Common::flatten(row).substr(1) + ","), std::string::npos) << table.out;
    }
  }
}

// ---- Names and refusals

struct SmallRegistry {
  SmallRegistry() {
    manager.add("volume", &volume);
    manager.add("routes", &routes);
    options.moduleName = "ZELTA-SMALL-MIB";
    options.oid = "1.3.6.1.4.1.99999.7";
    options.revisionDate = "2026-01-31";
  }
  // By default at the next arc of kBase.3.
  void addScalar(const std::string& key, std::string oid = "", Param::Range range = {NO_RANGE, NO_RANGE}) {
    if (oid.empty()) oid = "1.3.6.1.4.1.99999.7.3." + std::to_string(infos.size() + 1) + ".0";
    infos.emplace_back(oid, READWRITE);
    extra.emplace_back(group, INTEGER, &infos.back(), NEVER_SAVE, range);
    manager.add(key, &extra.back());
  }
  void notify(const char* name, const char* oid) { options.notifications.push_back({name, oid, ""}); }
  std::string generate() {
    std::string text, error;
    EXPECT_TRUE(generateMibModule(manager, options, text, error)) << error;
    return text;
  }

  ParamGroup group{"small", "/nonexistent/small.txt"};
  SNMPInfo volumeInfo{"1.3.6.1.4.1.99999.7.1.1.0", READWRITE};
  Param volume{group, INTEGER, &volumeInfo, NEVER_SAVE, {0, 100}};
  // Rows of any index length, with cells that start outside their column's bounds.
  std::map<unsigned int, FieldType> routeFields{{3, FieldType(STRING, 1, 12)}, {4, FieldType(INTEGER, 1, 16)}};
  TableDef routeDef{{1}, 2, routeFields, -1};
  SNMPInfo routesInfo{"1.3.6.1.4.1.99999.7.2.1", READCREATE};
  Param routes{group, TABLE, Variant(Table(&routeDef)), &routesInfo, NEVER_SAVE};
  std::deque<SNMPInfo> infos;
  std::deque<Param> extra;
  ParamManager manager;
  MibModuleOptions options;
};

TEST(MibGen, DescriptorsFromKeysAreLowerCamelCaseUniqueAndAtMost64Long) {
  SmallRegistry small;
  for (const std::string& key : Strings{"route_table", "routeTable", "HTTPPort", "gw.addr", std::string(90, 'a')})
    small.addScalar(key);
  std::string text = small.generate();
  for (const std::string& name :
       Strings{"volume", "routeTable", "routeTable2", "httpPort", "gwAddr", std::string(64, 'a'), "routesTable",
               "routesColumn1", "routesRowStatus", "routesColumn3"})
    EXPECT_NE(text.find("\n" + name + " OBJECT-TYPE\n"), std::string::npos) << name;

  small.options.namePrefix = "zr";
  small.addScalar("9lives");
  text = small.generate();
  for (const char* name : {"zrVolume", "zrRouteTable", "zrHTTPPort", "zr9lives"})
    EXPECT_NE(text.find(std::string("\n") + name + " OBJECT-TYPE\n"), std::string::npos) << name;
}

TEST(MibGen, AnAgentsModuleHasTheEntriesAddedToItToo) {
  SmallRegistry small;
  SNMPInfo info{"1.3.6.1.4.1.99999.7.4.0", READONLY};
  Param unregistered{small.group, TIMETICKS, &info, NEVER_SAVE};
  SNMPAgent agent(&small.manager, 0);
  agent.addEntry("sinceBoot", info.getEntry());
  std::string text, error;
  ASSERT_TRUE(generateMibModule(agent, small.options, text, error)) << error;
  EXPECT_NE(text.find("\nsinceBoot OBJECT-TYPE\n    SYNTAX      TimeTicks\n    MAX-ACCESS  read-only\n"),
            std::string::npos);
  EXPECT_NE(text.find("\nvolume OBJECT-TYPE\n"), std::string::npos);
}

// Rows a manager creates start with cells their SETs would refuse, and rows
// take any number of index components: another compiler (pysmi) and another
// manager's library (pysnmp) read each served instance back to its name and
// OID, each value inside its SYNTAX; Net-SNMP's tools read them by name too.
TEST(MibGen, ManagerMadeRowsAndVariableIndexesReadBackInAnotherManager) {
  REQUIRE_BASE_MODULES();
  if (runTool({"/usr/bin/python3", "-c", "import pysmi, pysnmp"}).exitCode != 0)
    GTEST_SKIP() << "pysmi or pysnmp (python3-pysmi, python3-pysnmp4) is not installed";
  SmallRegistry small;
  ModuleFiles files(small.options.moduleName);
  std::string error;
  ASSERT_TRUE(writeMibModule(files.file(), small.manager, small.options, error)) << error;
  const std::string text = Common::getFileContents(files.file());
  for (const char* said : {"INDEX       { IMPLIED routesColumn1 }", "SYNTAX      OCTET STRING (SIZE (0 | 1..12))",
                           "A SET takes 1..12 bytes only", "SYNTAX      Integer32 (0 | 1..16)", "A SET takes 1..16 only"})
    EXPECT_NE(text.find(said), std::string::npos) << said;
  // smilint's only words: an OBJECT IDENTIFIER index has no size bound.
  for (const std::string& line : lines(files.lint())) EXPECT_NE(line.find("index"), std::string::npos) << line;

  int port = 0;
  auto agent = startServingAgent(&small.manager, port);
  ASSERT_NE(agent, nullptr);
  const std::string target = "127.0.0.1:" + std::to_string(port);
  ToolResult set = files.netSnmp("snmpset", {"-v2c", "-c", "vorpal", target, "routesRowStatus.5.6", "=", "createAndGo",
                                             "routesRowStatus.7", "=", "createAndWait", "routesRowStatus.4294967295.0.1",
                                             "=", "createAndGo", "routesColumn4.4294967295.0.1", "=", "16"});
  EXPECT_EQ(set.exitCode, 0) << set.out;
  files.expectWalkByName(target, "zeltaSmallMIB");

  TempDir python;
  const std::string script = python.write("read.py", R"(import sys
from pysmi.codegen import PySnmpCodeGen
from pysmi.compiler import MibCompiler
from pysmi.parser import SmiV2Parser
from pysmi.reader import FileReader
from pysmi.searcher import PyPackageSearcher, StubSearcher
from pysmi.writer import PyFileWriter
from pysnmp.hlapi import *
from pysnmp.smi import builder, view
mibs, base, out, module, port, root = sys.argv[1:]
compiler = MibCompiler(SmiV2Parser(), PySnmpCodeGen(), PyFileWriter(out))
compiler.addSources(FileReader(mibs), FileReader(base))
compiler.addSearchers(PyPackageSearcher('pysnmp.smi.mibs'), StubSearcher(*PySnmpCodeGen.baseMibs))
status = compiler.compile(module, genTexts=True)
if status.get(module) != 'compiled':
    sys.exit('pysmi: %s' % status)
mibBuilder = builder.MibBuilder()
mibBuilder.addMibSources(builder.DirMibSource(out))
mibBuilder.loadModules(module)
mib = view.MibViewController(mibBuilder)
for error, state, at, binds in bulkCmd(SnmpEngine(), CommunityData('public'),
        UdpTransportTarget(('127.0.0.1', int(port)), timeout=2, retries=0), ContextData(), 0, 8,
        ObjectType(ObjectIdentity(root)), lexicographicMode=False, lookupMib=False):
    if error or state:
        sys.exit('walk failed: %s' % (error or state.prettyPrint()))
    for oid, value in binds:
        name = ObjectIdentity(oid).resolveWithMib(mib)
        owner, label, indices = name.getMibSymbol()
        again = ObjectIdentity(owner, label, *indices).resolveWithMib(mib).getOid()
        if owner != module or again != oid:
            sys.exit('%s reads as %s, which is %s' % (oid, name.prettyPrint(), again))
        name.getMibNode().getSyntax().clone(value)  # raises for a value outside the SYNTAX
        print('%s = %s' % (name.prettyPrint(), value.prettyPrint()))
)");
  const ToolResult read = runTool({"/usr/bin/python3", script, files.dir.path(), kBaseModules, python.path(),
                                   small.options.moduleName, std::to_string(port), small.options.oid});
  EXPECT_EQ(read.exitCode, 0) << read.out;
  for (const char* line : {"::routesColumn3.5.6 = \n", "::routesColumn4.5.6 = 0\n", "::routesRowStatus.7 = 2\n",
                           "::routesColumn4.7 = 0\n", "::routesColumn4.4294967295.0.1 = 16\n", "::volume.0 = 0\n"})
    EXPECT_NE(read.out.find(small.options.moduleName + line), std::string::npos) << line << read.out;
}

TEST(MibGen, WhatNoModuleCanSayIsAnErrorNamingTheObjectAndWritesNothing) {
  using Change = std::function<void(SmallRegistry&)>;
  const std::vector<std::pair<Change, Strings>> cases{
      // a change to the registry, parts of the error
      {[](auto& s) { s.addScalar("stray", "1.3.6.1.4.1.88888.1.0"); },
       {"'stray' at .1.3.6.1.4.1.88888.1", "outside the module's OID .1.3.6.1.4.1.99999.7"}},
      {[](auto& s) { s.options.conformanceArc = 2; }, {"conformance arc 2", "'routes'"}},
      {[](auto& s) { s.addScalar("__"); }, {"'__'"}},
      {[](auto& s) { s.addScalar("9lives"); }, {"'9lives'", "name prefix"}},
      {[](auto& s) { s.options.objects["volume"].name = "Volume_1"; }, {"'volume'", "Volume_1"}},
      {[](auto& s) { s.options.objects["volume"].name = s.options.objects["routes"].columnNames[3] = "level"; },
       {"'routes'", "level", "'volume'"}},
      {[](auto& s) { s.options.objects["routes"].columnNames[9] = "nine"; }, {"'routes'", "column 9"}},
      {[](auto& s) { s.addScalar("empty", "", Param::Range(10, 5)); }, {"'empty'", "range"}},
      {[](auto& s) { s.routeDef.rowStatusColumn = 0; }, {"'routes'", "RowStatus"}},
      {[](auto& s) { s.routeDef.indexColumns = {1, 6}; }, {"'routes'", "any number of index components"}},
      {[](auto& s) { s.options.moduleName = "zelta-mib"; }, {"zelta-mib"}},
      {[](auto& s) { s.notify("moved", "1.3.6.1.4.1.88888.0.1"); }, {"notification moved", "below the module's OID"}},
      {[](auto& s) { s.notify("clash", "1.3.6.1.4.1.99999.7.1.1.0.1"); }, {"notification clash", "meets"}},
      {[](auto& s) { s.options.objects["volume"].description = "a \"b\""; }, {"'volume'", "quote"}},
      {[](auto& s) { s.options.objects["volume"].name = "ipAddress"; }, {"'volume'", "ipAddress", "SMI type"}},
      {[](auto& s) { s.options.revisionDate = "2026-1--01"; }, {"2026-1--01"}},
      {[](auto& s) {
         s.options.identityName = std::string(48, 'z');
         s.notify("late", "1.3.6.1.4.1.99999.7.0.1");
       },
       {"at most 47 characters"}},
      {[](auto& s) {
         s.notify("outer", "1.3.6.1.4.1.99999.7.0.1");
         s.notify("inner", "1.3.6.1.4.1.99999.7.0.1.3");
       },
       {"notification inner", "notification outer"}},
  };
  TempDir dir;
  for (const auto& [change, expected] : cases) {
    SCOPED_TRACE(expected[0]);
    SmallRegistry small;
    change(small);
    std::string text = "untouched", error;
    EXPECT_FALSE(generateMibModule(small.manager, small.options, text, error));
    EXPECT_EQ(text, "untouched");
    for (const std::string& part : expected) EXPECT_NE(error.find(part), std::string::npos) << error;
    EXPECT_FALSE(writeMibModule(dir.file("M.txt"), small.manager, small.options, error));
    EXPECT_FALSE(Common::fileExists(dir.file("M.txt")));
  }
}

}  // namespace
}  // namespace zelta_test
