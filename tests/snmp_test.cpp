// The SNMP agent on the wire: scalar leaves, DynMibTable and the engine's life
// cycle, driven with the Net-SNMP command-line tools against 127.0.0.1.
// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#undef NOACCESS  // Net-SNMP's macro would hide our enumerator
// clang-format on

#include <sys/stat.h>

#include <chrono>
#include <clocale>
#include <cstring>
#include <random>

#include "snmp_fixture.h"
#include "zelta/common.h"

#if defined(__SANITIZE_ADDRESS__)
// Sanitizer builds: Net-SNMP leaks some of its own start-up structures at
// every agent start. tests/lsan.supp lists them for running other programs
// with LSAN_OPTIONS; this binary carries the same list, so that a plain
// ctest run of a sanitizer build needs no environment. Full stacks are needed
// because Net-SNMP has no frame pointers and the names must be seen.
extern "C" const char* __asan_default_options();
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }
extern "C" const char* __lsan_default_suppressions() {
  return "leak:netsnmp_certs_agent_init\n"
         "leak:netsnmp_init_mib_internals\n"
         "leak:init_sysORTable\n"
         "leak:initialize_table_snmpNotifyFilterTable\n";
}
#endif

namespace zelta_test {
namespace {

const std::string kBase = ".1.3.6.1.4.1.99999";

// The printed value of `oid` in a tool's output ("INTEGER: 5"), or "".
std::string valueOf(const std::string& out, const std::string& name) {
  std::string key = name + " = ";
  size_t at = out.find(key);
  if (at == std::string::npos) return "";
  size_t end = out.find('\n', at);
  return out.substr(at + key.size(), end == std::string::npos ? std::string::npos : end - at - key.size());
}

const char kTestMib[] = R"(ZELTA-TEST-MIB DEFINITIONS ::= BEGIN
zeltaTest OBJECT IDENTIFIER ::= { iso 3 6 1 4 1 99999 }
zTable OBJECT-TYPE SYNTAX SEQUENCE OF ZEntry MAX-ACCESS not-accessible STATUS current DESCRIPTION "" ::= { zeltaTest 2 }
zEntry OBJECT-TYPE SYNTAX ZEntry MAX-ACCESS not-accessible STATUS current DESCRIPTION "" INDEX { zIndex } ::= { zTable 1 }
ZEntry ::= SEQUENCE { zIndex INTEGER, zStatus INTEGER, zNumber INTEGER, zText OCTET STRING, zAddress IpAddress,
                      zTicks TimeTicks, zLad OCTET STRING }
zIndex OBJECT-TYPE SYNTAX INTEGER MAX-ACCESS not-accessible STATUS current DESCRIPTION "" ::= { zEntry 1 }
zStatus OBJECT-TYPE SYNTAX INTEGER MAX-ACCESS read-create STATUS current DESCRIPTION "" ::= { zEntry 2 }
zNumber OBJECT-TYPE SYNTAX INTEGER MAX-ACCESS read-create STATUS current DESCRIPTION "" ::= { zEntry 3 }
zText OBJECT-TYPE SYNTAX OCTET STRING MAX-ACCESS read-create STATUS current DESCRIPTION "" ::= { zEntry 4 }
zAddress OBJECT-TYPE SYNTAX IpAddress MAX-ACCESS read-create STATUS current DESCRIPTION "" ::= { zEntry 5 }
zTicks OBJECT-TYPE SYNTAX TimeTicks MAX-ACCESS read-create STATUS current DESCRIPTION "" ::= { zEntry 6 }
zLad OBJECT-TYPE SYNTAX OCTET STRING MAX-ACCESS read-create STATUS current DESCRIPTION "" ::= { zEntry 7 }
END
)";

// A parameter stand-in: value, listener and SNMP information.
struct Scalar {
  Scalar(const std::string& suffix, Variant initial) : value(initial), info(kBase + suffix, READWRITE) {
    value.setListener(&listener);
  }
  Variant value;
  RecordingListener listener;
  SNMPInfo info;
};

}  // namespace

// ---- Conversions of SET values

namespace {
// A binding as the agent receives it, over `data`.
netsnmp_variable_list binding(u_char type, void* data, size_t length) {
  netsnmp_variable_list vb{};
  vb.type = type;
  vb.val.string = static_cast<u_char*>(data);
  vb.val_len = length;
  return vb;
}
}  // namespace

TEST(VbxConversion, NumbersHave32BitSemanticsAndAMarker) {
  long number = -5;
  EXPECT_EQ(vbxToLong(binding(ASN_INTEGER, &number, sizeof number)), -5);
  EXPECT_EQ(vbxToLong(binding(ASN_INTEGER, &number, 2)), -559038737);
  EXPECT_EQ(vbxToLong(binding(ASN_OCTET_STR, &number, sizeof number)), -559038737);
  number = 0xFFFFFFFFL;
  EXPECT_EQ(vbxToLong(binding(ASN_TIMETICKS, &number, sizeof number)), -1);
}

