// Group files: the writer's exact lines, the reader's rules, bad files, and
// saves killed half-way.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <random>

#include "test_util.h"
#include "zelta/parammanager.h"

using namespace Quorvel::Kvan;
using namespace zelta_test;

namespace {

const unsigned char kAddr[8] = {0x41, 0x42, 0x01, 0x02, 0x31, 0x32, 0x7f, 0x80};

// Column 4, right before the RowStatus column, is never stored: existing
// files were written that way.
const char kExampleFile[] =
    "volume.0 = 0:2:7\n"
    "label.0 = 0:4:\"Front door \\x22A\\x22\"\n"
    "gateway.0 = 0:64:192.168.1.1\n"
    "uptime.0 = 0:67:12345\n"
    "addr.0 = 0:4:\"AB\\x01\\x0212\\x7f\\x80\"\n"
    "contacts.1 = 2:4:\"Hall\" 3:2:15 \n"
    "contacts.2 = 2:4:\"Garage\" 3:2:-3 \n";

// The group of the worked example: five single values and a table with index
// column 1, value columns 2 (string), 3 and 4 (integers) and RowStatus 5.
struct Example {
  explicit Example(const std::string& path, bool withValues = true)
      : group("example", path),
        def({1}, 5, fields, 1),
        volume(group, INTEGER, nullptr),
        label(group, STRING, nullptr),
        gateway(group, IPADDRESS, nullptr),
        uptime(group, TIMETICKS, nullptr),
        addr(group, LOGADDRMAIN, nullptr),
        contacts(group, TABLE, Variant(Table(&def)), nullptr) {
    const char* keys[] = {"volume", "label", "gateway", "uptime", "addr", "contacts"};
    Param* params[] = {&volume, &label, &gateway, &uptime, &addr, &contacts};
    for (int i = 0; i < 6; ++i) manager.add(keys[i], params[i]);
    if (!withValues) return;
    volume.setValue(7);
    label.setValue("Front door \"A\"");
    gateway.setValue("192.168.1.1");
    uptime.setValue(Variant(TimeTicksValue{12345}));
    addr.setValue(kAddr);
    Table table(&def);
    for (auto [row, name, a, b] : {std::tuple{1ul, "Hall", 15L, 20L}, {2ul, "Garage", -3L, 0L}}) {
      table.addRow({row});
      table.setCellValue({row}, 2, std::string(name));
      table.setCellValue({row}, 3, a);
      table.setCellValue({row}, 4, b);
    }
    contacts.setValue(table);
  }
  // The value columns of a row, as text; "<none>" for a cell that is not there.
  std::string row(RowIdx idx) {
    std::string out;
    for (unsigned int column : {2u, 3u, 4u}) {
      Variant v;
      out += (column > 2 ? " " : "") + (contacts.getTableCellValue(idx, column, v) ? v.toString() : "<none>");
    }
    return out;
  }

  std::map<unsigned int, FieldType> fields{{2, FieldType(STRING, NO_RANGE, NO_RANGE)},
                                           {3, FieldType(INTEGER, NO_RANGE, NO_RANGE)},
                                           {4, FieldType(INTEGER, NO_RANGE, NO_RANGE)}};
  ParamGroup group;
  TableDef def;
  Param volume, label, gateway, uptime, addr, contacts;
  ParamManager manager;
};

}  // namespace

TEST(ParamFile, WorkedExampleIsWrittenByteForByteAndLoadsBack) {
  TempDir dir;
  Example example(dir.file("example.txt"));
  bool saved = false;
  const std::string trace = captureLog(INFO, [&] { saved = example.group.save(); });
  ASSERT_TRUE(saved);
  EXPECT_EQ(dir.read("example.txt"), kExampleFile);
  EXPECT_NE(trace.find(":flattenTableRow:"), std::string::npos) << trace;  // the dropped column's marker
  Example fresh(dir.file("example.txt"), false);
  fresh.manager.loadAllGroups();
  EXPECT_EQ(fresh.volume.getValue().getLong(), 7);
  EXPECT_EQ(fresh.label.getValue().getString(), "Front door \"A\"");
  EXPECT_EQ(fresh.gateway.getValue().getString(), "192.168.1.1");
  EXPECT_EQ(fresh.uptime.getValue().getTimeTicks().value, 12345u);
  EXPECT_TRUE(Common::logaddrMainEq(fresh.addr.getValue().getLogaddrMain(), kAddr));
  EXPECT_EQ(fresh.row({1}), "Hall 15 0");  // never written: the default stays
  EXPECT_EQ(fresh.row({2}), "Garage -3 0");
  EXPECT_TRUE(fresh.group.isActive());
}

