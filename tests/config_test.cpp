// Settings that outlive the program that wrote them: two versions of one host
// program on the same files, checked loading, and the factory reset, export
// and import of settings while the agent serves them.
#include <fcntl.h>
#include <sys/stat.h>

#include "snmp_fixture.h"

using namespace zelta_test;
using std::chrono::milliseconds;

namespace {

std::map<unsigned int, FieldType> routeFields(unsigned int metric, unsigned int description, unsigned int weight) {
  std::map<unsigned int, FieldType> fields{{3, FieldType(IPADDRESS, NO_RANGE, NO_RANGE)},
                                           {metric, FieldType(INTEGER, 0, 15)},
                                           {description, FieldType(STRING, 0, 64)}};
  if (weight != 0) fields[weight] = FieldType(INTEGER, NO_RANGE, NO_RANGE);
  return fields;
}

// Version 1 or 2 of a host program, on the same file. Version 1 has a
// volume, a treble of 0..100 and a routing table (index, RowStatus,
// destination, metric, description). Version 2 calls the volume
// speakerVolume, takes a treble of 0..50 only, adds a bass, keeps the table
// as routeTable with the description before the metric and a weight added,
// and checks every value it loads.
struct Firmware {
  Firmware(const TempDir& dir, int version)
      : audio("audio", dir.file("audio.txt")),
        fields(version == 1 ? routeFields(4, 5, 0) : routeFields(5, 4, 6)),
        def({1}, 2, fields, 1),
        volume(audio, INTEGER, Variant(7), nullptr, SAVE_ON_CHANGE, {0, 100}),
        treble(audio, INTEGER, Variant(version == 1 ? 50 : 20), nullptr, SAVE_ON_CHANGE,
               Param::Range(0, version == 1 ? 100 : 50)),
        routes(audio, TABLE, Variant(Table(&def)), nullptr) {
    audio.setKeepForeignLines(true);
    manager.add("treble", &treble);
    if (version == 1) {
      manager.add("volume", &volume);
      manager.add("routes", &routes);
    } else {
      bass = std::make_unique<Param>(audio, INTEGER, Variant(0), nullptr);
      volume.addFormerName("volume");
      routes.addFormerName("routes", {{4, 5}, {5, 4}});
      manager.add("speakerVolume", &volume);
      manager.add("routeTable", &routes);
      manager.add("bass", bass.get());
      manager.setCheckedLoading(true);
    }
    manager.loadAllGroups();
  }
  ParamGroup audio;
  std::map<unsigned int, FieldType> fields;
  TableDef def;
  Param volume, treble, routes;
  std::unique_ptr<Param> bass;
  ParamManager manager;
};

}  // namespace

TEST(Settings, SurviveAnUpgradeADowngradeAndAnUpgradeAgain) {
  TempDir dir;
  {
    Firmware v1(dir, 1);
    v1.volume.setValue(42);
    v1.treble.setValue(80);
    Table routes(&v1.def);
    routes.addRow({1});
    routes.setCellValue({1}, 3, std::string("10.1.0.0"));
    routes.setCellValue({1}, 4, 3L);
    routes.setCellValue({1}, 5, std::string("uplink"));
    v1.routes.setValue(routes);
    ASSERT_TRUE(v1.audio.save());
  }
  // The treble the owner set stays as version 1 wrote it until the owner
  // sets another.
  const std::string upgraded =
      "speakerVolume.0 = 0:2:42\ntreble.0 = 0:2:80\nrouteTable.1 = 3:64:10.1.0.0 4:4:\"uplink\" 5:2:3 6:2:0 \n"
      "bass.0 = 0:2:9\n";
  {
    std::unique_ptr<Firmware> v2;
    const std::string log = captureLog(WARNING, [&] { v2 = std::make_unique<Firmware>(dir, 2); });
    EXPECT_EQ(occurrences(log, "refused"), 1u) << log;
    EXPECT_EQ(occurrences(log, "refused treble.0 = 0:2:80 in '" + dir.file("audio.txt") + "': 80 outside 0..50"), 1u);
    EXPECT_EQ(v2->volume.getValue().getLong(), 42);
    EXPECT_EQ(v2->treble.getValue().getLong(), 20);
    v2->bass->setValue(9);
    ASSERT_TRUE(v2->audio.save());
    EXPECT_EQ(dir.read("audio.txt"), upgraded);
  }
  {
    Firmware v1(dir, 1);
    EXPECT_EQ(v1.volume.getValue().getLong(), 7);  // it knows the old key only
    EXPECT_EQ(v1.treble.getValue().getLong(), 80);
    ASSERT_TRUE(v1.audio.save());
    EXPECT_EQ(dir.read("audio.txt"),
              "volume.0 = 0:2:7\ntreble.0 = 0:2:80\nspeakerVolume.0 = 0:2:42\n"
              "routeTable.1 = 3:64:10.1.0.0 4:4:\"uplink\" 5:2:3 6:2:0 \nbass.0 = 0:2:9\n");
  }
  Firmware v2(dir, 2);
  ASSERT_TRUE(v2.audio.save());
  EXPECT_EQ(dir.read("audio.txt"), upgraded);
  v2.treble.setValue(30);
  ASSERT_TRUE(v2.audio.save());
  EXPECT_EQ(occurrences(dir.read("audio.txt"), "treble.0 = 0:2:30\nrouteTable"), 1u);
}