TEST(VbxConversion, StringsKeepTheirBytesUpTo1023) {
  std::string bytes("a\0b", 3), big(1024, 'x');
  u_char address[4] = {10, 1, 2, 3};
  long number = 7;
  EXPECT_EQ(vbxToString(binding(ASN_OCTET_STR, bytes.data(), 3)), bytes);
  EXPECT_EQ(vbxToString(binding(ASN_OCTET_STR, bytes.data(), 0)), "");
  EXPECT_EQ(vbxToString(binding(ASN_OCTET_STR, big.data(), 1023)).size(), 1023u);
  EXPECT_EQ(vbxToString(binding(ASN_OCTET_STR, big.data(), 1024)), "ERROR");
  EXPECT_EQ(vbxToString(binding(ASN_IPADDRESS, address, 4)), "10.1.2.3");
  EXPECT_EQ(vbxToString(binding(ASN_INTEGER, &number, sizeof number)), "ERROR");
}

// ---- SNMPInfo

// The default (fork) death-test style: the re-executing one cannot start an
// ARM binary under user-mode emulation.
TEST(SNMPInfoDeathTest, OneEntryAtMostAndOnlyWhenSet) {
  Variant v(1L);
  SNMPInfo info("1.3.6.1.4.1.99999.9.0", READWRITE);
  EXPECT_DEATH(info.entryAs<IntMibLeaf>(), "mibEntry != __null");
  info.setEntry(new MinMaxIntMibLeaf(&info, &v, 0, 9));
  EXPECT_NE(info.entryAs<IntMibLeaf>(), nullptr);
  EXPECT_EQ(info.entryAs<StringMibLeaf>(), nullptr);
  EXPECT_DEATH(info.setEntry(new IntMibLeaf(&info, &v)), "mibEntry == __null");
}

// ---- Engine life cycle

TEST_F(AgentTest, RestartsAndRefusesASecondEngine) {
  Scalar s(".1.1.0", Variant(42L));
  s.info.setEntry(new IntMibLeaf(&s.info, &s.value));
  AgentConfig config;
  config.sysDescr = "zelta test agent";
  ASSERT_TRUE(startAgent({s.info.getEntry()}, config));
  EXPECT_EQ(valueOf(get("2c", {".1.3.6.1.2.1.1.1.0"}).out, ".1.3.6.1.2.1.1.1.0"), "STRING: \"zelta test agent\"");
  AgentEngine second;
  AgentConfig other;
  other.listenAddress = "127.0.0.1";
  other.port = freeUdpPort();
  EXPECT_FALSE(second.initialize(other, {}));
  stopAgent();
  ASSERT_TRUE(startAgent({s.info.getEntry()}));
  EXPECT_EQ(valueOf(get("1", {kBase + ".1.1.0"}).out, kBase + ".1.1.0"), "INTEGER: 42");
}

TEST_F(AgentTest, KeepsTheHostLocale) {
  setenv("LC_ALL", "C.UTF-8", 1);
  setlocale(LC_CTYPE, "C");
  ASSERT_TRUE(startAgent({}));
  EXPECT_STREQ(setlocale(LC_CTYPE, nullptr), "C");
  unsetenv("LC_ALL");
}

TEST_F(AgentTest, CommunitiesAndTheV3User) {
  Scalar s(".1.1.0", Variant(1L));
  s.info.setEntry(new IntMibLeaf(&s.info, &s.value));
  AgentConfig config;
  config.v3User = "zeltauser";
  config.v3AuthPass = "auth-pass-1";
  config.v3PrivPass = "priv-pass-1";
  ASSERT_TRUE(startAgent({s.info.getEntry()}, config));
  std::string name = kBase + ".1.1.0";
  EXPECT_NE(tool("snmpget", "2c", "nobody", {name}).out.find("Timeout"), std::string::npos);
  EXPECT_EQ(errorStatus(tool("snmpset", "2c", "public", {name, "i", "2"}).out), 6);
  EXPECT_EQ(errorStatus(tool("snmpset", "1", "public", {name, "i", "2"}).out), 2);
  ToolResult v3 = runTool({"snmpset", "-v3",         "-u", "zeltauser", "-l", "authPriv",    "-a",  "SHA",
                           "-A",      "auth-pass-1", "-x", "AES",       "-X", "priv-pass-1", "-On", "-t",
                           "1",       "-r",          "0",  target(),    name, "i",           "3"});
  EXPECT_EQ(valueOf(v3.out, name), "INTEGER: 3") << v3.out;
  EXPECT_EQ(s.value.getLong(), 3);
  EXPECT_TRUE(s.listener.changes.size() == 1);
}

// ---- Scalar leaves

