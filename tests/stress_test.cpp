// Threads meeting on the library lock: host threads writing and reading
// parameters and table cells, SNMP managers (in-process client and tool
// processes) doing the same over the agent, and group saves, all at once for
// a few seconds. Every value anyone reads must be one that somebody wrote, and
// the group files must read back. Also the hand-overs between a save and the
// threads around it (a hook that saves) and log
// levels changing while others log.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "snmp_fixture.h"
#include "test_util.h"
#include "zelta/parammanager.h"
#include "zelta/snmpagent.h"
#include "zelta/snmpclient.h"

using namespace Quorvel::Kvan;
using namespace Quorvel::Kvan::SNMP;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using zelta_test::freeUdpPort;
using zelta_test::runTool;
using zelta_test::TempDir;
using zelta_test::ToolResult;
using zelta_test::waitFor;

namespace {

const std::string kBase = "1.3.6.1.4.1.99999.31";
const std::string kLevelOid = kBase + ".1.0";
const std::string kLabelOid = kBase + ".2.0";
// Written by one host thread only: a GET right after its write must see it.
const std::string kStampOid = kBase + ".3.0";
const std::string kMarkOid = kBase + ".6.1.3.1";
std::string cellOid(unsigned int column, unsigned long row) {
  return kBase + ".5.1." + std::to_string(column) + "." + std::to_string(row);
}

// How long the threads run together.
const auto kRunFor = milliseconds(4000);
const unsigned long kRows = 4;

// What each side writes. Readers accept the union, nothing else.
const std::vector<long> kHostLevels{100, 101, 102, 103};
const std::vector<long> kSnmpLevels{200, 201, 202, 203};
const std::vector<std::string> kHostLabels{"host-a", "host-b", "host-c"};
const std::vector<std::string> kSnmpLabels{"snmp-a", "snmp-b"};
// Refused by the label's validator, whoever sends it.
const std::string kRefusedLabel = "bad";
const std::vector<long> kHostNumbers{1000, 1001, 1002, 1003};
const std::vector<long> kSnmpNumbers{2000, 2001, 2002, 2003};
const std::vector<std::string> kHostNames{"h0", "h1", "h2", "h3"};
const std::vector<std::string> kSnmpNames{"s0", "s1", "s2", "s3"};

template <class T>
bool among(const T& value, const std::vector<T>& a, const std::vector<T>& b) {
  for (const T& x : a)
    if (x == value) return true;
  for (const T& x : b)
    if (x == value) return true;
  return false;
}

bool allowedLevel(long v) { return among(v, kHostLevels, kSnmpLevels); }
bool allowedLabel(const std::string& v) { return among(v, kHostLabels, kSnmpLabels); }
bool allowedNumber(long v) { return among(v, kHostNumbers, kSnmpNumbers); }
bool allowedName(const std::string& v) { return among(v, kHostNames, kSnmpNames); }

std::map<unsigned int, FieldType> routeFields() {
  return {{3, FieldType(INTEGER, 0, 100000)}, {4, FieldType(STRING, 0, 16)}};
}

// The parameters under test. `level` has a filler and `label` a validator
// and a post-set hook, each of which writes another parameter.
struct Device {
  explicit Device(const std::string& dir)
      : settings("settings", dir + "/settings.txt"),
        network("network", dir + "/network.txt"),
        def({1}, 2, fields, 1),
        level(settings, INTEGER, Variant(kHostLevels[0]), &levelInfo),
        label(settings, STRING, Variant(kHostLabels[0]), &labelInfo),
        echo(settings, STRING, Variant(kHostLabels[0]), nullptr),
        reads(settings, INTEGER, Variant(0), nullptr, NEVER_SAVE),
        routes(network, TABLE, Variant(Table(&def)), &routesInfo),
        stamp(settings, INTEGER, Variant(0), &stampInfo, NEVER_SAVE),
        marks(settings, TABLE, Variant(markTable()), &marksInfo, NEVER_SAVE) {
    settings.setAtomicSave(true);
    network.setAtomicSave(true);
    manager.add("level", &level);
    manager.add("label", &label);
    manager.add("echo", &echo);
    manager.add("reads", &reads);
    manager.add("routes", &routes);
    manager.add("stamp", &stamp);
    manager.add("marks", &marks);
    level.setFiller([this](Variant&, const ExtraInfo*) {
      reads.setValue(reads.getValue().getLong() + 1);
      return true;
    });
    label.setValidator([this](const Variant& v, const ExtraInfo*) {
      ++validations;
      return v.getString() != kRefusedLabel;
    });
    label.addPostSet([this](const Variant& v, const ExtraInfo*) { echo.setValue(Variant(v.getString())); });
  }