TEST(ParamFile, ReaderToleratesLayoutAndSkipsJunkKeepingWhatCameBefore) {
  TempDir dir;
  Example example(dir.file("example.txt"), false);
  std::string log = captureLog(VERBOSE, [&] {
    example.manager.loadFromFile(dir.write("in.txt",
                                           "# comment\n"
                                           "\n"
                                           "   volume.0   =   0:2:9   \r\n"
                                           "junk without equals\n"
                                           "unknown.0 = 0:2:1\n"
                                           "vol_ume.0 = 0:2:1\n"
                                           "nodot = 0:2:1\n"
                                           "label.0 =\n"
                                           "gateway.7 = 0:64:10.0.0.1\n"
                                           "label.3 = 0:2:5\n"));
  });
  EXPECT_EQ(example.volume.getValue().getLong(), 9);
  EXPECT_EQ(example.gateway.getValue().getString(), "10.0.0.1");  // any suffix for a single value
  EXPECT_EQ(example.label.getValue().getString(), "");
  EXPECT_NE(log.find("ParamManager: setScalar(): triplet type 2 != Param type 4 for var 'label'\n"), std::string::npos);
  EXPECT_NE(log.find("ParamManager: - cannot read scalar 'label'!\n"), std::string::npos);
  EXPECT_EQ(log.find("skip invalid key"), std::string::npos);
  EXPECT_NE(log.find(":loadFromFile:"), std::string::npos);  // the unknown stem's marker

  // A table line with a wrong cell keeps the cells before it.
  log = captureLog(DEBUG, [&] {
    example.manager.loadFromFile(dir.write("in.txt",
                                           "contacts.3 = 2:4:\"Porch\" 3:4:\"x\" 4:2:8 \n"
                                           "contacts.4 = 5:2:1  2:4:\"Attic\"  9:2:1 \n"
                                           "contacts.5 = \n"
                                           "contacts.6.1 = 2:4:\"x\" \n"));
  });
  EXPECT_EQ(example.row({3}), "Porch 0 0");
  EXPECT_NE(log.find("ParamManager: setTableRow(): triplet type 4 != Param type 2 for var 'contacts'\n"),
            std::string::npos);
  EXPECT_NE(log.find("ParamManager: - cannot read table row 'contacts'!\n"), std::string::npos);
  // RowStatus and unknown columns are skipped with a warning; two blanks between triplets are fine.
  EXPECT_EQ(example.row({4}), "Attic 0 0");
  EXPECT_NE(log.find("ParamManager: setTableRow(): column 5 is not a valid field or it's a special one (e.g. "
                     "rowStatus)!\n"),
            std::string::npos);
  EXPECT_NE(log.find("column 9 is not a valid field"), std::string::npos);
  EXPECT_EQ(example.def.fields.count(9), 0u);  // the definition is not touched by file content
  EXPECT_EQ(example.contacts.getValue().getTable().getRows().count({6, 1}), 0u);  // index of the wrong length

  // On a table the agent serves, the row a bad line made is no active row
  // and is not saved; an existing row keeps its state.
  SNMP::SNMPInfo info("1.3.6.1.4.1.99999.7.9.1", SNMP::READCREATE);
  Param served(example.group, TABLE, Variant(Table(&example.def)), &info);
  example.manager.add("served", &served);
  captureLog(INFO, [&] {
    example.manager.loadFromFile(dir.write("in.txt",
                                           "served.1 = 2:4:\"Hall\" \n"
                                           "served.1 = 3:4:\"x\" \n"
                                           "served.2 = 2:4:\"Porch\" 3:4:\"x\" \n"));
  });
  const Table& rows = served.getValue().getTable();
  EXPECT_EQ(rows.getRowStatus({1}), 1);
  EXPECT_EQ(rows.getRowStatus({2}), 2);
  EXPECT_EQ(rows.getRow({2}).at(2).getString(), "Porch");
  EXPECT_EQ(served.toFileText(), "served.1 = 2:4:\"Hall\" 3:2:0 \n");
}