class ScalarTest : public AgentTest {
 protected:
  void SetUp() override {
    const unsigned char lad[8] = {'0', '0', '0', '0', '1', '2', '3', '4'};
    logaddr.value = Variant(lad);
    integer.info.setEntry(new IntMibLeaf(&integer.info, &integer.value));
    ranged.info.setEntry(new MinMaxIntMibLeaf(&ranged.info, &ranged.value, 1, 10));
    ticks.info.setEntry(new TimeTicksMibLeaf(&ticks.info, &ticks.value));
    ip.info.setEntry(new IPAddressMibLeaf(&ip.info, &ip.value));
    text.info.setEntry(new StringMibLeaf(&text.info, &text.value));
    bounded.info.setEntry(new MinMaxStringMibLeaf(&bounded.info, &bounded.value, 2, 5));
    logaddr.info.setEntry(new LogaddrmainMibLeaf(&logaddr.info, &logaddr.value));
    for (Scalar* s : all())
      s->listener.validator = [](const Variant& v) { return v.getType() != VariantType::LONG || v.getLong() != 13; };
    ASSERT_TRUE(startAgent(entries()));
  }
  std::vector<Scalar*> all() { return {&integer, &ranged, &ticks, &ip, &text, &bounded, &logaddr}; }
  std::vector<MibEntry*> entries() {
    std::vector<MibEntry*> list;
    for (Scalar* s : all()) list.push_back(s->info.getEntry());
    return list;
  }
  size_t changeCount() {
    size_t n = 0;
    for (Scalar* s : all()) n += s->listener.changes.size();
    return n;
  }

  Scalar integer{".1.1.0", Variant(42L)};
  Scalar ranged{".1.2.0", Variant(5L)};
  Scalar ticks{".1.3.0", Variant(TimeTicksValue{12345})};
  Scalar ip{".1.4.0", Variant("10.1.2.3")};
  Scalar text{".1.5.0", Variant("hello")};
  Scalar bounded{".1.6.0", Variant("abc")};
  Scalar logaddr{".1.7.0", Variant()};
};

TEST_F(ScalarTest, ReadsEveryKindAfterTheFillerInBothVersions) {
  for (const char* version : {"1", "2c"}) {
    ToolResult r =
        get(version, {kBase + ".1.1.0", kBase + ".1.3.0", kBase + ".1.4.0", kBase + ".1.5.0", kBase + ".1.7.0"});
    EXPECT_EQ(valueOf(r.out, kBase + ".1.1.0"), "INTEGER: 42");
    EXPECT_EQ(valueOf(r.out, kBase + ".1.3.0"), "Timeticks: (12345) 0:02:03.45");
    EXPECT_EQ(valueOf(r.out, kBase + ".1.4.0"), "IpAddress: 10.1.2.3");
    EXPECT_EQ(valueOf(r.out, kBase + ".1.5.0"), "STRING: \"hello\"");
    EXPECT_EQ(valueOf(r.out, kBase + ".1.7.0"), "STRING: \"00001234\"");
  }
  EXPECT_EQ(integer.listener.fills.size(), 2u);
  integer.listener.fillResult = false;
  EXPECT_EQ(errorStatus(get("2c", {kBase + ".1.1.0"}).out), 13);
  EXPECT_EQ(errorStatus(get("1", {kBase + ".1.1.0"}).out), 5);
}

TEST_F(ScalarTest, WritesEveryKindOnceAndEchoesIt) {
  ToolResult r =
      set("2c", {kBase + ".1.1.0", "i", "-7",          kBase + ".1.2.0", "i", "10", kBase + ".1.3.0", "t", "99",
                 kBase + ".1.4.0", "a", "192.168.0.9", kBase + ".1.5.0", "s", "",   kBase + ".1.6.0", "s", "xyz12",
                 kBase + ".1.7.0", "s", "ABCDEFGH"});
  EXPECT_EQ(valueOf(r.out, kBase + ".1.1.0"), "INTEGER: -7") << r.out;
  EXPECT_EQ(integer.value.getLong(), -7);
  EXPECT_EQ(ranged.value.getLong(), 10);
  EXPECT_EQ(ticks.value.getTimeTicks().value, 99u);
  EXPECT_EQ(ip.value.getString(), "192.168.0.9");
  EXPECT_EQ(text.value.getString(), "");
  EXPECT_EQ(bounded.value.getString(), "xyz12");
  EXPECT_EQ(Common::logaddrMainToString(logaddr.value.getLogaddrMain()), "ABCDEFGH");
  const char* reasons[] = {"set value on int leaf",           "set value on int leaf",    "set value on timeticks leaf",
                           "set value on ip address leaf",    "set value on string leaf", "set value on string leaf",
                           "set value on logaddr_main_t leaf"};
  for (size_t i = 0; i < all().size(); ++i)
    EXPECT_EQ(all()[i]->listener.changes, (std::vector<Change>{Change{reasons[i], 0, 0, {}}})) << i;
}

