// Every way in which an exported function refuses a call, against the transcript refusals.txt: the status, the outputs
// that were written all the same, and the log lines. Hosts match on these lines; the transcript is their list. Its
// calls are made as they stand there, one after the other, and answered anew.
//
// KAVO_REWRITE_REFUSALS=1 interface_test --gtest_filter='Refusals.*' writes the answers anew, those of added calls too.
// What has changed is what `git diff` shows, and every line of it may be one that a host looks for.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include "adapter/manager.h"
#include "kavo.h"
#include "platform/test_hooks.h"
#include "support/log_capture.h"
#include "support/values.h"

namespace KavoTest {
namespace {

constexpr unsigned BASIC = 7;
constexpr unsigned MAPPED = 70'000;
constexpr unsigned FILTER = 9;
constexpr unsigned STRANGE = 10;
constexpr unsigned FULL = 11;
constexpr long KEY = 3;
constexpr unsigned UNUSED = 8;
constexpr unsigned UNUSED_MAPPED = 4'294'967'295;
constexpr long COUNTED = 5;
constexpr long ABSENT = 4;
constexpr unsigned LEN = 16;

std::string NameOf(int status) {
  static constexpr std::array<const char*, 7> NAMES = {
      "KAVO_SUCCESS", "KAVO_FAILED", "KAVO_EXISTS", "KAVO_NO_MEMORY", "KAVO_INVALID", "-5", "KAVO_UNSUPPORTED"};
  return NAMES.at(static_cast<std::size_t>(-status));
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

#define NAMED(Type, ...) Named<Type>(#__VA_ARGS__, {__VA_ARGS__})

template <class Type>
std::map<std::string, Type> Named(const char* names, std::initializer_list<Type> values) {
  std::istringstream left(names);
  std::map<std::string, Type> named;
  for (const Type& value : values) {
    std::string name;
    std::getline(left >> std::ws, name, ',');
    named.emplace(name, value);
  }
  return named;
}

class Refusals : public testing::Test {
 protected:
  void SetUp() override {
    addresses.insert(
        {{"NULL", nullptr}, {"out.rows", &out.rows}, {"out.values", &out.values}, {"out.isFinds", &out.isFinds}});
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

  template <class T>
  T Argument(std::istringstream& arguments) const {
    std::string text;
    std::getline(arguments >> std::ws, text, ',');
    if constexpr (std::is_pointer_v<T>) {
      return static_cast<T>(const_cast<void*>(addresses.at(text)));
    } else if (const auto number = numbers.find(text); number != numbers.end()) {
      return static_cast<T>(number->second);
    } else {
      return static_cast<T>(std::stoull(text));
    }
  }

  // An exported one, called with arguments in words.
  struct Function {
    template <class... Types>
    Function(int (*function)(Types...))
        : call([function](const Refusals& test, [[maybe_unused]] std::istringstream& arguments) {
            return std::apply(function, std::tuple<Types...>{test.Argument<Types>(arguments)...});
          }) {}
    std::function<int(const Refusals&, std::istringstream&)> call;
  };

  // Makes a call of the transcript. "   without memory from request n on" behind it: all from the n-th on are refused.
  std::string Answer(const std::string& text) {
    const std::size_t paren = text.find('(');
    const std::size_t end = text.find(')');
    std::istringstream arguments(text.substr(paren + 1, end - paren - 1));
    const std::string refusal = "   without memory from request ";
    const bool refused = text.compare(end + 1, refusal.size(), refusal) == 0;
    out = Outputs();
    batch.tableType = out.tableType;
    m_capture.Clear();
    Qen::TestHooks::FailAllocation(refused ? std::stoull(text.substr(end + 1 + refusal.size())) : 0, true);
    const int status = functions.at(text.substr(0, paren)).call(*this, arguments);
    Qen::TestHooks::FailAllocation(0);
    out.tableType = batch.tableType;
    std::string answer = "    " + NameOf(status) + out.Written() + "\n";
    for (const LogLine& line : m_capture.Lines()) {
      static constexpr std::array<const char*, 5> LEVELS = {"debug", "info", "warn", "error", "event"};
      EXPECT_TRUE(line.framed && line.line == line.lineAgain && line.threadId == gettid()) << line.message;
      EXPECT_EQ(line.level == KAVO_LOG_LEVEL_DEBUG ? DEBUG_CHANNEL : RUN_CHANNEL, line.channel);
      const std::string unit = line.file == "concurrent_tables_adapter.cpp" ? "" : "[" + line.file + "] ";
      answer += std::string("    ") + LEVELS.at(static_cast<std::size_t>(line.level)) + " " + unit + line.function +
                ": " + line.message + "\n";
    }
    return answer;
  }

  // A thread's values lie one behind the other: `ahead` is within the one that the next key gets.
  void LookAhead(unsigned table) {
    ASSERT_EQ(KAVO_SUCCESS, KavoInsert(table, 11, bytes, LEN, 0, 0));
    unsigned char* const second = AddressOf(table, 11);
    addresses["ahead"] = second + (second - AddressOf(table, KEY)) + 1;
  }
  // The key is there all the same, with zero bytes.
  void ExpectZerosAhead(unsigned table) {
    EXPECT_EQ(addresses["ahead"], AddressOf(table, 12) + 1);
    EXPECT_EQ(Bytes(LEN), Stored(table, 12));
  }

  // Sixteen keys fill the cells of a table of eight; the next one needs an overflow map, and then the table must grow.
  void FillAnew(unsigned mode) {
    ASSERT_EQ(KAVO_SUCCESS, KavoUninitHashTable(FULL));
    ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(FULL, 8, LEN, KAVO_TABLE_TYPE_BASIC));
    ASSERT_EQ(KAVO_SUCCESS, KavoSetRehashMode(FULL, mode));
    for (long key = 0; key < 16; ++key) {
      ASSERT_EQ(KAVO_SUCCESS, KavoLookupOrInsert(FULL, key, &out.value, &out.length, &out.isFind, 0));
    }
  }
  void UseUpMemory() {
    ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(FULL, 8, LEN, KAVO_TABLE_TYPE_BASIC));
    for (long key = 0; key < 8; ++key) {
      ASSERT_EQ(KAVO_SUCCESS, KavoInsert(FULL, key, bytes, LEN, 0, 0));
    }
    for (long key = 100; key < 104; ++key) {  // KEY, COUNTED, 11, 12 and these use up the first eight records
      ASSERT_EQ(KAVO_SUCCESS, KavoInsert(FILTER, key, nullptr, 0, 0, 0));
    }
  }

  void BeginExport() {
    EXPECT_EQ(&batch, strange) << "what was no cursor is left alone";
    EXPECT_EQ(KAVO_SUCCESS, KavoBatchGetNext(BASIC, &batch, &out.num, &cursor));
    ofAnother = ended = cursor;
  }
  // The one that begins thereupon gets the memory of the one that has ended.
  void EndExport() {
    while (cursor != nullptr) {
      ASSERT_EQ(KAVO_SUCCESS, KavoBatchGetNext(BASIC, &batch, &out.num, &cursor));
    }
    EXPECT_EQ(KAVO_SUCCESS, KavoBatchGetNext(BASIC, &batch, &out.num, &cursor));
  }

  // Reported to a thread that holds the lock already. Ids below 1024 are found without it.
  void Lock() {
    ASSERT_EQ(KAVO_SUCCESS, KavoUninitHashTable(FULL));
    heap = Qen::TestHooks::HeapBytesInUse();
    lock = std::unique_lock(Qen::g_manager->m_lock);
  }
  // No exported function makes a table of an unknown kind; it is answered, not trusted.
  void UnlockAndRegisterStrange() {
    EXPECT_EQ(heap, Qen::TestHooks::HeapBytesInUse()) << "the table that could not be registered is gone";
    lock.unlock();
    Qen::ManagerEle element(77, &notATable);
    ASSERT_TRUE(Qen::g_manager->Register(STRANGE, element));
  }

  unsigned char bytes[LEN] = {};
  unsigned char rows[3 * LEN] = {};
  const long keys[3] = {1, 5, 3};
  const long negative[4] = {KEY, -1, 2, -3};  // the log line names the first of two
  const long last[2] = {7, 8};
  const long absent[2] = {48, 64};
  const unsigned psIds[3] = {7, 9, 4};
  const unsigned others[3] = {7, 4, 9};
  const unsigned long long hashes[3] = {10, 5, ~0ULL};
  KavoHtBatchElement elements[1] = {};
  KavoHtBatchInfo batch{elements, 1, KAVO_EXPORT_ALL, 0};
  KavoHtBatchInfo noElements{nullptr, 0, KAVO_EXPORT_ALL, 0};
  KavoHtBatchInfo ofNoElements{elements, 0, KAVO_EXPORT_ALL, 0};
  KavoTableStats stats{sizeof(KavoTableStats), 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  KavoTableStats ofSize103{103, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  const KavoLogSink withoutWrite{};
  Outputs out;
  unsigned* array = out.psIds.data();
  unsigned* nullArray = nullptr;
  void* strange = &batch;
  void* cursor = nullptr;
  void* ofAnother = nullptr;
  void* ended = nullptr;
  int notATable = 0;
  long long heap = 0;
  std::unique_lock<Qen::SharedMutex> lock;

  const std::map<std::string, long long> numbers =
      NAMED(long long, BASIC, MAPPED, FILTER, STRANGE, FULL, UNUSED, UNUSED_MAPPED, KEY, COUNTED, ABSENT, LEN, LEN - 1,
            LEN + 1, false, KAVO_TABLE_TYPE_BASIC, KAVO_TABLE_TYPE_FILTER, KAVO_REHASH_GRADUAL);
  std::map<std::string, const void*> addresses =
      NAMED(const void*, bytes, rows, keys, negative, last, absent, psIds, others, hashes, &out.value, &out.length,
            &out.isFind, &out.num, &out.psId, &out.count, &out.size, &out.iter, &array, &nullArray, &strange,
            &ofAnother, &ended, &batch, &noElements, &ofNoElements, &stats, &ofSize103, &withoutWrite);
  const std::map<std::string, Function> functions =
      NAMED(Function, KavoInitHashTable, KavoUninitHashTable, KavoSetFilterFreq, KavoSetRehashMode, KavoLookup,
            KavoLookupForUpdate, KavoUpdate, KavoInsert, KavoInsertOrUpdate, KavoLookupOrInsert, KavoBatchLookup,
            KavoBatchGather, KavoBatchLookupOrInsert, KavoBatchInsertOrUpdate, KavoPrepareMemForValues,
            KavoGetMemForValue, KavoGetHtSizeAndVl, KavoBatchGetNext, KavoGetTableStats, QueryPartitionMapPsId,
            GetBatchPsIds, UninitPartitionMap, InitPartitionMap, KavoSetLogSink);

  // What is done before a line of the transcript, where it stands for the first time.
  std::map<std::string, std::function<void()>> before{
      {"== Single keys of a basic table", [this] { addresses["stored + 1"] = AddressOf(BASIC, KEY) + 1; }},
      {"KavoInsert(BASIC, 12, ahead, LEN, 0, 0)", [this] { LookAhead(BASIC); }},
      {"== Single keys of a filter table",
       [this] {
         ExpectZerosAhead(BASIC);
         addresses["stored + 1"] = AddressOf(FILTER, KEY) + 1;
       }},
      {"KavoInsert(FILTER, 12, ahead, LEN, 0, 0)", [this] { LookAhead(FILTER); }},
      {"KavoInsert(BASIC, ABSENT, NULL, LEN, 0, 0)", [this] { ExpectZerosAhead(FILTER); }},
      {"KavoPrepareMemForValues(MAPPED, &out.count)",
       [this] { EXPECT_EQ(KAVO_SUCCESS, KavoPrepareMemForValues(MAPPED, &out.count)); }},
      {"KavoBatchGetNext(FILTER, &batch, &out.num, &ofAnother)", [this] { BeginExport(); }},
      {"KavoBatchGetNext(BASIC, &batch, &out.num, &ended)", [this] { EndExport(); }},
      {"== When memory is refused: a value, a filter record, a cursor", [this] { UseUpMemory(); }},
      {"== When memory is refused: an overflow map, and then the growth of a full table, whole-table mode",
       [this] { FillAnew(KAVO_REHASH_WHOLE_TABLE); }},
      {"== When memory is refused: an overflow map, and then the growth of a full table, gradual mode",
       [this] { FillAnew(KAVO_REHASH_GRADUAL); }},
      {"== When a lock reports an error", [this] { Lock(); }},
      {"== A table of an unknown kind", [this] { UnlockAndRegisterStrange(); }},
      {"== The log", [] { EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(STRANGE)); }}};

 private:
  LogCapture m_capture{true};
};

TEST_F(Refusals, AreThoseOfTheTranscript) {
  std::ifstream transcript(KAVO_REFUSALS);
  std::string now;
  bool inHead = true;
  for (std::string line; std::getline(transcript, line);) {
    now += line + "\n";
    if (const auto preparation = before.extract(line)) {
      preparation.mapped()();
    }
    inHead = inHead && !line.starts_with("==");
    if (inHead || line.empty() || line.starts_with("==")) {
      continue;
    }
    const std::string call = line;
    const std::string answer = Answer(call);
    std::string expected;
    while (transcript.peek() == ' ' && std::getline(transcript, line)) {
      expected += line + "\n";
    }
    EXPECT_EQ(expected, answer) << call;
    now += answer;
  }
  EXPECT_TRUE(before.empty()) << "the transcript has lost " << before.begin()->first;
  if (std::getenv("KAVO_REWRITE_REFUSALS") != nullptr) {
    std::ofstream(KAVO_REFUSALS) << now;
  }
}

}  // namespace
}  // namespace KavoTest