// An empty string round-trips; an empty IP address is written but not read.
TEST(ParamFile, AwkwardAndEmptyValuesRoundTripExceptAnEmptyIpAddress) {
  TempDir dir;
  Example example(dir.file("example.txt"));
  const std::string awkward("q\"b\\s\0\xff\n=", 10);
  example.label.setValue(awkward);
  example.gateway.setValue("");
  ASSERT_TRUE(example.group.save());
  EXPECT_NE(dir.read("example.txt").find("gateway.0 = 0:64:\n"), std::string::npos);
  Example fresh(dir.file("example.txt"), false);
  fresh.gateway.setValue("1.2.3.4");
  std::string log = captureLog(DEBUG, [&] { fresh.manager.loadAllGroups(); });
  EXPECT_EQ(fresh.label.getValue().getString(), awkward);
  EXPECT_EQ(fresh.gateway.getValue().getString(), "1.2.3.4");
  EXPECT_NE(log.find("ParamManager: setScalar(): cannot split triplet '0:64:'\n"), std::string::npos);
  EXPECT_NE(log.find("ParamManager: - cannot read scalar 'gateway'!\n"), std::string::npos);

  example.label.setValue("");
  ASSERT_TRUE(example.group.save());
  EXPECT_NE(dir.read("example.txt").find("label.0 = 0:4:\"\"\n"), std::string::npos);
  captureLog(ERROR, [&] { fresh.manager.loadAllGroups(); });
  EXPECT_EQ(fresh.label.getValue().getString(), "");
  // A hand-edited value without quotes is taken as the decoder gives it.
  fresh.manager.loadFromFile(dir.write("in.txt", "label.0 = 0:4:abc\n"));
  EXPECT_EQ(fresh.label.getValue().getString(), "[error - start]");
}

// On the 32-bit target a count of 2^31 or more is written as a negative long;
// both builds must write and read it the same way.
TEST(ParamFile, TimeTicksAbove2To31RoundTripThroughNegativeText) {
  TempDir dir;
  std::map<unsigned int, FieldType> fields{{2, FieldType(TIMETICKS, NO_RANGE, NO_RANGE)}};
  TableDef def({1}, 4, fields, 1);
  ParamGroup group("ticks", dir.file("ticks.txt"));
  Param ticks(group, TIMETICKS, Variant(TimeTicksValue{3000000000u}), nullptr);
  Table table(&def);
  table.setCellValue({4294967295ul}, 2, static_cast<long>(static_cast<int32_t>(2147483648u)));
  Param column(group, TABLE, Variant(table), nullptr);
  ParamManager manager;
  manager.add("ticks", &ticks);
  manager.add("column", &column);
  group.save();
  EXPECT_EQ(dir.read("ticks.txt"), "ticks.0 = 0:67:-1294967296\ncolumn.4294967295 = 2:67:-2147483648 \n");

  ticks.setValue(Variant(TimeTicksValue{1}));
  column.setValue(Table(&def));
  manager.loadAllGroups();
  EXPECT_EQ(ticks.getValue().getTimeTicks().value, 3000000000u);
  Variant out;
  ASSERT_TRUE(column.getTableCellValue({4294967295ul}, 2, out));
  EXPECT_EQ(out.getTimeTicks().value, 2147483648u);
}