TEST_F(ScalarTest, RefusalsCarryTheirStatusAndChangeNothing) {
  struct Case {
    std::string suffix, type, value;
    int v2, v1;
  };
  const std::vector<Case> cases{{".1.1.0", "s", "x", 7, 3},
                                {".1.1.0", "i", "13", 10, 3},  // validator
                                {".1.2.0", "i", "11", 10, 3},
                                {".1.2.0", "i", "13", 10, 3},  // range, then validator
                                {".1.3.0", "i", "5", 7, 3},
                                {".1.4.0", "s", "1.2.3.4", 7, 3},
                                {".1.5.0", "s", std::string(1100, 'a'), 8, 3},  // over-long
                                {".1.6.0", "s", "a", 8, 3},
                                {".1.6.0", "s", "abcdef", 8, 3},
                                {".1.7.0", "s", "1234567", 8, 3},
                                {".1.7.0", "s", "123456789", 8, 3},
                                {".1.7.0", "s", "", 8, 3},
                                {".1.7.0", "i", "8", 7, 3}};
  for (const Case& c : cases) {
    EXPECT_EQ(errorStatus(set("2c", {kBase + c.suffix, c.type, c.value}).out), c.v2) << c.suffix << " " << c.value;
    EXPECT_EQ(errorStatus(set("1", {kBase + c.suffix, c.type, c.value}).out), c.v1) << c.suffix << " " << c.value;
  }
  // The range is tested after the validator, the length before it.
  EXPECT_EQ(ranged.listener.validations, 4);
  EXPECT_EQ(bounded.listener.validations, 0);
  EXPECT_EQ(changeCount(), 0u);
  EXPECT_EQ(integer.value.getLong(), 42);
  EXPECT_EQ(Common::logaddrMainToString(logaddr.value.getLogaddrMain()), "00001234");
}

TEST_F(ScalarTest, AFailingBindingLeavesTheWholePduUnchanged) {
  EXPECT_EQ(errorStatus(set("2c", {kBase + ".1.1.0", "i", "9", kBase + ".1.7.0", "s", "123"}).out), 8);
  EXPECT_EQ(integer.value.getLong(), 42);
  EXPECT_EQ(changeCount(), 0u);
}

TEST_F(ScalarTest, AccessChangedAtRunTime) {
  integer.info.entryAs<IntMibLeaf>()->setAccess(READONLY);
  EXPECT_EQ(errorStatus(set("2c", {kBase + ".1.1.0", "i", "9"}).out), 17);
  EXPECT_EQ(errorStatus(set("1", {kBase + ".1.1.0", "i", "9"}).out), 2);
  EXPECT_EQ(valueOf(get("2c", {kBase + ".1.1.0"}).out, kBase + ".1.1.0"), "INTEGER: 42");
  integer.info.entryAs<IntMibLeaf>()->setAccess(READWRITE);
  EXPECT_EQ(errorStatus(set("2c", {kBase + ".1.1.0", "i", "9"}).out), 0);
  EXPECT_EQ(integer.value.getLong(), 9);
}

// ---- DynMibTable

class TableTest : public AgentTest {
 protected:
  TableTest() {
    std::map<unsigned int, FieldType> fields{
        {3, FieldType(
                INTEGER, [](const Variant& v, const ExtraInfo*) { return v.getLong() != 13; }, 0, 100)},
        {4, FieldType(STRING, 0, 16)},
        {5, FieldType(IPADDRESS, NO_RANGE, NO_RANGE)},
        {6, FieldType(TIMETICKS, NO_RANGE, NO_RANGE)},
        {7, FieldType(LOGADDRMAIN, NO_RANGE, NO_RANGE)}};
    def = TableDef({1}, 2, fields, 1);
    value = Variant(Table(&def));
    value.setListener(&listener);
    Table& t = *value.getMutableTable();
    t.addRow({1});
    t.setCellValue({1}, 3, 7L);
    t.setCellValue({1}, 4, std::string("one"));
    t.setCellValue({1}, 5, std::string("10.0.0.1"));
    info.setEntry(new DynMibTable(&info, &value));
  }
  void SetUp() override { ASSERT_TRUE(startAgent({info.getEntry()})); }

  static std::string cell(unsigned column, const std::string& index) {
    return kBase + ".2.1." + std::to_string(column) + "." + index;
  }
  Table& table() { return *value.getMutableTable(); }
  DynMibTable& mib() { return *info.entryAs<DynMibTable>(); }

  TableDef def;
  Variant value;
  RecordingListener listener;
  SNMPInfo info{kBase + ".2.1", READCREATE};
};

