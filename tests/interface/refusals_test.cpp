// Every way in which an exported function refuses a call, against the transcript refusals.txt: the status, the outputs
// that were written all the same, and the log lines. Hosts match on these lines; the transcript is their list.
//
// KAVO_REWRITE_REFUSALS=1 interface_test --gtest_filter='Refusals.*' writes the transcript anew. What has changed is
// what `git diff` shows, and every line of it may be one that a host looks for.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "adapter/manager.h"
#include "kavo.h"
#include "platform/test_hooks.h"
#include "support/log_capture.h"

namespace KavoTest {
namespace {

constexpr unsigned BASIC = 7;
constexpr unsigned MAPPED = 70'000;
constexpr unsigned FILTER = 9;
constexpr unsigned STRANGE = 10;
constexpr unsigned FULL = 11;
constexpr unsigned UNUSED = 8;
constexpr unsigned UNUSED_MAPPED = 4'294'967'295;
constexpr long KEY = 3;
constexpr long COUNTED = 5;
constexpr long ABSENT = 4;
constexpr unsigned LEN = 16;

constexpr char HEAD[] =
    R"(What the exported functions answer to calls that they refuse, and the log lines that a host can match on.

A call is followed by its status, by the outputs that it has written all the same, and by its lines in their order:
level, function and message of "[unit:line]tid:thread,function(line) : message\r\n". The unit is
concurrent_tables_adapter.cpp where none is named. Error, event, warning and info lines come on channel 0x100003D, debug
lines on 0x1003D.

Values have LEN (16) bytes. BASIC (id 7) and MAPPED (id 70000) are basic tables, FILTER (id 9) is a filter table: KEY (3)
is present, COUNTED (5) has no value yet, ABSENT (4) is absent. UNUSED (id 8) and UNUSED_MAPPED (id 4294967295) are not
in use. Arguments are valid unless their name says otherwise; those of `out` are written to.
)";

std::string NameOf(int status) {
  static constexpr std::array<const char*, 7> NAMES = {
      "KAVO_SUCCESS", "KAVO_FAILED", "KAVO_EXISTS", "KAVO_NO_MEMORY", "KAVO_INVALID", "-5", "KAVO_UNSUPPORTED"};
  return NAMES.at(static_cast<std::size_t>(-status));
}

void Replace(std::string& text, const std::string& what, const std::string& by) {
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size())) {
    text.replace(at, what.size(), by);
  }
}

unsigned char g_untouched = 0;

// What calls may write to, as it is before each of them.
struct Outputs {
  unsigned char* value = &g_untouched;
  unsigned length = 4711;
  unsigned isFind = 4712;
  unsigned num = 4713;
  unsigned psId = 4714;
  unsigned long long count = 4715;
  unsigned long long size = 4716;
  std::array<unsigned char*, 3> values{};
  std::array<unsigned, 3> isFinds{4717, 4717, 4717};
  std::array<unsigned char, 3 * LEN> rows{};
  std::array<unsigned, 3> psIds{};
  void* iter = nullptr;
  unsigned tableType = 4718;

  std::string Written() const {
    const Outputs before;
    std::string text;
    const auto add = [&text](const char* name, auto now, auto then) {
      text += now == then ? "" : std::string(", ") + name + " = " + std::to_string(now);
    };
    add("length", length, before.length);
    add("isFind", isFind, before.isFind);
    add("num", num, before.num);
    add("psId", psId, before.psId);
    add("count", count, before.count);
    add("size", size, before.size);
    add("batch.tableType", tableType, before.tableType);
    const bool same = value == before.value && values == before.values && isFinds == before.isFinds &&
                      rows == before.rows && psIds == before.psIds && iter == before.iter;
    return text + (same ? "" : ", addresses or arrays");
  }
};

