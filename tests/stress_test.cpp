// Threads meeting on the library lock: host threads writing and reading
// parameters and table cells, SNMP managers (in-process client and tool
// processes) doing the same over the agent, and group saves, all at once for
// a few seconds. Every value anyone reads must be one that somebody wrote, and
// the group files must read back. Also the hand-overs between a save and the
// threads around it (a hook that saves) and log levels changing while others log.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>

#include "snmp_fixture.h"
#include "zelta/snmpclient.h"

using namespace zelta_test;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

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
template <class T>
struct Choices {
  std::vector<T> host, snmp;
  const T& byHost(unsigned i) const { return host[i % host.size()]; }
  const T& bySnmp(unsigned i) const { return snmp[i % snmp.size()]; }
  bool allows(const T& v) const {
    return std::count(host.begin(), host.end(), v) + std::count(snmp.begin(), snmp.end(), v) > 0;
  }
};
const Choices<long> kLevels{{100, 101, 102, 103}, {200, 201, 202, 203}};
const Choices<std::string> kLabels{{"host-a", "host-b", "host-c"}, {"snmp-a", "snmp-b"}};
const Choices<long> kNumbers{{1000, 1001, 1002, 1003}, {2000, 2001, 2002, 2003}};
const Choices<std::string> kNames{{"h0", "h1", "h2", "h3"}, {"s0", "s1", "s2", "s3"}};
// Refused by the label's validator, whoever sends it.
const std::string kRefusedLabel = "bad";