// Nothing a file holds may stop a device from booting: missing files and
// directories are reported, a logical address that does not fit 8 bytes never
// reaches the assertion of logaddrMainSet (the parameter keeps its own), and
// mutated files never crash the loader.
TEST(ParamFile, UnreadableInputNeverStopsTheDevice) {
  TempDir dir;
  Example example(dir.file("nothing-here.txt"));
  std::string log = captureLog(WARNING, [&] {
    example.manager.loadAllGroups();
    example.manager.loadFromFile(dir.path());
  });
  EXPECT_NE(log.find("ParamManager: - cannot open '" + dir.file("nothing-here.txt") + "' for reading\n"),
            std::string::npos);
  EXPECT_NE(log.find("ParamManager: - cannot open '" + dir.path() + "' for reading\n"), std::string::npos);
  EXPECT_TRUE(example.group.isActive());
  EXPECT_EQ(example.volume.getValue().getLong(), 7);

  for (const char* line :
       {"addr.0 = 0:4:\"123456789\"\n", "addr.0 = 0:4:\"\\x\"\n", "addr.0 = 0:4:abc\n", "contacts.1 = 2:4:\"ok\" \n"}) {
    captureLog(WARNING, [&] { example.manager.loadFromFile(dir.write("in.txt", line)); });
    EXPECT_TRUE(Common::logaddrMainEq(example.addr.getValue().getLogaddrMain(), kAddr)) << line;
  }
  example.manager.loadFromFile(dir.write("in.txt", "addr.0 = 0:4:\"12\"\n"));
  EXPECT_EQ(Common::logaddrMainToString(example.addr.getValue().getLogaddrMain()), "00000012");

  std::mt19937 rng(4242);
  captureLog(ERROR, [&] {
    for (int round = 0; round < 400; ++round) {
      std::string bytes = kExampleFile;
      for (int e = 0, edits = 1 + static_cast<int>(rng() % 8); e < edits && !bytes.empty(); ++e) {
        const size_t at = rng() % bytes.size(), how = rng() % 4;
        if (how == 0) bytes[at] = static_cast<char>(rng() & 0xFF);
        if (how == 1) bytes.erase(at, 1 + rng() % 12);
        if (how == 2) bytes.insert(at, std::string(1 + rng() % 3, "\"\\=.: 0x9\n"[rng() % 11]));
        if (how == 3) bytes.insert(at, bytes.substr(rng() % bytes.size(), rng() % 40));
      }
      example.manager.loadFromFile(dir.write("fuzz.txt", bytes));
    }
    example.manager.loadFromFile(dir.write("long.txt", "volume.0 = 0:2:" + std::string(200000, '7') + "\n"));
  });
  EXPECT_EQ(example.volume.getValue().getLong(), 2147483647);
  EXPECT_TRUE(example.group.save());
}

// A save killed at a random moment: with atomic saving the file is always
// either the old or the new complete content.
TEST(CrashSafeSave, KilledAtomicSavesLeaveTheOldOrTheNewFile) {
  TempDir dir;
  ParamGroup group("crash", dir.file("crash.txt"));
  group.setAtomicSave(true);
  Param label(group, STRING, Variant("a"), nullptr);
  // A table big enough that a save takes a while.
  std::map<unsigned int, FieldType> fields{{3, FieldType(STRING, NO_RANGE, NO_RANGE)}};
  TableDef def({1}, 2, fields, 1);
  Table table(&def);
  for (unsigned long i = 0; i < 400; ++i) table.setCellValue({i}, 3, std::string(60, 'x'));
  Param rows(group, TABLE, Variant(table), nullptr);
  ParamManager manager;
  manager.add("label", &label);
  manager.add("rows", &rows);
  Log["libzelta"].level = ERROR;
  std::string contents[2];
  for (int i = 0; i < 2; ++i) {
    label.setValue(std::string(i ? "b" : "a"));
    ASSERT_TRUE(group.save());
    contents[i] = dir.read("crash.txt");
  }

  // A child saves the two contents in turn until it is killed.
  std::mt19937 rng(99);
  int torn = 0;
  for (int round = 0; round < 300; ++round) {
    const pid_t child = fork();
    if (child == 0) {
      for (int i = 0;; ++i) {
        label.setValue(std::string(i % 2 ? "b" : "a"));
        group.save();
      }
    }
    usleep(200 + rng() % 3000);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    const std::string now = dir.read("crash.txt");
    torn += now != contents[0] && now != contents[1];
  }
  Log["libzelta"].level = WARNING;
  EXPECT_EQ(torn, 0) << "torn files after 300 kills";
}