// `ID` in a call is the table of the moment.
#define CALL(...) Record(#__VA_ARGS__, [&] { return __VA_ARGS__; })
// From the call's n-th request for memory on, all are refused.
#define CALL_WITHOUT_MEMORY(nth, ...)                                     \
  Record(#__VA_ARGS__ "   without memory from request " #nth " on", [&] { \
    Qen::TestHooks::FailAllocation(nth, true);                            \
    const int status = __VA_ARGS__;                                       \
    Qen::TestHooks::FailAllocation(0);                                    \
    return status;                                                        \
  })

class Refusals : public testing::Test {
 protected:
  void SetUp() override {
    for (const auto& [id, type] : {std::pair{BASIC, 0U}, {MAPPED, 0U}, {FILTER, 1U}}) {
      ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(id, 8, LEN, type));
      ASSERT_EQ(KAVO_SUCCESS, KavoInsert(id, KEY, bytes, LEN, 0, 1));
    }
    ASSERT_EQ(KAVO_SUCCESS, KavoInsert(FILTER, COUNTED, nullptr, 0, 1, 1));
  }
  void TearDown() override {
    for (const unsigned id : {BASIC, MAPPED, FILTER}) {
      EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(id));
    }
  }

  void Title(const std::string& text) { m_entries.push_back("\n== " + text + "\n"); }

  // An entry of the transcript.
  template <class Call>
  void Record(std::string text, Call call) {
    out = Outputs();
    batch.tableType = out.tableType;
    m_capture.Clear();
    const int status = call();
    out.tableType = batch.tableType;
    Replace(text, "nullptr", "NULL");
    Replace(text, "(ID", "(" + m_id);
    Replace(text, ".data()", "");
    text += "\n    " + NameOf(status) + out.Written() + "\n";
    for (const LogLine& line : m_capture.Lines()) {
      static constexpr std::array<const char*, 5> LEVELS = {"debug", "info", "warn", "error", "event"};
      EXPECT_TRUE(line.framed && line.line == line.lineAgain && line.threadId == gettid()) << line.raw;
      EXPECT_EQ(line.level == KAVO_LOG_LEVEL_DEBUG ? DEBUG_CHANNEL : RUN_CHANNEL, line.channel);
      const std::string unit = line.file == "concurrent_tables_adapter.cpp" ? "" : "[" + line.file + "] ";
      text += std::string("    ") + LEVELS.at(static_cast<std::size_t>(line.level)) + " " + unit + line.function +
              ": " + line.message + "\n";
    }
    m_entries.push_back(text);
  }

  void RecordTables() {
    Title("Creating, setting up and destroying tables");
    CALL(KavoInitHashTable(UNUSED, 8, 0, KAVO_TABLE_TYPE_BASIC));
    CALL(KavoInitHashTable(UNUSED, 8, 4294967292, KAVO_TABLE_TYPE_FILTER));
    CALL(KavoInitHashTable(BASIC, 8, LEN, 2));
    CALL(KavoInitHashTable(BASIC, 8, LEN, 3));
    CALL(KavoInitHashTable(UNUSED, 8, LEN, 3));
    CALL(KavoInitHashTable(MAPPED, 8, LEN, KAVO_TABLE_TYPE_FILTER));
    CALL(KavoInitHashTable(UNUSED, 1000000, 4294967291, KAVO_TABLE_TYPE_BASIC));
    for (const unsigned ID : {UNUSED, UNUSED_MAPPED}) {
      m_id = ID == UNUSED ? "UNUSED" : "UNUSED_MAPPED";
      CALL(KavoUninitHashTable(ID));
      CALL(KavoSetFilterFreq(ID, 1));
    }
    CALL(KavoSetRehashMode(UNUSED, 0));
    CALL(KavoSetRehashMode(BASIC, 3));
    CALL(KavoSetFilterFreq(BASIC, 1));
  }

  // What functions that take a table do with one that is not there, or cannot be handled.
  void RecordTable(unsigned ID, const std::string& name) {
    m_id = name;
    CALL(KavoSetRehashMode(ID, KAVO_REHASH_GRADUAL));
    CALL(KavoLookup(ID, KEY, &out.value, &out.length));
    CALL(KavoLookupForUpdate(ID, KEY, &out.value, &out.length));
    CALL(KavoUpdate(ID, KEY, bytes, LEN));
    CALL(KavoInsert(ID, KEY, bytes, LEN, 0, 0));
    CALL(KavoInsertOrUpdate(ID, KEY, bytes, LEN, 0));
    CALL(KavoLookupOrInsert(ID, KEY, &out.value, &out.length, &out.isFind, 0));
    CALL(KavoBatchLookup(ID, keys, 3, out.values.data(), &out.count));
    CALL(KavoBatchGather(ID, keys, 3, out.rows.data(), LEN, nullptr));
    CALL(KavoBatchLookupOrInsert(ID, keys, 3, out.values.data(), out.isFinds.data(), 0, &out.count));
    CALL(KavoBatchInsertOrUpdate(ID, keys, 3, rows, LEN, 0, &out.count));
    CALL(KavoPrepareMemForValues(ID, &out.count));
    CALL(KavoGetMemForValue(ID, 0, &out.value, &out.length));
    CALL(KavoGetHtSizeAndVl(ID, &out.size, &out.length, false));
    CALL(KavoBatchGetNext(ID, &batch, &out.num, &out.iter));
    CALL(KavoGetTableStats(ID, &stats));
  }

  void RecordKeys() {
    Title("Single keys: arguments, before the table is looked for");
    CALL(KavoLookup(UNUSED, -1, nullptr, &out.length));
    CALL(KavoLookup(UNUSED, -1, &out.value, nullptr));
    CALL(KavoLookup(UNUSED, -1, &out.value, &out.length));
    CALL(KavoLookupForUpdate(UNUSED, -1, nullptr, &out.length));
    CALL(KavoLookupForUpdate(UNUSED, -1, &out.value, nullptr));
    CALL(KavoLookupForUpdate(UNUSED, -1, &out.value, &out.length));
    CALL(KavoUpdate(UNUSED, -1, nullptr, LEN));
    CALL(KavoUpdate(UNUSED, -1, bytes, LEN));
    CALL(KavoInsert(UNUSED, -1, nullptr, LEN, 0, 0));
    CALL(KavoInsertOrUpdate(UNUSED, -1, nullptr, LEN, 0));
    CALL(KavoLookupOrInsert(UNUSED, -1, nullptr, &out.length, &out.isFind, 0));
    CALL(KavoLookupOrInsert(UNUSED, -1, &out.value, nullptr, &out.isFind, 0));
    CALL(KavoLookupOrInsert(UNUSED, -1, &out.value, &out.length, nullptr, 0));
    CALL(KavoLookupOrInsert(UNUSED, -1, &out.value, &out.length, &out.isFind, 0));
    for (const unsigned ID : {BASIC, FILTER}) {
      Title(std::string("Single keys of a ") + (ID == BASIC ? "basic" : "filter") + " table");
      m_id = ID == BASIC ? "BASIC" : "FILTER";
      unsigned char* stored = nullptr;
      ASSERT_EQ(KAVO_SUCCESS, KavoLookup(ID, KEY, &stored, &out.length));
      CALL(KavoLookup(ID, ABSENT, &out.value, &out.length));
      CALL(KavoLookupForUpdate(ID, ABSENT, &out.value, &out.length));
      CALL(KavoUpdate(ID, KEY, bytes, LEN - 1));
      CALL(KavoUpdate(ID, ABSENT, bytes, LEN));
      CALL(KavoUpdate(ID, KEY, stored + 1, LEN));
      CALL(KavoInsert(ID, ABSENT, bytes, LEN + 1, 0, 0));
      CALL(KavoInsert(ID, KEY, bytes, LEN, 0, 0));
      CALL(KavoInsertOrUpdate(ID, KEY, bytes, LEN + 1, 0));
      CALL(KavoInsertOrUpdate(ID, KEY, stored + 1, LEN, 0));
      // A thread's values lie one behind the other. The key is there all the same, with zero bytes.
      unsigned char* second = nullptr;
      ASSERT_EQ(KAVO_SUCCESS, KavoInsert(ID, 11, bytes, LEN, 0, 0));
      ASSERT_EQ(KAVO_SUCCESS, KavoLookup(ID, 11, &second, &out.length));
      unsigned char* const ahead = second + (second - stored) + 1;
      CALL(KavoInsert(ID, 12, ahead, LEN, 0, 0));
      ASSERT_EQ(KAVO_SUCCESS, KavoLookup(ID, 12, &second, &out.length));
      EXPECT_EQ(ahead, second + 1);
      EXPECT_EQ(std::string(LEN, '\0'), std::string(second, second + LEN));
    }
    CALL(KavoInsert(BASIC, ABSENT, nullptr, LEN, 0, 0));
    CALL(KavoInsertOrUpdate(BASIC, KEY, nullptr, LEN, 0));
    CALL(KavoUpdate(FILTER, COUNTED, bytes, LEN));
    CALL(KavoInsert(FILTER, COUNTED, bytes, LEN, 1, 0));
  }

  void RecordBatches() {
    Title("Batches: arguments, before the table is looked for, whatever the number of keys");
    CALL(KavoBatchLookup(UNUSED, nullptr, 0, out.values.data(), &out.count));
    CALL(KavoBatchLookup(UNUSED, keys, 0, nullptr, &out.count));
    CALL(KavoBatchLookup(UNUSED, keys, 0, out.values.data(), nullptr));
    CALL(KavoBatchGather(UNUSED, nullptr, 0, out.rows.data(), LEN, nullptr));
    CALL(KavoBatchGather(UNUSED, keys, 0, nullptr, LEN, nullptr));
    CALL(KavoBatchLookupOrInsert(UNUSED, nullptr, 0, out.values.data(), out.isFinds.data(), 0, &out.count));
    CALL(KavoBatchLookupOrInsert(UNUSED, keys, 0, nullptr, out.isFinds.data(), 0, &out.count));
    CALL(KavoBatchLookupOrInsert(UNUSED, keys, 0, out.values.data(), nullptr, 0, &out.count));
    CALL(KavoBatchLookupOrInsert(UNUSED, keys, 0, out.values.data(), out.isFinds.data(), 0, nullptr));
    CALL(KavoBatchInsertOrUpdate(UNUSED, nullptr, 0, rows, LEN, 0, &out.count));
    CALL(KavoBatchInsertOrUpdate(UNUSED, keys, 0, nullptr, LEN, 0, &out.count));
    CALL(KavoBatchInsertOrUpdate(UNUSED, keys, 0, rows, LEN, 0, nullptr));
    // The line names the first of two.
    const long negative[] = {KEY, -1, 2, -3};
    CALL(KavoBatchLookup(UNUSED, negative, 4, out.values.data(), &out.count));
    CALL(KavoBatchGather(UNUSED, negative, 4, out.rows.data(), LEN, nullptr));
    CALL(KavoBatchLookupOrInsert(UNUSED, negative, 4, out.values.data(), out.isFinds.data(), 0, &out.count));
    CALL(KavoBatchInsertOrUpdate(UNUSED, negative, 4, rows, LEN, 0, &out.count));
    CALL(KavoBatchGather(BASIC, keys, 3, out.rows.data(), LEN - 1, nullptr));
    CALL(KavoBatchInsertOrUpdate(BASIC, keys, 3, rows, LEN + 1, 0, &out.count));
  }

  void RecordValuesBeforeKeys() {
    Title("Values before keys");
    CALL(KavoPrepareMemForValues(UNUSED, nullptr));
    CALL(KavoGetMemForValue(UNUSED, 0, nullptr, &out.length));
    CALL(KavoGetMemForValue(UNUSED, 0, &out.value, nullptr));
    CALL(KavoGetMemForValue(MAPPED, 0, &out.value, &out.length));
    EXPECT_EQ(KAVO_SUCCESS, KavoPrepareMemForValues(MAPPED, &out.count));
    CALL(KavoPrepareMemForValues(MAPPED, &out.count));
    CALL(KavoGetMemForValue(MAPPED, 8, &out.value, &out.length));
    CALL(KavoGetMemForValue(MAPPED, 0, &out.value, &out.length));
  }

  void RecordExport() {
    Title("Export and statistics");
    CALL(KavoGetHtSizeAndVl(UNUSED, nullptr, &out.length, false));
    CALL(KavoGetHtSizeAndVl(UNUSED, &out.size, nullptr, false));
    KavoHtBatchInfo noElements{nullptr, 0, KAVO_EXPORT_ALL, 0};
    CALL(KavoBatchGetNext(UNUSED, nullptr, &out.num, &out.iter));
    CALL(KavoBatchGetNext(UNUSED, &noElements, &out.num, &out.iter));
    CALL(KavoBatchGetNext(UNUSED, &batch, nullptr, &out.iter));
    CALL(KavoBatchGetNext(UNUSED, &batch, &out.num, nullptr));
    KavoHtBatchInfo ofNoElements{elements, 0, KAVO_EXPORT_ALL, 0};
    void* strange = &batch;
    CALL(KavoBatchGetNext(UNUSED, &ofNoElements, &out.num, &strange));
    CALL(KavoBatchGetNext(UNUSED, &ofNoElements, &out.num, nullptr));
    CALL(KavoBatchGetNext(BASIC, &batch, &out.num, &strange));
    EXPECT_EQ(&batch, strange);
    void* cursor = nullptr;
    EXPECT_EQ(KAVO_SUCCESS, KavoBatchGetNext(BASIC, &batch, &out.num, &cursor));
    void* ofAnother = cursor;
    CALL(KavoBatchGetNext(FILTER, &batch, &out.num, &ofAnother));
    void* ended = cursor;
    while (cursor != nullptr) {
      ASSERT_EQ(KAVO_SUCCESS, KavoBatchGetNext(BASIC, &batch, &out.num, &cursor));
    }
    CALL(KavoBatchGetNext(BASIC, &batch, &out.num, &ended));
    KavoTableStats ofSize103 = stats;
    ofSize103.size = 103;
    CALL(KavoGetTableStats(UNUSED, nullptr));
    CALL(KavoGetTableStats(UNUSED, &ofSize103));
  }

  void RecordPartitionMap() {
    Title("Partition map: before there is one");
    const unsigned psIds[] = {7, 9, 4};
    const unsigned others[] = {7, 4, 9};
    const unsigned long long hashes[] = {10, 5, ~0ULL};
    unsigned* array = out.psIds.data();
    unsigned* nullArray = nullptr;
    CALL(QueryPartitionMapPsId(18446744073709551615ULL, &out.psId));
    CALL(GetBatchPsIds(hashes, &array, 3));
    CALL(UninitPartitionMap());
    CALL(InitPartitionMap(0, 3, psIds));
    CALL(InitPartitionMap(4, 0, psIds));
    CALL(InitPartitionMap(4, 3, nullptr));
    CALL_WITHOUT_MEMORY(1, InitPartitionMap(4, 3, psIds));
    CALL_WITHOUT_MEMORY(2, InitPartitionMap(4, 3, psIds));
    Title("Partition map: with one");
    CALL(InitPartitionMap(4, 3, psIds));
    CALL(InitPartitionMap(4, 3, psIds));
    CALL(InitPartitionMap(5, 3, psIds));
    CALL(InitPartitionMap(4, 3, others));
    CALL(InitPartitionMap(4, 2, psIds));
    CALL(QueryPartitionMapPsId(5, nullptr));
    CALL(GetBatchPsIds(nullptr, &array, 3));
    CALL(GetBatchPsIds(hashes, nullptr, 3));
    CALL(GetBatchPsIds(hashes, &nullArray, 3));
    CALL(GetBatchPsIds(hashes, &array, 0));
    CALL(QueryPartitionMapPsId(5, &out.psId));
    CALL(UninitPartitionMap());
    CALL(UninitPartitionMap());
  }

  void RecordRefusedMemory() {
    Title("When memory is refused: a new table, at each step of its making");
    CALL_WITHOUT_MEMORY(1, KavoInitHashTable(UNUSED, 8, LEN, KAVO_TABLE_TYPE_BASIC));
    CALL_WITHOUT_MEMORY(2, KavoInitHashTable(UNUSED, 8, LEN, KAVO_TABLE_TYPE_BASIC));
    CALL_WITHOUT_MEMORY(4, KavoInitHashTable(UNUSED, 8, LEN, KAVO_TABLE_TYPE_BASIC));
    CALL_WITHOUT_MEMORY(5, KavoInitHashTable(UNUSED, 8, LEN, KAVO_TABLE_TYPE_BASIC));
    CALL_WITHOUT_MEMORY(7, KavoInitHashTable(UNUSED, 8, LEN, KAVO_TABLE_TYPE_BASIC));
    Title("When memory is refused: a value, a filter record, a cursor");
    ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(FULL, 8, LEN, KAVO_TABLE_TYPE_BASIC));
    for (long key = 0; key < 8; ++key) {
      ASSERT_EQ(KAVO_SUCCESS, KavoInsert(FULL, key, bytes, LEN, 0, 0));
    }
    for (long key = 100; key < 104; ++key) {  // KEY, COUNTED, 11, 12 and these use up the first eight records
      ASSERT_EQ(KAVO_SUCCESS, KavoInsert(FILTER, key, nullptr, 0, 0, 0));
    }
    const long last[] = {7, 8};
    CALL_WITHOUT_MEMORY(1, KavoInsert(FULL, 8, bytes, LEN, 0, 0));
    CALL_WITHOUT_MEMORY(1, KavoInsertOrUpdate(FULL, 8, bytes, LEN, 0));
    CALL_WITHOUT_MEMORY(1, KavoLookupOrInsert(FULL, 8, &out.value, &out.length, &out.isFind, 0));
    CALL_WITHOUT_MEMORY(1, KavoBatchInsertOrUpdate(FULL, last, 2, rows, LEN, 0, &out.count));
    CALL_WITHOUT_MEMORY(1, KavoInsert(FILTER, ABSENT, nullptr, 0, 1, 0));
    CALL_WITHOUT_MEMORY(1, KavoInsertOrUpdate(FILTER, ABSENT, nullptr, 0, 1));
    CALL_WITHOUT_MEMORY(1, KavoLookupOrInsert(FILTER, ABSENT, &out.value, &out.length, &out.isFind, 1));
    CALL_WITHOUT_MEMORY(1, KavoLookupOrInsert(FILTER, ABSENT, &out.value, &out.length, &out.isFind, 0));
    CALL_WITHOUT_MEMORY(1, KavoLookupOrInsert(FILTER, COUNTED, &out.value, &out.length, &out.isFind, 100));
    CALL_WITHOUT_MEMORY(1, KavoBatchGetNext(BASIC, &batch, &out.num, &out.iter));
    ASSERT_EQ(KAVO_SUCCESS, KavoUninitHashTable(FULL));
  }

  // Sixteen keys fill the cells of a table of eight; the next one needs an overflow map, and then the table must grow.
  void RecordRefusedGrowth(unsigned mode, const std::string& name) {
    Title("When memory is refused: an overflow map, and then the growth of a full table, " + name);
    ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(FULL, 8, LEN, KAVO_TABLE_TYPE_BASIC));
    ASSERT_EQ(KAVO_SUCCESS, KavoSetRehashMode(FULL, mode));
    for (long key = 0; key < 16; ++key) {
      ASSERT_EQ(KAVO_SUCCESS, KavoLookupOrInsert(FULL, key, &out.value, &out.length, &out.isFind, 0));
    }
    CALL_WITHOUT_MEMORY(1, KavoLookupOrInsert(FULL, 16, &out.value, &out.length, &out.isFind, 0));
    CALL_WITHOUT_MEMORY(4, KavoLookupOrInsert(FULL, 16, &out.value, &out.length, &out.isFind, 0));
    CALL_WITHOUT_MEMORY(1, KavoLookupOrInsert(FULL, 17, &out.value, &out.length, &out.isFind, 0));
    CALL_WITHOUT_MEMORY(1, KavoLookupOrInsert(FULL, 32, &out.value, &out.length, &out.isFind, 0));
    CALL(KavoLookup(FULL, 48, &out.value, &out.length));
    const long absent[] = {48, 64};
    CALL(KavoBatchLookup(FULL, absent, 2, out.values.data(), &out.count));
    ASSERT_EQ(KAVO_SUCCESS, KavoUninitHashTable(FULL));
  }

  void Compare() {
    std::string text = HEAD;
    for (const std::string& entry : m_entries) {
      text += entry;
    }
    if (std::getenv("KAVO_REWRITE_REFUSALS") != nullptr) {
      std::ofstream(KAVO_REFUSALS) << text;
    }
    std::istringstream now(text);
    std::ifstream then(KAVO_REFUSALS);
    std::string heading;
    for (std::string expected, line; std::getline(then, expected) && std::getline(now, line);) {
      heading = line.starts_with(' ') ? heading : line;
      ASSERT_EQ(expected, line) << "at or behind " << heading;
    }
    EXPECT_TRUE(!then && now.peek() == EOF) << "the transcript has another length";
  }

  unsigned char bytes[LEN] = {};
  unsigned char rows[3 * LEN] = {};
  long keys[3] = {1, 5, 3};
  KavoHtBatchElement elements[1] = {};
  KavoHtBatchInfo batch{elements, 1, KAVO_EXPORT_ALL, 0};
  KavoTableStats stats{sizeof(KavoTableStats), 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  Outputs out;

 private:
  std::string m_id;
  std::vector<std::string> m_entries;
  LogCapture m_capture{KavoSetLogSink, true};
};