TEST(Settings, CheckedLoadingKeepsDefaultsAndLeavesRefusedLinesInTheFile) {
  TempDir dir;
  std::vector<int> asked;  // the action of every ExtraInfo a validator saw
  const auto noThirteen = [&](const Variant& v, const ExtraInfo* info) {
    asked.push_back(info != nullptr ? info->action : 0);
    return v.getLong() != 13;
  };
  std::map<unsigned int, FieldType> fields{{3, FieldType(INTEGER, noThirteen, 0, 15)}};
  TableDef def({1}, 2, fields, 1);
  ParamGroup group("box", dir.file("box.txt"));
  group.setCheckedLoading(true);
  Param volume(group, INTEGER, Variant(7), nullptr, SAVE_ON_CHANGE, {0, 100});
  Param name(group, STRING, Variant("box"), nullptr, SAVE_ON_CHANGE, {1, 8});
  Param gateway(group, IPADDRESS, Variant("10.0.0.1"), nullptr);
  Param address(group, LOGADDRMAIN, nullptr);
  Param metrics(group, TABLE, Variant(Table(&def)), nullptr);
  gateway.setValidator([&](const Variant& v, const ExtraInfo* info) {
    asked.push_back(info != nullptr ? info->action : 0);
    return v.getString() != "10.0.0.9";
  });
  ParamManager manager;
  for (auto [key, param] : {std::pair{"volume", &volume},
                            {"name", &name},
                            {"gateway", &gateway},
                            {"address", &address},
                            {"metrics", &metrics}})
    manager.add(key, param);
  // Out of range, too long, refused by the validator, of the wrong type, an
  // address of 4 bytes, a row refused by its column's validator.
  const std::string refused =
      "volume.0 = 0:2:101\nname.0 = 0:4:\"cupboard9\"\ngateway.0 = 0:64:10.0.0.9\ngateway.0 = 0:4:\"10.0.0.2\"\n"
      "address.0 = 0:4:\"1234\"\nmetrics.2 = 3:2:4 \nmetrics.1 = 3:2:13 \n";
  dir.write("box.txt", refused);
  const std::string log = captureLog(WARNING, [&] { manager.loadAllGroups(); });
  EXPECT_EQ(occurrences(log, "ParamManager: - refused "), 6u) << log;
  for (const char* why : {"101 outside 0..100", "length 9 outside 1..8", "10.0.0.9 refused by the validator",
                          "written as type 4, not as type 64", "'\"1234\"' is no value of type 152",
                          "column 3: 13 refused by the validator"})
    EXPECT_EQ(occurrences(log, why), 1u) << why;
  EXPECT_EQ(volume.getValue().getLong(), 7);
  EXPECT_EQ(name.getValue().getString(), "box");
  EXPECT_EQ(gateway.getValue().getString(), "10.0.0.1");
  const uint8_t zeros[8] = {};
  EXPECT_TRUE(Common::logaddrMainEq(address.getValue().getLogaddrMain(), zeros));
  EXPECT_EQ(metrics.getValue().getTable().getRows().size(), 1u);
  EXPECT_EQ(asked, (std::vector<int>{ACTION_LOADED, ACTION_LOADED, ACTION_LOADED}));

  // Saves keep every refused line (a single value its last one) until the
  // host writes the value.
  ASSERT_TRUE(group.save());
  const std::string kept =
      "volume.0 = 0:2:101\nname.0 = 0:4:\"cupboard9\"\ngateway.0 = 0:4:\"10.0.0.2\"\n"
      "address.0 = 0:4:\"1234\"\nmetrics.2 = 3:2:4 \nmetrics.1 = 3:2:13 \n";
  EXPECT_EQ(dir.read("box.txt"), kept);
  manager.loadAllGroups();
  ASSERT_TRUE(group.save());
  EXPECT_EQ(dir.read("box.txt"), kept);
  volume.setValue(50);
  metrics.setTableCellValue({2}, 3, Variant(5L));
  ASSERT_TRUE(group.save());
  EXPECT_EQ(dir.read("box.txt"),
            "volume.0 = 0:2:50\nname.0 = 0:4:\"cupboard9\"\ngateway.0 = 0:4:\"10.0.0.2\"\n"
            "address.0 = 0:4:\"1234\"\nmetrics.2 = 3:2:5 \n");

  // Constructed without a value, a parameter's factory value is its type's
  // default; a type without one keeps what it holds.
  Param bare(group, INTEGER, Variant(), nullptr), odd(group, static_cast<ValueType>(99), Variant(), nullptr);
  bare.setValue(5);
  odd.setValue(5);
  captureLog(WARNING, [&] { manager.factoryReset({&group}); });
  EXPECT_EQ(bare.getValue().getLong(), 0);
  EXPECT_EQ(odd.getValue().getLong(), 5);
  bare.setValue(6);
  std::string error;
  captureLog(WARNING, [&] { ASSERT_TRUE(manager.importConfig("[box]\n# end of configuration\n", error)) << error; });
  EXPECT_EQ(bare.getValue().getLong(), 0);
}