  std::map<unsigned int, FieldType> fields = routeFields();
  SNMPInfo levelInfo{kLevelOid, READWRITE};
  SNMPInfo labelInfo{kLabelOid, READWRITE};
  SNMPInfo routesInfo{kBase + ".5.1", READCREATE};
  SNMPInfo stampInfo{kStampOid, READWRITE};
  SNMPInfo marksInfo{kBase + ".6.1", READCREATE};
  ParamGroup settings, network;
  TableDef def;
  std::map<unsigned int, FieldType> markFields{{3, FieldType(INTEGER, NO_RANGE, NO_RANGE)}};
  TableDef markDef{{1}, 2, markFields, 1};
  Table markTable() {
    Table table(&markDef);
    table.addRow({1});
    return table;
  }
  Param level, label, echo, reads, routes, stamp, marks;
  ParamManager manager;
  std::atomic<int> validations{0};
};

// Unpublished parameters with the same keys, to read the group files back.
struct Mirror {
  Mirror()
      : group("mirror", "/nonexistent/mirror.txt"),
        def({1}, 2, fields, 1),
        level(group, INTEGER, nullptr),
        label(group, STRING, nullptr),
        echo(group, STRING, nullptr),
        routes(group, TABLE, Variant(Table(&def)), nullptr) {
    group.setActiveMode(false);
    manager.add("level", &level);
    manager.add("label", &label);
    manager.add("echo", &echo);
    manager.add("routes", &routes);
  }
  std::map<unsigned int, FieldType> fields = routeFields();
  ParamGroup group;
  TableDef def;
  Param level, label, echo, routes;
  ParamManager manager;
};

// Failures seen by any thread (the first few); gtest assertions stay on the
// main thread, which reads the list once the others are joined.
struct Problems {
  void add(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    if (++count <= 10) text += what + "\n";
  }
  std::mutex mutex;
  int count = 0;
  std::string text;
};

// Checks every value a file set holds; `where` names it in failures.
void checkLoaded(Mirror& m, const std::string& where, Problems& problems) {
  long level = m.level.getValue().getLong();
  if (!allowedLevel(level)) problems.add(where + ": level " + std::to_string(level));
  const std::string& label = m.label.getValue().getString();
  if (!allowedLabel(label)) problems.add(where + ": label '" + label + "'");
  const std::string& echo = m.echo.getValue().getString();
  if (!allowedLabel(echo)) problems.add(where + ": echo '" + echo + "'");
  for (unsigned long row = 1; row <= kRows; ++row) {
    Variant number, name;
    if (!m.routes.getTableCellValue({row}, 3, number) || !m.routes.getTableCellValue({row}, 4, name)) {
      problems.add(where + ": row " + std::to_string(row) + " missing");
      continue;
    }
    if (!allowedNumber(number.getLong())) problems.add(where + ": cell number " + std::to_string(number.getLong()));
    if (!allowedName(name.getString())) problems.add(where + ": cell name '" + name.getString() + "'");
  }
}

class StressTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string rows;
    for (unsigned long row = 1; row <= kRows; ++row)
      rows += "routes." + std::to_string(row) + " = 3:2:" + std::to_string(kHostNumbers[0]) + " 4:4:\"" +
              kHostNames[0] + "\" \n";
    dir.write("network.txt", rows);
    device->manager.loadAllGroups();
    ASSERT_TRUE(device->settings.save());  // both files exist from the start

    agent = zelta_test::startServingAgent(&device->manager, port);
    ASSERT_NE(agent, nullptr);
  }

  void TearDown() override {
    if (agent) {
      agent->stop();
      agent->waitForFinish();
    }
    // A pending auto-save must end before the groups go away.
    EXPECT_TRUE(waitFor([&] { return !device->settings.isWorkerRunning() && !device->network.isWorkerRunning(); },
                        milliseconds(10000)));
  }

  // Runs `body(iteration)` until the common deadline.
  std::thread loop(std::function<void(unsigned)> body) {
    return std::thread([this, body] {
      for (unsigned i = 0; steady_clock::now() < deadline; ++i) body(i);
    });
  }

  void loadFiles(Mirror& m) {
    m.manager.loadFromFile(dir.file("settings.txt"));
    m.manager.loadFromFile(dir.file("network.txt"));
  }

  TempDir dir;
  std::unique_ptr<Device> device = std::make_unique<Device>(dir.path());
  std::unique_ptr<SNMPAgent> agent;
  int port = 0;
  steady_clock::time_point deadline;
  Problems problems;
};

}  // namespace

