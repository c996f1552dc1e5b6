// Param, ParamGroup and ParamManager: defaults, the change path, auto-save
// and the registry's contract.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <chrono>
#include <memory>
#include <optional>
#include <thread>

#include "test_util.h"
#include "zelta/parammanager.h"

using namespace Quorvel::Kvan;
using std::chrono::milliseconds;
using namespace zelta_test;

TEST(Param, DefaultsByType) {
  ParamGroup g("defaults", "/nonexistent/defaults.txt");
  Param i(g, INTEGER, nullptr), s(g, STRING, nullptr), ip(g, IPADDRESS, nullptr), t(g, TIMETICKS, nullptr),
      a(g, LOGADDRMAIN, nullptr), tbl(g, TABLE, nullptr), odd(g, static_cast<ValueType>(99), nullptr);
  EXPECT_EQ(i.getValue().getLong(), 0);
  EXPECT_EQ(s.getValue().getString(), "");
  EXPECT_EQ(ip.getValue().getString(), "0.0.0.0");
  EXPECT_EQ(t.getValue().getTimeTicks().value, 0u);
  EXPECT_EQ(Common::logaddrMainToString(a.getValue().getLogaddrMain()), std::string(8, '\0'));
  EXPECT_EQ(tbl.getValue().getTable().getDef(), nullptr);
  EXPECT_EQ(odd.getValue().getType(), VariantType::UNDEFINED);
  EXPECT_FALSE(i.isSnmpEntry());
  EXPECT_EQ(g.getParams().size(), 7u);
  g.addOwnedParam(&i);  // a second enrolment is ignored
  EXPECT_EQ(g.getParams().size(), 7u);
  // A parameter built again at the address of a destroyed one keeps its
  // entry and its place; one that outlives its group leaves it alone.
  std::optional<Param> again(std::in_place, g, INTEGER, nullptr);
  Param later(g, INTEGER, nullptr);
  again.reset();
  again.emplace(g, STRING, nullptr);
  ASSERT_EQ(g.getParams().size(), 9u);
  EXPECT_EQ(g.getParams()[7], &*again);
  auto gone = std::make_unique<ParamGroup>("gone", "/nonexistent/gone.txt");
  std::optional<Param> orphan(std::in_place, *gone, INTEGER, nullptr);
  gone.reset();
  orphan.reset();
  EXPECT_EQ(i.getValue().getListener(), &i);
}

// Hooks run for announced changes of an active group only: not for the host's
// silent writes, nor for loading, which schedules no save either.
TEST(Param, HooksRunOnlyForAnnouncedChangesWhileTheGroupIsActive) {
  TempDir dir;
  ParamGroup g("hooks", dir.write("hooks.txt", "volume.0 = 0:2:12\n"));
  Param p(g, INTEGER, Variant(3), nullptr, NEVER_SAVE), loaded(g, INTEGER, nullptr);
  std::vector<std::string> calls;
  auto hook = [&calls](const std::string& tag) -> PostSet {
    return [&calls, tag](const Variant& v, const ExtraInfo* info) {
      calls.push_back(tag + ":" + v.toString() + ":" + std::to_string(info ? info->action : 0));
    };
  };
  bool validated = false;
  p.setValidator([&](const Variant&, const ExtraInfo*) { return validated = true; });
  p.addPostSet(hook("a"));
  p.addPostSet(hook("b"));
  loaded.addPostSet(hook("loaded"));
  ParamManager manager;
  manager.add("volume", &loaded);
  g.setActiveMode(false);
  manager.loadAllGroups();
  EXPECT_TRUE(g.isActive());  // active again afterwards, whatever it was
  EXPECT_EQ(loaded.getValue().getLong(), 12);
  p.setValue(3);
  EXPECT_FALSE(validated);
  EXPECT_TRUE(calls.empty());
  EXPECT_FALSE(g.isWorkerRunning());
  g.setActiveMode(false);
  p.onChange("set value on int leaf", new ExtraInfo({}, 5, -1));  // freed by the parameter
  EXPECT_TRUE(calls.empty());
  g.setActiveMode(true);
  p.onChange("set value on int leaf", nullptr);
  EXPECT_EQ(calls, (std::vector<std::string>{"a:3:0", "b:3:0"}));
  EXPECT_FALSE(g.isWorkerRunning());  // NEVER_SAVE does not tell the group
}