namespace {

const std::string kBase = ".1.3.6.1.4.1.99999.7";

// The agent's device with a second table in its network group whose factory
// setting has a row.
class SettingsAgentTest : public testing::Test {
 protected:
  void SetUp() override {
    device.manager.add("presets", &presets);
    device.volume.addPostSet(
        [&](const Variant&, const ExtraInfo* info) { actions.push_back(info != nullptr ? info->action : 0); });
    // Files read while a SET's auto-save may write them are whole.
    device.settings.setAtomicSave(true);
    device.network.setAtomicSave(true);
    device.manager.loadAllGroups();
    agent = startServingAgent(&device.manager, port);
    ASSERT_NE(agent, nullptr);
  }
  void TearDown() override {
    if (agent) {
      agent->stop();
      agent->waitForFinish();
    }
    // Let a pending auto-save finish before the groups go away.
    waitFor([&] { return !device.settings.isWorkerRunning() && !device.network.isWorkerRunning(); },
            milliseconds(6000));
  }
  static Table factoryPresets(TableDef* def) {
    Table table(def);
    table.addRow({1});
    table.setCellValue({1}, 3, std::string("jazz"));
    return table;
  }
  std::string walk(const std::string& oid) { return v2c("snmpwalk", {"127.0.0.1:" + std::to_string(port), oid}).out; }
  std::string get(const std::string& oid) {
    return valueOf(v2c("snmpget", {"127.0.0.1:" + std::to_string(port), oid}).out, oid);
  }

  TempDir dir;
  HostDevice device{dir.path()};
  std::map<unsigned int, FieldType> presetFields{{3, FieldType(STRING, 0, 16)}};
  TableDef presetDef{{1}, 2, presetFields, 1};
  SNMPInfo presetsInfo{kBase.substr(1) + ".6.1", READCREATE};
  Param presets{device.network, TABLE, Variant(factoryPresets(&presetDef)), &presetsInfo};
  std::vector<int> actions;  // of the volume's post-set hook
  std::unique_ptr<SNMPAgent> agent;
  int port = 0;
};

}  // namespace