TEST_F(TableTest, ReadsCellsAfterTheFiller) {
  ToolResult r = get("2c", {cell(3, "1"), cell(4, "1"), cell(5, "1"), cell(2, "1"), cell(3, "9")});
  EXPECT_EQ(valueOf(r.out, cell(3, "1")), "INTEGER: 7");
  EXPECT_EQ(valueOf(r.out, cell(4, "1")), "STRING: \"one\"");
  EXPECT_EQ(valueOf(r.out, cell(5, "1")), "IpAddress: 10.0.0.1");
  EXPECT_EQ(valueOf(r.out, cell(2, "1")), "INTEGER: 1");
  EXPECT_EQ(valueOf(r.out, cell(3, "9")).rfind("No Such Instance", 0), 0u) << r.out;
  EXPECT_EQ(errorStatus(get("1", {cell(3, "9")}).out), 2);
  ASSERT_FALSE(listener.fills.empty());
  EXPECT_EQ(listener.fills.front(), (Change{"fill", 5, 3, {1}}));
  listener.fillResult = false;
  EXPECT_EQ(errorStatus(get("2c", {cell(3, "1")}).out), 13);
  EXPECT_EQ(errorStatus(get("1", {cell(3, "1")}).out), 5);
  // A filler that throws fails the request, not the agent.
  listener.fillThrows = true;
  EXPECT_EQ(errorStatus(get("2c", {cell(3, "1")}).out), 5);
  listener.fillThrows = false;
  listener.fillResult = true;
  EXPECT_EQ(valueOf(get("2c", {cell(3, "1")}).out, cell(3, "1")), "INTEGER: 7");
}

TEST_F(TableTest, WritesCellsIntoTheTableAndNotifies) {
  ToolResult r = set("2c", {cell(3, "1"), "i", "50", cell(4, "1"), "s", "fifty"});
  EXPECT_EQ(valueOf(r.out, cell(3, "1")), "INTEGER: 50") << r.out;
  EXPECT_EQ(table()[{1}][3].getLong(), 50);
  EXPECT_EQ(table()[{1}][4].getString(), "fifty");
  EXPECT_EQ(listener.changes,
            (std::vector<Change>{{"set row field value", 5, 3, {1}}, {"set row field value", 5, 4, {1}}}));
  EXPECT_EQ(valueOf(get("2c", {cell(3, "1")}).out, cell(3, "1")), "INTEGER: 50");
}

TEST_F(TableTest, RefusalsCarryTheirStatusAndChangeNothing) {
  struct Case {
    std::string name, type, value;
    int v2, v1;
  };
  const std::vector<Case> cases{{cell(3, "1"), "i", "13", 14, 5},  // validator, at commit
                                {cell(3, "1"), "i", "101", 10, 3},
                                {cell(4, "1"), "s", std::string(17, 's'), 8, 3},
                                {cell(4, "1"), "s", std::string(1100, 's'), 8, 3},
                                {cell(7, "1"), "s", "short", 8, 3},
                                {cell(2, "1"), "s", "1", 7, 3},
                                {cell(3, "1"), "s", "1", 7, 3},
                                {cell(4, "1"), "i", "1", 7, 3},
                                {cell(5, "1"), "s", "1", 7, 3},
                                {cell(6, "1"), "i", "1", 7, 3},
                                {cell(7, "1"), "x", "01", 8, 3},
                                {cell(7, "1"), "i", "1", 7, 3},
                                {cell(1, "1"), "i", "1", 17, 2},  // index columns are not accessible
                                {cell(2, "1"), "i", "0", 10, 3},
                                {cell(2, "1"), "i", "3", 10, 3},
                                {cell(2, "1"), "i", "7", 10, 3},
                                {cell(2, "1"), "i", "-1", 10, 3},
                                {cell(3, "1.1"), "i", "1", 11, 2},         // index longer than the table's
                                {cell(3, "4294967295"), "i", "1", 11, 2},  // a row nobody creates
                                {cell(2, "1"), "i", "4", 12, 3},           // createAndGo on an existing row
                                {cell(2, "5"), "i", "1", 12, 3}};          // active on a missing row
  for (const Case& c : cases) {
    EXPECT_EQ(errorStatus(set("2c", {c.name, c.type, c.value}).out), c.v2) << c.name << " " << c.value;
    EXPECT_EQ(errorStatus(set("1", {c.name, c.type, c.value}).out), c.v1) << c.name << " " << c.value;
  }
  table().activeRowsReadOnly = 1;
  EXPECT_EQ(errorStatus(set("2c", {cell(3, "1"), "i", "9"}).out), 14);
  table().activeRowsReadOnly = 0;
  // Several bindings for one new row that do not fit together.
  EXPECT_EQ(errorStatus(set("2c", {cell(2, "6"), "i", "5", cell(2, "6"), "i", "5"}).out), 12);
  EXPECT_EQ(errorStatus(set("2c", {cell(2, "6"), "i", "5", cell(3, "6"), "i", "1", cell(3, "6"), "i", "2"}).out), 12);
  EXPECT_EQ(table()[{1}][3].getLong(), 7);
  EXPECT_EQ(table().getRows().size(), 1u);
  EXPECT_TRUE(listener.changes.empty());
}