TEST_F(StressTest, HostThreadsManagersAndSavesSeeOnlyWrittenValues) {
  Device& d = *device;
  std::atomic<int> hostRounds{0}, clientSets{0}, clientGets{0}, toolSets{0}, toolGets{0}, fileChecks{0}, freshReads{0};
  deadline = steady_clock::now() + kRunFor;
  std::vector<std::thread> threads;

  // Two host threads write scalars and cells, read them back, announce
  // changes (auto-save, hooks) and save.
  for (unsigned t = 0; t < 2; ++t) {
    threads.push_back(loop([&, t](unsigned i) {
      const unsigned k = i + t;
      d.level.setValue(kHostLevels[k % kHostLevels.size()]);
      d.label.setValue(Variant(kHostLabels[k % kHostLabels.size()]));
      const unsigned long row = 1 + k % kRows;
      d.routes.setTableCellValue({row}, 3, Variant(kHostNumbers[k % kHostNumbers.size()]));
      d.routes.setTableCellValue({row}, 4, Variant(kHostNames[k % kHostNames.size()]));

      long level = d.level.getValueCopy().getLong();
      if (!allowedLevel(level)) problems.add("host read level " + std::to_string(level));
      std::string label = d.label.getValueCopy().getString();
      if (!allowedLabel(label)) problems.add("host read label '" + label + "'");
      std::string echo = d.echo.getValueCopy().getString();
      if (!allowedLabel(echo)) problems.add("host read echo '" + echo + "'");
      Variant number, name;
      if (!d.routes.getTableCellValue({row}, 3, number) || !allowedNumber(number.getLong()))
        problems.add("host read cell number");
      if (!d.routes.getTableCellValue({row}, 4, name) || !allowedName(name.getString()))
        problems.add("host read cell name");

      if (k % 8 == 0) d.label.notifyAll("host change", nullptr);
      if (k % 8 == 4) d.routes.notifyAll("host cell", new ExtraInfo({row}, 5, 3));
      if (k % 50 == 0 && !d.settings.save()) problems.add("settings.save() failed");
      if (k % 50 == 25) d.manager.saveAllGroups();
      ++hostRounds;
    }));
  }

  // A host write is served at once: a GET right after setValue or
  // setTableCellValue answers the value just written, never an older one.
  threads.push_back(loop([&](unsigned i) {
    const long mark = 5000 + static_cast<long>(i);
    d.stamp.setValue(mark);
    d.marks.setTableCellValue({1}, 3, Variant(mark));
    for (const std::string& oid : {kStampOid, kMarkOid}) {
      Vb got;
      int32_t value = 0;
      if (!SNMPClient::get("127.0.0.1", port, oid, got) || !got.getInteger(value)) continue;
      ++freshReads;
      if (value != mark)
        problems.add("GET " + oid + " after the host wrote " + std::to_string(mark) + " answered " +
                     std::to_string(value));
    }
  }));

  // The in-process client: single SETs and GETs, now and then a refused one.
  threads.push_back(loop([&](unsigned i) {
    Vb vb(kLevelOid);
    vb.setInteger(static_cast<int32_t>(kSnmpLevels[i % kSnmpLevels.size()]));
    if (SNMPClient::set("127.0.0.1", port, kLevelOid, vb)) ++clientSets;
    Vb label(kLabelOid);
    label.setString(i % 5 == 4 ? kRefusedLabel : kSnmpLabels[i % kSnmpLabels.size()]);
    bool accepted = SNMPClient::set("127.0.0.1", port, kLabelOid, label);
    if (accepted && i % 5 == 4) problems.add("client: the validator let '" + kRefusedLabel + "' through");
    Vb got;
    int32_t value = 0;
    if (SNMPClient::get("127.0.0.1", port, kLevelOid, got) && got.getInteger(value)) {
      ++clientGets;
      if (!allowedLevel(value)) problems.add("client read level " + std::to_string(value));
    }
  }));

  // Tool processes: several bindings per PDU, cells included.
  threads.push_back(loop([&](unsigned i) {
    const std::string target = "127.0.0.1:" + std::to_string(port);
    const unsigned long row = 1 + i % kRows;
    ToolResult set = runTool({"snmpset",
                              "-v",
                              "2c",
                              "-c",
                              "vorpal",
                              "-On",
                              "-t",
                              "3",
                              "-r",
                              "0",
                              target,
                              kLevelOid,
                              "i",
                              std::to_string(kSnmpLevels[i % kSnmpLevels.size()]),
                              kLabelOid,
                              "s",
                              kSnmpLabels[i % kSnmpLabels.size()],
                              cellOid(3, row),
                              "i",
                              std::to_string(kSnmpNumbers[i % kSnmpNumbers.size()]),
                              cellOid(4, row),
                              "s",
                              kSnmpNames[i % kSnmpNames.size()]});
    if (set.exitCode == 0) ++toolSets;
    ToolResult get = runTool({"snmpget", "-v", "2c", "-c", "public", "-On", "-Ov", "-Oq", "-t", "3", "-r", "0", target,
                              kLevelOid, kLabelOid, cellOid(3, row), cellOid(4, row)});
    if (get.exitCode != 0) return;
    // One value per line: number, "text", number, "text".
    std::vector<std::string> lines = Common::split(get.out, '\n');
    auto unquote = [](std::string s) { return s.size() >= 2 && s.front() == '"' ? s.substr(1, s.size() - 2) : s; };
    if (lines.size() < 4 || !allowedLevel(Common::toNumber<int>(lines[0])) || !allowedLabel(unquote(lines[1])) ||
        !allowedNumber(Common::toNumber<int>(lines[2])) || !allowedName(unquote(lines[3]))) {
      problems.add("tool read: " + get.out);
      return;
    }
    ++toolGets;
  }));

  // The group files, as written by any save, always read back whole.
  threads.push_back(loop([&](unsigned i) {
    Mirror m;
    loadFiles(m);
    checkLoaded(m, "files during the run (" + std::to_string(i) + ")", problems);
    ++fileChecks;
    std::this_thread::sleep_for(milliseconds(20));
  }));

  for (std::thread& t : threads) t.join();
  EXPECT_EQ(problems.count, 0) << problems.text;

  // Everybody got through, many times over (the counts are printed to show
  // how much actually ran at once).
  printf("host rounds %d, client sets %d gets %d, tool sets %d gets %d, file checks %d\n", hostRounds.load(),
         clientSets.load(), clientGets.load(), toolSets.load(), toolGets.load(), fileChecks.load());
  EXPECT_GT(hostRounds.load(), 0);
  EXPECT_GT(clientSets.load(), 0);
  EXPECT_GT(clientGets.load(), 0);
  EXPECT_GT(toolSets.load(), 0);
  EXPECT_GT(toolGets.load(), 0);
  EXPECT_GT(fileChecks.load(), 0);
  EXPECT_GT(freshReads.load(), 0);
  // The filler and the validator ran on the agent thread, and the hook kept
  // echo in step with some label.
  EXPECT_GT(d.reads.getValueCopy().getLong(), 0);
  EXPECT_GT(d.validations.load(), 0);

  // Quiet now: what the files hold after a last save is exactly what the
  // parameters hold.
  agent->stop();
  agent->waitForFinish();
  ASSERT_TRUE(
      waitFor([&] { return !d.settings.isWorkerRunning() && !d.network.isWorkerRunning(); }, milliseconds(10000)));
  ASSERT_TRUE(d.settings.save());
  ASSERT_TRUE(d.network.save());
  Mirror m;
  loadFiles(m);
  checkLoaded(m, "files at the end", problems);
  EXPECT_EQ(problems.count, 0) << problems.text;
  EXPECT_EQ(m.level.getValue().getLong(), d.level.getValueCopy().getLong());
  EXPECT_EQ(m.label.getValue().getString(), d.label.getValueCopy().getString());
  EXPECT_EQ(m.echo.getValue().getString(), d.echo.getValueCopy().getString());
  for (unsigned long row = 1; row <= kRows; ++row) {
    for (unsigned int column : {3u, 4u}) {
      Variant saved, live;
      ASSERT_TRUE(m.routes.getTableCellValue({row}, column, saved));
      ASSERT_TRUE(d.routes.getTableCellValue({row}, column, live));
      EXPECT_EQ(saved.toString(), live.toString()) << "row " << row << " column " << column;
    }
  }
}

