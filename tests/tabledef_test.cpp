#include "zelta/tabledef.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>

#include "zelta/addresses.h"

using namespace Quorvel::Kvan;

namespace {

// Death-test pattern matching glibc's report of exactly this assertion text.
std::string assertion(const std::string& text) {
  std::string re = "Assertion `";
  for (char c : text) re += std::string(std::string("\\.^$|()[]{}*+?").find(c) != std::string::npos, '\\') + c;
  return re + "' failed";
}
const char kKindChange[] = "type == VariantType::UNDEFINED || type == other.type";

template <typename F>
std::string stdoutOf(F&& f) {
  testing::internal::CaptureStdout();
  f();
  return testing::internal::GetCapturedStdout();
}

// Column 1 is the index; 2 int, 3 string, 4 ip, 5 ticks, 6 address, 7 nested table.
class TableTest : public testing::Test {
 protected:
  std::map<unsigned int, FieldType> f{{2, {INTEGER, 0, 9}},   {3, {STRING, 0, 8}},      {4, {IPADDRESS, 0, 0}},
                                      {5, {TIMETICKS, 0, 0}}, {6, {LOGADDRMAIN, 0, 0}}, {7, {TABLE, 0, 0}}};
  TableDef def{{1}, 9, f, 1};
  TableDef def2{{1, 2}, 9, 2};
  Table t{&def};
};

class Listener final : public IChangeListener {
 public:
  bool fill(Variant& v, const ExtraInfo*) override {
    v = Variant(42);
    return verdict;
  }
  // Records the proposal only when, as required, no ExtraInfo comes with it.
  bool validate(const Variant& v, const ExtraInfo* info) override {
    if (info == nullptr) proposed = v.getLong();
    return verdict;
  }
  void onChange(const std::string& why, const ExtraInfo* info) override {
    reason = why + std::to_string(info->column);
    delete info;
  }
  bool verdict = true;
  long proposed = 0;
  std::string reason;
};

}  // namespace

TEST(VariantKindDeathTest, WrongKindAborts) {
  Variant s("x"), n(5);
  EXPECT_DEATH(s.getLong(), assertion("type == VariantType::LONG && \"error: value is not a long!\""));
  EXPECT_DEATH(n.getTimeTicks(), "error: value is not a TimeTicksValue!");
  EXPECT_DEATH(n.getLogaddrMain(), "error: value is not a logaddr_main_t!");
  EXPECT_DEATH(n.getString(), "error: value is not a string!");
  EXPECT_DEATH(n.getIPAddress(), "error: value is not an ip!");
  EXPECT_DEATH(n.getMutableTable(), "error: value is not a Table!");
  EXPECT_DEATH(n = s, assertion(kKindChange));
  EXPECT_DEATH(n = Variant(), assertion(kKindChange));
  EXPECT_DEATH((void)(n == s), assertion("type == other.type"));
}

// long is 32 bits on the target; wider builds must read back the same values.
TEST_F(TableTest, ValuesWrapAt32BitsOnEveryBuild) {
  EXPECT_EQ(Variant(static_cast<long>(INT64_C(2147483648))).getLong(), INT32_MIN);
  EXPECT_EQ(Variant(TimeTicksValue{3000000000u}).toString(), "3000000000");
  ASSERT_TRUE(t.setCellValue({1}, 5, static_cast<long>(-1294967296)));
  EXPECT_EQ(t[{1}][5].getTimeTicks().value, 3000000000u);
  ASSERT_TRUE(t.setCellValue({1}, 2, static_cast<long>(INT64_C(3000000000))));
  EXPECT_EQ(t[{1}][2].getLong(), -1294967296L);
}

TEST_F(TableTest, VariantCopiesAreIndependentAndKeepTheirListener) {
  Listener l;
  Variant a(""), b("y");
  b.setListener(&l);
  b = a;
  EXPECT_EQ(b.getListener(), &l);
  EXPECT_EQ(a.getIPAddress(), "0.0.0.0");  // stored, in the source only
  EXPECT_EQ(b.getString(), "");
  Variant c(b), &alias = c;
  c = alias;
  EXPECT_EQ(c.getListener(), nullptr);
  EXPECT_EQ(c.getString(), "");

  Table inner(&def);
  inner.addRow({0});
  t.addRow({1})[7] = Variant(inner);
  Variant tv(t), copy(tv);
  copy.getMutableTable()->setCellValue({1}, 3, std::string("changed"));
  EXPECT_EQ(tv.getTable()[{1}].at(3).getString(), "");
  tv = tv.getTable()[{1}].at(7);  // the source lives inside the destination
  EXPECT_EQ(tv.getTable().getRows().count({0}), 1u);
  Table tc(t);
  tc.deleteRow({1});
  EXPECT_EQ(tc.getDef(), &def);
  EXPECT_EQ(t.getRows().size(), 1u);
}

TEST(VariantEquality, NumbersByValueStringsAndTablesByIdentity) {
  EXPECT_TRUE(Variant(5) == Variant(5L));
  EXPECT_FALSE(Variant(TimeTicksValue{1}) == Variant(TimeTicksValue{2}));
  EXPECT_FALSE(Variant() == Variant());
  Variant s("a");
  std::string out = stdoutOf([&] { EXPECT_TRUE(s == s && !(s == Variant("a"))); });
  EXPECT_NE(out.find("\033[00;34m[TRACE] lib/src/values/tabledef.cpp:operator==:"), std::string::npos) << out;
}