TEST_F(TableTest, RowStatusLifeCycle) {
  // createAndGo with the cells that make the row ready, in one PDU.
  EXPECT_EQ(errorStatus(
                set("2c", {cell(2, "2"), "i", "4", cell(5, "2"), "a", "10.9.9.9", cell(7, "2"), "s", "00000042"}).out),
            0);
  EXPECT_EQ(listener.changes,
            (std::vector<Change>{{"new row created", 1, -1, {2}}, {"new row activated", 3, -1, {2}}}));
  EXPECT_EQ(table()[{2}][5].getString(), "10.9.9.9");
  EXPECT_EQ(table()[{2}][3].getLong(), 0);
  EXPECT_TRUE(mib().isRowActive({2}));
  // createAndGo of a row that cannot be ready: no row.
  EXPECT_EQ(errorStatus(set("2c", {cell(2, "3"), "i", "4"}).out), 12);
  EXPECT_EQ(errorStatus(set("1", {cell(2, "3"), "i", "4"}).out), 3);
  EXPECT_EQ(table().getRows().count({3}), 0u);
  listener.changes.clear();

  // createAndWait, fill in, activate, deactivate, destroy.
  EXPECT_EQ(errorStatus(set("2c", {cell(2, "4"), "i", "5"}).out), 0);
  EXPECT_EQ(valueOf(get("2c", {cell(2, "4")}).out, cell(2, "4")), "INTEGER: 3");
  EXPECT_EQ(errorStatus(set("2c", {cell(2, "4"), "i", "1"}).out), 12);  // not ready
  EXPECT_EQ(errorStatus(set("2c", {cell(5, "4"), "a", "1.2.3.4", cell(7, "4"), "s", "ABCDEFGH"}).out), 0);
  EXPECT_EQ(valueOf(get("2c", {cell(2, "4")}).out, cell(2, "4")), "INTEGER: 2");
  for (const char* status : {"1", "1", "2", "2", "6"})
    EXPECT_EQ(errorStatus(set("2c", {cell(2, "4"), "i", status}).out), 0) << status;
  EXPECT_EQ(listener.changes, (std::vector<Change>{{"new row created", 1, -1, {4}},
                                                   {"set row field value", 5, 5, {4}},
                                                   {"set row field value", 5, 7, {4}},
                                                   {"new row activated", 3, -1, {4}},
                                                   {"new row deactivated", 4, -1, {4}},
                                                   {"new row deleted", 2, -1, {4}}}));
  EXPECT_EQ(table().getRows().count({4}), 0u);
  listener.changes.clear();

  // Destroying an active row deactivates it first.
  EXPECT_EQ(errorStatus(set("1", {cell(2, "2"), "i", "6"}).out), 0);
  EXPECT_EQ(listener.changes,
            (std::vector<Change>{{"new row deactivated", 4, -1, {2}}, {"new row deleted", 2, -1, {2}}}));
  EXPECT_EQ(mib().getRowStatus(std::vector<unsigned long>{2}), -1);
}

TEST_F(TableTest, SurvivesRestartsAndDuplicateRegistrations) {
  // A second object on an OID already served is refused; the first keeps
  // serving.
  Variant first(1L), second(2L);
  SNMPInfo leaf(kBase + ".1.9.0", READWRITE), sameLeaf(kBase + ".1.9.0", READWRITE);
  leaf.setEntry(new IntMibLeaf(&leaf, &first));
  sameLeaf.setEntry(new IntMibLeaf(&sameLeaf, &second));
  SNMPInfo sameTable(kBase + ".2.1", READCREATE);
  Variant otherTable{Table(&def)};
  sameTable.setEntry(new DynMibTable(&sameTable, &otherTable));
  stopAgent();
  ASSERT_TRUE(startAgent({info.getEntry(), leaf.getEntry(), sameLeaf.getEntry(), sameTable.getEntry()}));
  EXPECT_EQ(engine.registeredEntries(), (std::vector<MibEntry*>{info.getEntry(), leaf.getEntry()}));
  ToolResult r = get("2c", {cell(3, "1"), kBase + ".1.9.0"});
  EXPECT_EQ(valueOf(r.out, cell(3, "1")), "INTEGER: 7");
  EXPECT_EQ(valueOf(r.out, kBase + ".1.9.0"), "INTEGER: 1");
  stopAgent();
  ASSERT_TRUE(startAgent({info.getEntry()}));
  EXPECT_EQ(valueOf(get("2c", {cell(3, "1")}).out, cell(3, "1")), "INTEGER: 7");
  mib().setAccess(READONLY);
  EXPECT_EQ(errorStatus(set("2c", {cell(3, "1"), "i", "9"}).out), 17);
  EXPECT_EQ(errorStatus(set("2c", {cell(2, "9"), "i", "5"}).out), 17);
}