TEST_F(Refusals, AreThoseOfTheTranscript) {
  RecordTables();
  RecordKeys();
  RecordBatches();
  RecordValuesBeforeKeys();
  RecordExport();
  RecordPartitionMap();
  Title("A table id that is not in use");
  RecordTable(UNUSED, "UNUSED");
  RecordTable(UNUSED_MAPPED, "UNUSED_MAPPED");
  RecordRefusedMemory();
  RecordRefusedGrowth(KAVO_REHASH_WHOLE_TABLE, "whole-table mode");
  RecordRefusedGrowth(KAVO_REHASH_GRADUAL, "gradual mode");
  {
    // Reported to a thread that holds the lock already. Ids below 1024 are found without it.
    Title("When a lock reports an error");
    const long long heap = Qen::TestHooks::HeapBytesInUse();
    const std::lock_guard lock(Qen::g_manager->m_lock);
    CALL(KavoInitHashTable(UNUSED, 8, LEN, KAVO_TABLE_TYPE_BASIC));
    CALL(KavoUninitHashTable(BASIC));
    CALL(KavoSetFilterFreq(MAPPED, 1));
    RecordTable(MAPPED, "MAPPED");
    CALL(KavoLookup(BASIC, KEY, &out.value, &out.length));
    EXPECT_EQ(heap, Qen::TestHooks::HeapBytesInUse()) << "the table that could not be registered is gone";
  }
  // No exported function makes one; it is answered, not trusted.
  Title("A table of an unknown kind");
  int notATable = 0;
  Qen::ManagerEle strange(77, &notATable);
  ASSERT_TRUE(Qen::g_manager->Register(STRANGE, strange));
  CALL(KavoSetFilterFreq(STRANGE, 1));
  RecordTable(STRANGE, "STRANGE");
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(STRANGE));
  Title("The log");
  const KavoLogSink withoutWrite{};
  CALL(KavoSetLogSink(&withoutWrite));
  Compare();
}

}  // namespace
}  // namespace KavoTest