// The parameters under test. `level` has a filler and `label` a validator
// and a post-set hook, each of which writes another parameter. A blank set
// starts with values nobody writes.
struct Device {
  explicit Device(const std::string& dir, bool blank = false)
      : settings("settings", dir + "/settings.txt"),
        network("network", dir + "/network.txt"),
        def({1}, 2, fields, 1),
        level(settings, INTEGER, Variant(blank ? 0L : kLevels.byHost(0)), &levelInfo),
        label(settings, STRING, Variant(blank ? "" : kLabels.byHost(0)), &labelInfo),
        echo(settings, STRING, Variant(blank ? "" : kLabels.byHost(0)), nullptr),
        reads(settings, INTEGER, Variant(0), nullptr, NEVER_SAVE),
        routes(network, TABLE, Variant(Table(&def)), &routesInfo),
        stamp(settings, INTEGER, Variant(0), &stampInfo, NEVER_SAVE),
        marks(settings, TABLE, Variant(markTable()), &marksInfo, NEVER_SAVE) {
    settings.setAtomicSave(true);
    network.setAtomicSave(true);
    const std::pair<const char*, Param*> keys[] = {{"level", &level}, {"label", &label},   {"echo", &echo},
                                                   {"reads", &reads}, {"routes", &routes}, {"stamp", &stamp},
                                                   {"marks", &marks}};
    for (auto [key, param] : keys) manager.add(key, param);
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

  std::map<unsigned int, FieldType> fields{{3, FieldType(INTEGER, 0, 100000)}, {4, FieldType(STRING, 0, 16)}};
  SNMPInfo levelInfo{kLevelOid, READWRITE}, labelInfo{kLabelOid, READWRITE}, stampInfo{kStampOid, READWRITE};
  SNMPInfo routesInfo{kBase + ".5.1", READCREATE}, marksInfo{kBase + ".6.1", READCREATE};
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

// Checks that every value `d` holds is one somebody wrote (`where` names it in
// failures); returns them all as text.
std::string checkValues(Device& d, const std::string& where, Problems& problems) {
  const long level = d.level.getValueCopy().getLong();
  std::string all = std::to_string(level);
  if (!kLevels.allows(level)) problems.add(where + ": level " + all);
  for (Param* p : {&d.label, &d.echo}) {
    const std::string text = p->getValueCopy().getString();
    all += " '" + text + "'";
    if (!kLabels.allows(text)) problems.add(where + ": " + p->getName() + " '" + text + "'");
  }
  for (unsigned long row = 1; row <= kRows; ++row) {
    Variant number, name;
    const bool got = d.routes.getTableCellValue({row}, 3, number) && d.routes.getTableCellValue({row}, 4, name);
    const std::string cells = " " + number.toString() + " '" + name.toString() + "'";
    all += cells;
    if (!got || !kNumbers.allows(number.getLong()) || !kNames.allows(name.getString()))
      problems.add(where + ": row " + std::to_string(row) + cells);
  }
  return all;
}

class StressTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string rows;
    for (unsigned long row = 1; row <= kRows; ++row)
      rows += "routes." + std::to_string(row) + " = 3:2:1000 4:4:\"h0\" \n";
    dir.write("network.txt", rows);
    device->manager.loadAllGroups();
    ASSERT_TRUE(device->settings.save());  // both files exist from the start
    agent = startServingAgent(&device->manager, port);
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

  // A blank set of the parameters with the group files read into it.
  std::unique_ptr<Device> loadFiles() {
    auto m = std::make_unique<Device>("/nonexistent", true);
    m->manager.loadFromFile(dir.file("settings.txt"));
    m->manager.loadFromFile(dir.file("network.txt"));
    return m;
  }

  std::string target() const { return "127.0.0.1:" + std::to_string(port); }

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
  // How often each party got through (printed to show how much ran at once).
  std::map<std::string, std::atomic<int>> done;
  for (const char* what : {"host rounds", "client sets", "tool sets", "tool gets", "file checks", "fresh reads"})
    done[what];
  deadline = steady_clock::now() + kRunFor;
  std::vector<std::thread> threads;

  // Two host threads write scalars and cells, read them back, announce
  // changes (auto-save, hooks) and save.
  for (unsigned t = 0; t < 2; ++t) {
    threads.push_back(loop([&, t](unsigned i) {
      const unsigned k = i + t;
      d.level.setValue(kLevels.byHost(k));
      d.label.setValue(Variant(kLabels.byHost(k)));
      const unsigned long row = 1 + k % kRows;
      d.routes.setTableCellValue({row}, 3, Variant(kNumbers.byHost(k)));
      d.routes.setTableCellValue({row}, 4, Variant(kNames.byHost(k)));
      checkValues(d, "host read", problems);
      if (k % 8 == 0) d.label.notifyAll("host change", nullptr);
      if (k % 8 == 4) d.routes.notifyAll("host cell", new ExtraInfo({row}, 5, 3));
      if (k % 50 == 0 && !d.settings.save()) problems.add("settings.save() failed");
      if (k % 50 == 25) d.manager.saveAllGroups();
      ++done.at("host rounds");
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
      ++done.at("fresh reads");
      if (value != mark)
        problems.add("GET " + oid + " after the host wrote " + std::to_string(mark) + ": " + std::to_string(value));
    }
  }));

  // The in-process client's SETs, now and then a refused one (its GETs are the fresh reads above).
  threads.push_back(loop([&](unsigned i) {
    Vb vb(kLevelOid), label(kLabelOid);
    vb.setInteger(static_cast<int32_t>(kLevels.bySnmp(i)));
    if (SNMPClient::set("127.0.0.1", port, kLevelOid, vb)) ++done.at("client sets");
    label.setString(i % 5 == 4 ? kRefusedLabel : kLabels.bySnmp(i));
    if (SNMPClient::set("127.0.0.1", port, kLabelOid, label) && i % 5 == 4)
      problems.add("client: the validator let '" + kRefusedLabel + "' through");
  }));

  // Tool processes: several bindings per PDU, cells included.
  threads.push_back(loop([&](unsigned i) {
    const unsigned long row = 1 + i % kRows;
    if (v2c("snmpset",
            {target(), kLevelOid, "i", std::to_string(kLevels.bySnmp(i)), kLabelOid, "s", kLabels.bySnmp(i),
             cellOid(3, row), "i", std::to_string(kNumbers.bySnmp(i)), cellOid(4, row), "s", kNames.bySnmp(i)})
            .exitCode == 0)
      ++done.at("tool sets");
    ToolResult get = v2c("snmpget", {"-Ov", "-Oq", target(), kLevelOid, kLabelOid, cellOid(3, row), cellOid(4, row)});
    if (get.exitCode != 0) return;
    // One value per line: number, "text", number, "text".
    Strings lines = Common::split(get.out, '\n');
    auto unquote = [](std::string s) { return s.size() >= 2 && s.front() == '"' ? s.substr(1, s.size() - 2) : s; };
    if (lines.size() < 4 || !kLevels.allows(Common::toNumber<int>(lines[0])) || !kLabels.allows(unquote(lines[1])) ||
        !kNumbers.allows(Common::toNumber<int>(lines[2])) || !kNames.allows(unquote(lines[3])))
      problems.add("tool read: " + get.out);
    else
      ++done.at("tool gets");
  }));

  // The group files, as written by any save, always read back whole.
  threads.push_back(loop([&](unsigned i) {
    checkValues(*loadFiles(), "files during the run (" + std::to_string(i) + ")", problems);
    ++done.at("file checks");
    std::this_thread::sleep_for(milliseconds(20));
  }));

  for (std::thread& t : threads) t.join();
  for (auto& [what, count] : done) {
    printf("%s %d; ", what.c_str(), count.load());
    EXPECT_GT(count.load(), 0) << what;
  }
  printf("\n");
  // The filler and the validator ran on the agent thread.
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
  EXPECT_EQ(checkValues(*loadFiles(), "files at the end", problems), checkValues(d, "at the end", problems));
  EXPECT_EQ(problems.count, 0) << problems.text;
}

// A post-set hook that saves its group while another thread saves: the save
// must not wait for the file while holding up the library lock the other
// save needs, or both wait forever.
TEST(SaveHandOver, HookThatSavesDoesNotDeadlockWithAnotherSave) {
  TempDir dir;
  ParamGroup group("hooked", dir.file("hooked.txt"));
  Param level(group, INTEGER, Variant(1), nullptr), other(group, STRING, Variant("x"), nullptr);
  ParamManager manager;
  manager.add("level", &level);
  manager.add("other", &other);
  level.addPostSet([&](const Variant&, const ExtraInfo*) { group.save(); });

  const int kRounds = 200;
  std::atomic<int> saves{0}, notices{0};
  std::thread saver([&] {
    for (; saves < kRounds; ++saves) group.save();
  });
  std::thread hooked([&] {
    for (; notices < kRounds; ++notices) {
      level.setValue(notices.load());
      level.notifyAll("changed", nullptr);
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
  channel.mutex.lock();  // as if another thread were writing a line
  std::atomic<bool> stop{false};
  std::atomic<int> filtered{0};
  std::thread logger([&] {
    for (; !stop; ++filtered) channel.append(VERBOSE, "never printed\n");
  });
  std::thread changer([&] {
    for (int i = 0; !stop; ++i) channel.level = i % 2 == 0 ? ERROR : WARNING;
  });
  const bool progressed = waitFor([&] { return filtered > 1000; }, milliseconds(10000));
  stop = true;
  changer.join();
  channel.mutex.unlock();
  logger.join();
  channel.level = old;
  EXPECT_TRUE(progressed) << filtered << " filtered calls got through";
}