TEST_F(SettingsAgentTest, ImportIsAllOrNothingAndServedAtOnce) {
  const std::string before = device.manager.exportConfig();
  EXPECT_EQ(before,
            "[network]\npresets.1 = 3:4:\"jazz\" \n"
            "[settings]\nvolume.0 = 0:2:7\nname.0 = 0:4:\"box\"\nserial.0 = 0:4:\"SN1\"\nhidden.0 = 0:2:1\n"
            "# end of configuration\n");
  const std::string good =
      "[settings]\nvolume.0 = 0:2:55\nname.0 = 0:4:\"den\"\n[network]\nroutes.4 = 3:64:10.9.0.0 4:2:5 \n"
      "# end of configuration\n";
  std::string binary = good;
  binary[15] = '\0';
  const std::pair<std::string, std::string> refusals[] = {
      {Common::replace(good, "4:2:5", "4:2:13"), "line 5: routes.4: column 4: 13 refused by the validator"},
      {good.substr(0, good.find("# end")), "line 6: the text ends without its last line"},
      {binary, "line 2: binary data"},
      {Common::replace(good, "\"den\"", "\"d\\q\""), "line 3: name.0: '\"d\\q\"' is no value of type 4"},
      {std::string(ParamManager::kMaxConfigBytes + 1, '#'), "more than the 16777216 an import takes"},
      {"[sound]\n# end of configuration\n", "line 1: no group is named 'sound'"},
  };
  for (const auto& [text, why] : refusals) {
    std::string error;
    EXPECT_FALSE(device.manager.importConfig(text, error));
    EXPECT_NE(error.find(why), std::string::npos) << error;
  }
  EXPECT_EQ(device.manager.exportConfig(), before);
  EXPECT_FALSE(Common::fileExists(dir.file("settings.txt")));
  EXPECT_EQ(get(kBase + ".1.0"), "INTEGER: 7");
  EXPECT_EQ(occurrences(walk(kBase + ".5"), kBase + ".5.1."), 0u);

  std::string error;
  ASSERT_TRUE(device.manager.importConfig(good, error)) << error;
  EXPECT_EQ(get(kBase + ".1.0"), "INTEGER: 55");
  EXPECT_EQ(valueOf(walk(kBase + ".5"), kBase + ".5.1.3.4"), "IpAddress: 10.9.0.0");
  // Each section is its group's whole setting: what it leaves out is the
  // factory's.
  EXPECT_EQ(dir.read("settings.txt"),
            "volume.0 = 0:2:55\nname.0 = 0:4:\"den\"\nserial.0 = 0:4:\"SN1\"\nhidden.0 = 0:2:1\n");
  EXPECT_EQ(dir.read("network.txt"), "routes.4 = 3:64:10.9.0.0 4:2:5 \npresets.1 = 3:4:\"jazz\" \n");
  EXPECT_EQ(actions, std::vector<int>{ACTION_IMPORTED});

  // Through files: a link keeps leading to the file the export replaces, a
  // FIFO stays one and gets the text, and the import reads a file back.
  const std::string now = device.manager.exportConfig();
  dir.write("real.txt", "old");
  ASSERT_EQ(symlink(dir.file("real.txt").c_str(), dir.file("link.txt").c_str()), 0);
  ASSERT_TRUE(device.manager.exportConfigFile(dir.file("link.txt"), error)) << error;
  struct stat info {};
  EXPECT_TRUE(lstat(dir.file("link.txt").c_str(), &info) == 0 && S_ISLNK(info.st_mode));
  EXPECT_EQ(dir.read("real.txt"), now);
  ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
  const int reader = open(dir.file("fifo").c_str(), O_RDONLY | O_NONBLOCK);  // the text fits the pipe's buffer
  ASSERT_GE(reader, 0);
  ASSERT_TRUE(device.manager.exportConfigFile(dir.file("fifo"), error)) << error;
  std::string piped(now.size() + 1, '\0');
  piped.resize(static_cast<size_t>(std::max<ssize_t>(0, read(reader, piped.data(), piped.size()))));
  close(reader);
  EXPECT_EQ(piped, now);
  EXPECT_TRUE(stat(dir.file("fifo").c_str(), &info) == 0 && S_ISFIFO(info.st_mode));
  EXPECT_TRUE(device.manager.importConfigFile(dir.file("link.txt"), error)) << error;
}

TEST_F(SettingsAgentTest, FactoryResetIsServedAtOnceAndSaved) {
  ToolResult set = v2c("snmpset", {"127.0.0.1:" + std::to_string(port), kBase + ".1.0", "i", "42", kBase + ".6.1.3.1",
                                   "s", "pop", kBase + ".6.1.3.2", "s", "rock", kBase + ".6.1.2.2", "i", "4"});
  ASSERT_EQ(set.exitCode, 0) << set.out;
  ASSERT_EQ(valueOf(walk(kBase + ".6"), kBase + ".6.1.3.2"), "STRING: \"rock\"");

  device.manager.factoryReset();
  EXPECT_EQ(get(kBase + ".1.0"), "INTEGER: 7");
  const std::string rows = walk(kBase + ".6");
  EXPECT_EQ(valueOf(rows, kBase + ".6.1.3.1"), "STRING: \"jazz\"");
  EXPECT_EQ(occurrences(rows, kBase + ".6.1.3."), 1u) << rows;
  EXPECT_EQ(dir.read("network.txt"), "presets.1 = 3:4:\"jazz\" \n");
  EXPECT_EQ(occurrences(dir.read("settings.txt"), "volume.0 = 0:2:7\n"), 1u);
  EXPECT_EQ(actions, (std::vector<int>{0, ACTION_FACTORY_RESET}));  // the SET's hook had no ExtraInfo
}
