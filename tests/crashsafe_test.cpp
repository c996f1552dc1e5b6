// A save killed at a random moment: with atomic saving the file is always
// either the old or the new complete content.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>

#include "test_util.h"
#include "zelta/parammanager.h"

using namespace Quorvel::Kvan;

TEST(CrashSafeSave, KilledAtomicSavesLeaveTheOldOrTheNewFile) {
  zelta_test::TempDir dir;
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
    for (int i = 0; child == 0; ++i) {
      label.setValue(std::string(i % 2 ? "b" : "a"));
      group.save();
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