TEST(Param, TableChangesScheduleASaveOnlyForActivationAndCellActions) {
  TempDir dir;
  ParamGroup g("table", dir.file("table.txt"));
  TableDef def({1}, 3, 1);
  def.fields[2] = FieldType(INTEGER, NO_RANGE, NO_RANGE);
  Param p(g, TABLE, Variant(Table(&def)), nullptr);
  std::string log = captureLog(DEBUG, [&] {
    p.onChange("new row created", new ExtraInfo({1}, 1, -1));
    p.onChange("new row deleted", new ExtraInfo({1}, 2, -1));
    p.onChange("no info", nullptr);
  });
  EXPECT_FALSE(g.isWorkerRunning());
  log = captureLog(DEBUG, [&] { p.onChange("set row field value", new ExtraInfo({1}, 5, 2)); });
  EXPECT_TRUE(g.isWorkerRunning());
  EXPECT_NE(log.find("ParamGroup: change on param '': [TDEF] [set row field value]\n"), std::string::npos);
  EXPECT_TRUE(waitFor([&] { return !g.isWorkerRunning(); }, milliseconds(5000)));
}

TEST(Param, TableCellAccess) {
  ParamGroup g("cells", "/nonexistent/cells.txt");
  TableDef def({1}, 4, 1);
  def.fields[2] = FieldType(STRING, NO_RANGE, NO_RANGE);
  def.fields[3] = FieldType(TIMETICKS, NO_RANGE, NO_RANGE);
  Param p(g, TABLE, Variant(Table(&def)), nullptr);
  Param scalar(g, INTEGER, nullptr);
  EXPECT_TRUE(p.setTableCellValue({1}, 2, Variant("hall")));
  EXPECT_TRUE(p.setTableCellValue({1}, 3, Variant(TimeTicksValue{9})));
  EXPECT_TRUE(p.setTableCellValue({1}, 2, Variant(7)));  // refused by the table, still true
  Variant out, ticks;
  ASSERT_TRUE(p.getTableCellValue({1}, 2, out));
  EXPECT_EQ(out.getString(), "hall");
  ASSERT_TRUE(p.getTableCellValue({1}, 3, ticks));
  EXPECT_EQ(ticks.getType(), VariantType::TIMETICKS);
  EXPECT_FALSE(p.getTableCellValue({1}, 4, out));
  EXPECT_FALSE(p.getTableCellValue({2}, 2, out));
  EXPECT_FALSE(scalar.setTableCellValue({1}, 2, Variant(1)));
  EXPECT_FALSE(p.setTableCellValue({1}, 2, Variant()));
}

TEST(ParamGroup, NamesAndCopies) {
  ParamGroup derived("Network settings", "__NO_NAME__");
  EXPECT_EQ(derived.getFilePath(), "Network_settings.txt");
  ParamGroup explicitPath("x", "/a b/c.txt");
  EXPECT_EQ(explicitPath.getFilePath(), "/a b/c.txt");
  Param p(derived, INTEGER, nullptr);
  derived.setActiveMode(false);
  ParamGroup copy(derived);
  EXPECT_FALSE(copy.isActive());
  EXPECT_EQ(copy.getParams(), derived.getParams());
  ParamGroup assigned;
  assigned = derived;
  EXPECT_TRUE(assigned.isActive());
  EXPECT_EQ(assigned.getName(), "Network settings");
}