TEST_F(TableTest, LoadedRowsAreActiveWithoutNotice) {
  EXPECT_TRUE(mib().isRowActive({1}));
  EXPECT_FALSE(mib().addRow({1, 2}, {}));
  EXPECT_TRUE(mib().addRow({8}, {{3, Variant(33L)}, {5, Variant("10.0.0.8")}}));
  EXPECT_EQ(valueOf(get("2c", {cell(3, "8")}).out, cell(3, "8")), "INTEGER: 33");
  EXPECT_EQ(errorStatus(set("2c", {cell(2, "8"), "i", "1"}).out), 0);
  EXPECT_TRUE(listener.changes.empty());
  mib().removeRow(std::vector<unsigned long>{8});
  EXPECT_EQ(listener.changes, (std::vector<Change>{{"new row deactivated", 4, -1, {8}}, {"removed row", 2, -1, {8}}}));
  EXPECT_EQ(table().getRows().count({8}), 0u);
}

TEST_F(TableTest, WalksAThousandRowsAddedWhileServing) {
  std::thread loader([this] {
    for (unsigned long i = 100; i < 1100; ++i) mib().addRow({i}, {{3, Variant(static_cast<long>(i % 100))}});
  });
  loader.join();
  const size_t expected = 1001 * 6;  // RowStatus and five value columns
  for (const char* walker : {"snmpwalk", "snmpbulkwalk"}) {
    ToolResult r = tool(walker, "2c", "public", {kBase + ".2"});
    size_t lines = 0;
    for (size_t at = r.out.find(kBase + ".2.1."); at != std::string::npos; at = r.out.find(kBase + ".2.1.", at + 1))
      ++lines;
    EXPECT_EQ(lines, expected) << walker;
    EXPECT_EQ(valueOf(r.out, cell(3, "1099")), "INTEGER: 99");
  }
  // snmptable learns the columns from a MIB: a minimal one for this table.
  std::string mibDir = toolStateDir() + "/mibs";
  mkdir(mibDir.c_str(), 0700);
  FILE* mib = fopen((mibDir + "/ZELTA-TEST-MIB.txt").c_str(), "w");
  ASSERT_NE(mib, nullptr);
  fputs(kTestMib, mib);
  fclose(mib);
  ToolResult r = runTool({"snmptable", "-v", "2c", "-c", "public", "-M", mibDir, "-m", "ZELTA-TEST-MIB", "-Ci", "-Cf",
                          ",", "-t", "1", "-r", "0", target(), "ZELTA-TEST-MIB::zTable"});
  EXPECT_NE(r.out.find("\n1099,1,99,\"\",0.0.0.0,"), std::string::npos) << r.out.substr(0, 400);
}

class TwoIndexTableTest : public TableTest {
 protected:
  TwoIndexTableTest() {
    // Column 4 is left out: a walk must step over it.
    std::map<unsigned int, FieldType> fields{{5, FieldType(INTEGER, NO_RANGE, NO_RANGE)}};
    def2 = TableDef({1, 2}, 3, fields, 2);
    value2 = Variant(Table(&def2));
    value2.setListener(&listener);
    info2.setEntry(new DynMibTable(&info2, &value2));
  }
  void SetUp() override { ASSERT_TRUE(startAgent({info.getEntry(), info2.getEntry()})); }
  static std::string cell2(unsigned column, const std::string& index) {
    return kBase + ".3.1." + std::to_string(column) + "." + index;
  }
  TableDef def2;
  Variant value2;
  SNMPInfo info2{kBase + ".3.1", READCREATE};
};

TEST_F(TwoIndexTableTest, RowsHaveTwoComponentIndexes) {
  EXPECT_EQ(errorStatus(set("2c", {cell2(3, "3.4"), "i", "4", cell2(5, "3.4"), "i", "-2"}).out), 0);
  EXPECT_EQ((value2.getTable()[{3, 4}].at(5).getLong()), -2);
  ToolResult walk = tool("snmpbulkwalk", "2c", "public", {kBase + ".3"});
  EXPECT_EQ(valueOf(walk.out, cell2(5, "3.4")), "INTEGER: -2");
  EXPECT_EQ(valueOf(walk.out, cell2(3, "3.4")), "INTEGER: 1");
  EXPECT_EQ(walk.out.find(cell2(4, "")), std::string::npos);
  EXPECT_EQ(valueOf(get("2c", {cell2(4, "3.4")}).out, cell2(4, "3.4")).rfind("No Such Object", 0), 0u);
  // The RowStatus column of this table with the other table's row index.
  EXPECT_EQ(errorStatus(set("2c", {cell2(3, "1"), "i", "1"}).out), 11);
  EXPECT_EQ(errorStatus(set("2c", {cell2(3, "1.1"), "i", "1"}).out), 12);
  EXPECT_EQ(errorStatus(set("2c", {cell2(3, "1.2.3"), "i", "4"}).out), 11);
  EXPECT_EQ(listener.changes.size(), 2u);
}

// ---- Hostile input