// A published table given a whole new Table: the agent serves exactly the new
// rows (gone, changed and new ones), keeps taking SNMP writes into the
// parameter's value, and the next save holds the new table.
TEST_F(StressTest, WholeNewTableIsServedAndSaved) {
  Table replacement(&device->def);
  for (unsigned long row = 2; row <= kRows + 2; ++row) {
    replacement.setCellValue({row}, 3, kHostNumbers[1]);
    replacement.setCellValue({row}, 4, kHostNames[1]);
  }
  device->routes.setValue(replacement);
  const std::string target = "127.0.0.1:" + std::to_string(port);
  ToolResult r = runTool({"snmpget", "-v", "2c", "-c", "public", "-On", "-t", "3", "-r", "0", target, cellOid(3, 1),
                          cellOid(3, kRows + 2), cellOid(4, kRows + 2)});
  EXPECT_NE(r.out.find(cellOid(3, 1) + " = No Such Instance"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(cellOid(3, kRows + 2) + " = INTEGER: " + std::to_string(kHostNumbers[1])), std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("STRING: \"" + kHostNames[1] + "\""), std::string::npos) << r.out;
  r = runTool({"snmpset", "-v", "2c", "-c", "vorpal", "-On", "-t", "3", "-r", "0", target, cellOid(3, kRows + 1), "i",
               std::to_string(kSnmpNumbers[2])});
  ASSERT_EQ(r.exitCode, 0) << r.out;
  Variant number;
  ASSERT_TRUE(device->routes.getTableCellValue({kRows + 1}, 3, number));
  EXPECT_EQ(number.getLong(), kSnmpNumbers[2]);

  ASSERT_TRUE(device->network.save());
  std::string expected;
  for (unsigned long row = 2; row <= kRows + 2; ++row)
    expected += "routes." + std::to_string(row) +
                " = 3:2:" + std::to_string(row == kRows + 1 ? kSnmpNumbers[2] : kHostNumbers[1]) + " 4:4:\"" +
                kHostNames[1] + "\" \n";
  EXPECT_EQ(dir.read("network.txt"), expected);
}

// A post-set hook that saves its group while another thread saves: the save
// must not wait for the file while holding up the library lock the other
// save needs, or both wait forever.
TEST(SaveHandOver, HookThatSavesDoesNotDeadlockWithAnotherSave) {
  TempDir dir;
  ParamGroup group("hooked", dir.file("hooked.txt"));
  Param level(group, INTEGER, Variant(1), nullptr);
  Param other(group, STRING, Variant("x"), nullptr);
  ParamManager manager;
  manager.add("level", &level);
  manager.add("other", &other);
  level.addPostSet([&](const Variant&, const ExtraInfo*) { group.save(); });

  const int kRounds = 200;
  std::atomic<int> saves{0}, notices{0};
  std::thread saver([&] {
    for (int i = 0; i < kRounds; ++i) {
      group.save();
      ++saves;
    }
  });
  std::thread hooked([&] {
    for (int i = 0; i < kRounds; ++i) {
      level.setValue(i);
      level.notifyAll("changed", nullptr);
      ++notices;
    }
  });
  // Far beyond what 400 small saves take; past it the threads are stuck for
  // good, and nothing later in this process could take the library lock.
  if (!waitFor([&] { return saves == kRounds && notices == kRounds; }, milliseconds(60000))) {
    ADD_FAILURE() << "deadlock: " << saves << " saves and " << notices << " hooked saves done";
    fflush(stdout);
    std::_Exit(1);
  }
  saver.join();
  hooked.join();
  // The newest text is the one in the file.
  EXPECT_EQ(dir.read("hooked.txt"), "level.0 = 0:2:" + std::to_string(kRounds - 1) + "\nother.0 = 0:4:\"x\"\n");
  EXPECT_TRUE(waitFor([&] { return !group.isWorkerRunning(); }, milliseconds(10000)));
}

// A call filtered out by the level takes no lock, so it cannot wait for a line
// being written; the level may change meanwhile from any thread.
TEST(LoggingThreads, FilteredCallsTakeNoLockWhileLevelsChange) {
  LogChannel& channel = Log["libzelta"];
  const EventType old = channel.level;
  channel.level = WARNING;
  pthread_mutex_lock(&channel.mutex);  // as if another thread were writing a line
  std::atomic<bool> stop{false};
  std::atomic<int> filtered{0};
  std::thread logger([&] {
    while (!stop) {
      channel.append(VERBOSE, "never printed\n");
      ++filtered;
    }
  });
  std::thread changer([&] {
    for (int i = 0; !stop; ++i) channel.level = i % 2 == 0 ? ERROR : WARNING;
  });
  const bool progressed = waitFor([&] { return filtered > 1000; }, milliseconds(10000));
  stop = true;
  changer.join();
  pthread_mutex_unlock(&channel.mutex);
  logger.join();
  channel.level = old;
  EXPECT_TRUE(progressed) << filtered << " filtered calls got through";
}