// A save writes the whole file (atomically when asked: no temporary is left,
// and one that a power cut left behind goes), counts every parameter, and
// reports a path it cannot write.
TEST(ParamGroup, SaveWritesWholeFilesCountsParametersAndReportsUnwritablePaths) {
  TempDir dir;
  ParamGroup g("quiet", dir.file("quiet.txt"));
  Param a(g, INTEGER, Variant(1), nullptr, NEVER_SAVE), b(g, STRING, Variant("x"), nullptr, NEVER_SAVE);
  std::string log = captureLog(DEBUG, [&] { EXPECT_TRUE(g.save()); });
  EXPECT_EQ(dir.read("quiet.txt"), "");
  EXPECT_NE(log.find("ParamGroup: saving [quiet] params on file '" + dir.file("quiet.txt") + "'\n"), std::string::npos);
  EXPECT_NE(log.find("ParamGroup: - saved 2 params\n"), std::string::npos);

  ParamGroup atomic("atomic", dir.write("atomic.txt", "old content\n"));
  atomic.setAtomicSave(true);
  Param p(atomic, STRING, Variant("new"), nullptr);
  ParamManager manager;
  manager.add("label", &p);
  ASSERT_TRUE(atomic.save());
  EXPECT_EQ(dir.read("atomic.txt"), "label.0 = 0:4:\"new\"\n");
  const std::string ls = "ls -A '" + dir.path() + "'";
  EXPECT_EQ(Common::executeProgram(ls), "atomic.txt\nquiet.txt\n");
  dir.write("atomic.txt.zelta-tmp.Ab12Cd", "torn");
  dir.write("atomic.txt.backup", "kept");  // files that merely look alike stay
  dir.write("other.txt.zelta-tmp.Ab12Cd", "kept");
  atomic.setAtomicSave(false);
  ASSERT_TRUE(atomic.save());
  EXPECT_EQ(Common::executeProgram(ls), "atomic.txt\natomic.txt.backup\nother.txt.zelta-tmp.Ab12Cd\nquiet.txt\n");

  ParamGroup bad("bad", dir.file("missing/dir/bad.txt"));
  for (bool atomicSave : {false, true}) {
    bad.setAtomicSave(atomicSave);
    log = captureLog(ERROR, [&] { EXPECT_FALSE(bad.save()); });
    EXPECT_NE(log.find("ParamGroup: - cannot save group [bad] on file '" + dir.file("missing/dir/bad.txt") + "'\n"),
              std::string::npos);
  }
}

// A file that cannot be written is tried again on the next change; the save
// comes once, about two seconds after the first change of a burst.
TEST(ParamGroup, AutoSaveRetriesAndRunsOnceAboutTwoSecondsAfterABurst) {
  TempDir dir;
  ParamGroup g("auto", dir.file("sub/auto.txt"));
  Param p(g, INTEGER, Variant(1), nullptr);
  ParamManager manager;
  manager.add("level", &p);
  std::string log = captureLog(ERROR, [&] {
    p.onChange("set value on int leaf", nullptr);
    ASSERT_TRUE(waitFor([&] { return !g.isWorkerRunning(); }, milliseconds(5000)));
  });
  EXPECT_NE(log.find("ParamGroup: - cannot save group [auto]"), std::string::npos);
  ASSERT_EQ(mkdir(dir.file("sub").c_str(), 0755), 0);
  log = captureLog(VERBOSE, [&] {
    auto start = std::chrono::steady_clock::now();
    p.setValue(2);
    p.onChange("set value on int leaf", nullptr);
    std::this_thread::sleep_for(milliseconds(700));
    p.setValue(3);
    p.onChange("set value on int leaf", nullptr);
    ASSERT_TRUE(waitFor([&] { return dir.read("sub/auto.txt") == "level.0 = 0:2:3\n"; }, milliseconds(5000)));
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GT(seconds, 1.5);
    EXPECT_LT(seconds, 4.5);
    ASSERT_TRUE(waitFor([&] { return !g.isWorkerRunning(); }, milliseconds(2000)));
  });
  EXPECT_EQ(occurrences(log, "ParamGroup: - saved "), 1u);
  EXPECT_NE(log.find("ParamGroup: name: auto, ticks: 2\n"), std::string::npos);
  EXPECT_NE(log.find("ParamGroup: name: auto, ticks elapsed, saving...\n"), std::string::npos);
}