namespace {

// Just enough BER to build requests the tools refuse to encode.
std::string berLength(size_t n) {
  if (n < 128) return std::string(1, static_cast<char>(n));
  std::string bytes;
  for (; n != 0; n >>= 8) bytes.insert(bytes.begin(), static_cast<char>(n & 0xff));
  return static_cast<char>(0x80 | bytes.size()) + bytes;
}
std::string tlv(int tag, const std::string& content) {
  return static_cast<char>(tag) + berLength(content.size()) + content;
}
std::string berInt(int64_t v) {
  std::string bytes;
  do {
    bytes.insert(bytes.begin(), static_cast<char>(v & 0xff));
    v >>= 8;
  } while (v != 0 && v != -1);
  if ((v == 0) != ((bytes[0] & 0x80) == 0)) bytes.insert(bytes.begin(), static_cast<char>(v == 0 ? 0 : 0xff));
  return tlv(0x02, bytes);
}
std::string berOid(const std::vector<uint64_t>& ids) {
  std::string out(1, static_cast<char>(ids[0] * 40 + ids[1]));
  for (size_t i = 2; i < ids.size(); ++i) {
    std::string sub(1, static_cast<char>(ids[i] & 0x7f));
    for (uint64_t v = ids[i] >> 7; v != 0; v >>= 7) sub.insert(sub.begin(), static_cast<char>(0x80 | (v & 0x7f)));
    out += sub;
  }
  return tlv(0x06, out);
}

}  // namespace

TEST_F(TwoIndexTableTest, SurvivesRandomisedRequests) {
  std::mt19937_64 random(20261122);
  auto pick = [&](std::initializer_list<uint64_t> choices) { return choices.begin()[random() % choices.size()]; };
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (int i = 0; i < 600 && std::chrono::steady_clock::now() < deadline; ++i) {
    std::string bindings;
    for (uint64_t n = 1 + random() % 4; n > 0; --n) {
      std::vector<uint64_t> name{1, 3, 6, 1, 4, 1, 99999, pick({1, 2, 3}), pick({1, 1, 2, 0}), random() % 10};
      for (uint64_t k = random() % 5; k > 0; --k) name.push_back(pick({0, 1, 2, 7, 4294967295ull, 1ull << 40}));
      std::string payload;
      switch (random() % 7) {
        case 0:
          payload = berInt(static_cast<int64_t>(pick({0, 1, 3, 4, 5, 6, 7, 13, 101})) - 1);
          break;
        case 1:
          payload = tlv(0x04, std::string(pick({0, 7, 8, 9, 17, 1100, 1500}), 'z'));
          break;
        case 2:
          payload = tlv(0x40, std::string(pick({0, 3, 4, 5}), '\x01'));
          break;
        case 3:
          payload = tlv(0x43, "\x01\x02");
          break;
        case 4:
          payload = tlv(0x05, "");
          break;
        case 5:
          payload = berOid({1, 3, 6, 1});
          break;
        default:
          payload = tlv(static_cast<int>(random() % 256), std::string(random() % 12, '\x7f'));
          break;
      }
      bindings += tlv(0x30, berOid(name) + payload);
    }
    std::string pdu = berInt(static_cast<int64_t>(random() % 100000)) + berInt(0) + berInt(pick({0, 0, 5}));
    std::string packet = tlv(
        0x30, berInt(static_cast<int64_t>(pick({0, 1, 1}))) + tlv(0x04, pick({0, 0, 1}) != 0 ? "public" : "vorpal") +
                  tlv(static_cast<int>(pick({0xA0, 0xA1, 0xA3, 0xA3, 0xA5})), pdu + tlv(0x30, bindings)));
    if (random() % 4 == 0) packet[random() % packet.size()] = static_cast<char>(random());  // corrupt a byte
    if (random() % 8 == 0) packet.resize(random() % packet.size());                         // or cut it short
    sendto(fd, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    char reply[2048];
    if (i % 8 == 7) usleep(2000);
    while (recv(fd, reply, sizeof reply, MSG_DONTWAIT) > 0) {
    }
  }
  close(fd);
  // Still answering, and the Tables still match the agent's rows.
  EXPECT_EQ(valueOf(get("2c", {cell(3, "1")}).out, cell(3, "1")), "INTEGER: 7");
  for (auto* pair : {&value, &value2}) {
    DynMibTable& t = pair == &value ? mib() : *info2.entryAs<DynMibTable>();
    for (const auto& [index, row] : pair->getTable().getRows()) EXPECT_NE(t.getRowStatus(index), -1);
  }
  ToolResult walk = tool("snmpwalk", "2c", "public", {kBase + ".2.1.2"});
  size_t statuses = 0;
  for (size_t at = walk.out.find(kBase + ".2.1.2."); at != std::string::npos;
       at = walk.out.find(kBase + ".2.1.2.", at + 1))
    ++statuses;
  EXPECT_EQ(statuses, table().getRows().size());
}

}  // namespace zelta_test