TEST(VariantListener, CallsAreRoutedToTheListener) {
  Variant v(1);
  EXPECT_TRUE(v.callValidator(Variant(7)) && v.callFiller(nullptr));
  auto kept = std::make_unique<ExtraInfo>(RowIdx{1}, 5, 3);
  v.notifyListener("unheard", kept.get());  // not handed over: the unique_ptr frees it

  Listener l;
  v.setListener(&l);
  ExtraInfo info({}, 5, -1);
  EXPECT_TRUE(v.callValidator(Variant(7)));
  EXPECT_EQ(l.proposed, 7);
  EXPECT_TRUE(v.callFiller(&info));
  EXPECT_EQ(v.getLong(), 42);
  l.verdict = false;
  stdoutOf([&] { EXPECT_FALSE(v.callValidator(Variant(8)) || v.callFiller(&info)); });
  v.notifyListener("set row field value", new ExtraInfo({1}, 5, 3));
  EXPECT_EQ(l.reason, "set row field value3");
}

TEST_F(TableTest, NextFreeIndexFollowsTheLastRowAndAbsentRowsAreNotCreated) {
  Table t2(&def2);
  EXPECT_EQ(t.getNextAvailableRowIdx(), RowIdx{0});
  EXPECT_EQ(t2.getNextAvailableRowIdx(), (RowIdx{0, 0}));
  t2.addRow({1, 9});
  t2.addRow({2, 3});
  EXPECT_EQ(t2.getNextAvailableRowIdx(), (RowIdx{2, 4}));
  for (unsigned long i : {1, 2, 4}) t.addRow({i});
  EXPECT_EQ(t.getNextAvailableRowIdx(), RowIdx{5});
  EXPECT_EQ(t.getNextAvailableRowIdx({1}), RowIdx{3});
  EXPECT_EQ(t.getNextAvailableRowIdx({7}), RowIdx{7});

  // Absent rows are reported, not created.
  try {
    static_cast<const Table&>(t2)[{3, 4}];
    ADD_FAILURE();
  } catch (const std::string& e) {
    EXPECT_EQ(e, "Row .3.4 does not exist!");
  }
  EXPECT_THROW(t2[RowIdx({3, 4})], std::string);
  TableRow out{{2, Variant(9)}};
  EXPECT_FALSE(t2.getRow({3, 4}, out));
  EXPECT_EQ(out.at(2).getLong(), 9);
  stdoutOf([&] { EXPECT_FALSE(t2.deleteRow({3, 4})); });
  EXPECT_EQ(t2.getRows().size(), 2u);
}

TEST_F(TableTest, AddRowResetsEveryCellToItsDefault) {
  TableRow& row = t.addRow({1});
  EXPECT_EQ(row.size(), 5u);  // no cell for the nested table column
  EXPECT_EQ(row[4].getString(), "0.0.0.0");
  EXPECT_EQ(Common::logaddrMainToString(row[6].getLogaddrMain()), std::string(8, '\0'));
  t.setCellValue({1}, 2, 7L);
  t.addOrUpdateRow({1});
  EXPECT_TRUE(t.getRow({1}, row));
  EXPECT_EQ(row.at(2).getLong(), 7);
  EXPECT_EQ(t.addRow({1})[2].getLong(), 0);
}

TEST_F(TableTest, SettersRefuseForeignColumnsAndInsertBareRows) {
  def.fields[1] = FieldType(STRING, 0, 8);  // an index column never takes a cell
  EXPECT_FALSE(t.setCellValue({1}, 2, std::string("x")) || t.setCellValue({1}, 1, std::string("x")));
  EXPECT_FALSE(t.setCellValue({1}, 3, 5L) || t.setCellValue({1}, 8, 5L));
  EXPECT_TRUE(t.getRows().empty());
  EXPECT_TRUE(t.setCellValue({2}, 4, std::string("10.0.0.1")));
  EXPECT_EQ(t[{2}].size(), 1u);
  EXPECT_TRUE(t.setCellValue({2}, 5, 7L));
  EXPECT_EQ(t[{2}][5].getTimeTicks().value, 7u);

  const unsigned char addr[8] = {'0', '0', '0', '0', '1', '2', '3', '4'};
  def.fields[1] = FieldType(LOGADDRMAIN, 0, 0);
  EXPECT_TRUE(t.setCellValue({3}, 1, addr));  // no index-column check here
  EXPECT_FALSE(t.setCellValue({3}, 8, addr));
  EXPECT_EQ(def.fields.count(8), 1u);     // looked up by inserting...
  EXPECT_EQ(t.addRow({4}).count(8), 0u);  // ...but gains no cells
  t[{4}].erase(3);
  t[{4}].emplace(3, Variant(5));
  EXPECT_DEATH(t.setCellValue({4}, 3, std::string("x")), assertion(kKindChange));
}

TEST_F(TableTest, MatchFindsTheFirstEqualNumberAndNeverAString) {
  for (unsigned long i : {3, 1, 2}) t.addRow({i})[2] = Variant(i == 1 ? 9 : 4);
  RowIdx idx;
  EXPECT_TRUE(t.findRowWithMatch(2, Variant(4), idx));
  EXPECT_EQ(idx, RowIdx{2});
  TableRow row;
  EXPECT_FALSE(t.findRowWithMatch(2, Variant(5), row));
  stdoutOf([&] { EXPECT_FALSE(t.findRowWithMatch(3, Variant(""), idx)); });
  EXPECT_DEATH(t.findRowWithMatch(8, Variant(4), idx), assertion("type == other.type"));
}