// A process that exits while a countdown runs saves at once and ends cleanly:
// no worker outlives the log or the group it writes (AddressSanitizer sees
// any that does).
TEST(ParamGroupDeathTest, ExitDuringACountdownSavesAndEndsCleanly) {
  TempDir dir;
  const std::string path = dir.file("exit.txt");
  EXPECT_EXIT(
      {
        static ParamGroup group("exit", path);
        static Param label(group, STRING, Variant("a"), nullptr);
        static ParamManager manager;
        manager.add("label", &label);
        Log["libzelta"].level = VERBOSE;  // the worker logs on every tick
        label.setValue(std::string("changed"));
        label.notifyAll("exit test", nullptr);
        exit(0);
      },
      testing::ExitedWithCode(0), "");
  EXPECT_EQ(dir.read("exit.txt"), "label.0 = 0:4:\"changed\"\n");
}

// A group destroyed while it counts down (a host's locals going out of scope,
// parameters first) waits for its worker, which does not save.
TEST(ParamGroup, DestroyedDuringItsCountdownEndsItsWorkerWithoutSaving) {
  TempDir dir;
  auto group = std::make_unique<ParamGroup>("gone", dir.file("gone.txt"));
  auto param = std::make_unique<Param>(*group, INTEGER, nullptr);
  param->setName("p");
  param->notifyAll("countdown", nullptr);
  ASSERT_TRUE(group->isWorkerRunning());
  const auto start = std::chrono::steady_clock::now();
  param.reset();
  group.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(1500));
  EXPECT_FALSE(Common::fileExists(dir.file("gone.txt")));
}

TEST(ParamManager, RegistersUnderTheKeyAndCollectsGroups) {
  TempDir dir;
  ParamGroup g("reg", dir.file("reg.txt"));
  Param a(g, INTEGER, Variant(4), nullptr), b(g, INTEGER, nullptr), c(g, INTEGER, Variant(9), nullptr);
  ParamManager manager;
  a.setName("old");
  EXPECT_TRUE(manager.add("volume", &a));
  manager.add("bass", &b);
  std::string log = captureLog(WARNING, [&] { manager.add("treble_level", &c); });
  EXPECT_NE(log.find("ParamManager: key contains underscores!\n"), std::string::npos);
  EXPECT_EQ(a.getName(), "volume");
  EXPECT_EQ(manager["volume"], &a);
  EXPECT_EQ(manager.getGroups().size(), 1u);
  manager.saveAllGroups();
  // A key with an underscore is written but cannot be read back.
  c.setValue(1);
  manager.loadAllGroups();
  EXPECT_EQ(c.getValue().getLong(), 1);
  EXPECT_EQ(a.getValue().getLong(), 4);
}

TEST(ParamDeathTest, MisuseAborts) {
  ParamGroup g("misuse", "/nonexistent/misuse.txt"), placeholder;
  Param a(g, INTEGER, nullptr);
  ParamManager manager;
  manager.add("a", &a);
  EXPECT_DEATH(a.setValue("x"), "type == VariantType::UNDEFINED \\|\\| type == other.type");
  EXPECT_DEATH(placeholder.save(), "name != \"__NO_NAME__\"");
  EXPECT_DEATH(manager.add("", &a), "key.size\\(\\) > 0");
  EXPECT_DEATH(manager.add("b", nullptr), "param != __null");
  EXPECT_DEATH(manager.add("a", &a), "params.find\\(key\\) == params.end\\(\\)");
  EXPECT_DEATH(manager["nosuch"], "params.find\\(key\\) != params.end\\(\\)");
  EXPECT_DEATH(
      {
        a.setName("renamed");
        manager["a"];
      },
      "params\\[key\\]->getName\\(\\) == key");
  // A host that cleared the stored pointer through the reference gets the
  // null assertion, not a crash in the name check.
  EXPECT_DEATH(
      {
        manager["a"] = nullptr;
        manager["a"];
      },
      "params\\[key\\] != __null");
}
