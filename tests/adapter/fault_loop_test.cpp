// Whatever a call needs from the system fails once, in turn, until the call succeeds: the n-th allocation or mapping,
// that one and all behind it, or the n-th lock. After every failure the table holds what it held, no value or record is
// lost, and nothing is left to wait for. In the end everything is freed.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include "kavo.hpp"
#include "platform/test_hooks.h"
#include "support/held.h"
#include "support/log_capture.h"
#include "support/values.h"
#include "table/filter_record.h"

namespace KavoTest {
namespace {

namespace Hooks = Qen::TestHooks;

enum class Fault { ONE_ALLOCATION, ALL_ALLOCATIONS, LOCK };

unsigned g_locksLeft = 0;

// Throws, as a lock does that reports an error, at the n-th of the points beside which one is taken.
void ThrowAtLock(const char* point) {
  static constexpr std::array<const char*, 7> LOCKS = {"KavoInitHashTable.built",
                                                       "Chain.Building",
                                                       "Chain.Leaving",
                                                       "Mover.Marked",
                                                       "HashCore.MapEntering",
                                                       "Driver.Attaching",
                                                       "FreshBlocks::Take run used up"};
  const bool isLock = std::any_of(LOCKS.begin(), LOCKS.end(), [=](auto lock) { return !std::strcmp(lock, point); });
  if (isLock && g_locksLeft != 0 && --g_locksLeft == 0) {
    throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
  }
}

// Tries with the n-th step failing, from the first given on, until a try succeeds. `check` runs after each that met its
// fault; how many failed. An insert that has stored its key succeeds whatever fails in the growth that follows: what
// lies behind its first such step is reached by a later start.
template <class Try, class Check>
unsigned FailUntilItSucceeds(Fault fault, Try attempt, Check check, unsigned first = 1) {
  for (unsigned nth = first; nth < 1000; ++nth) {
    SCOPED_TRACE(testing::Message() << "step " << nth << " fails");
    LogCapture log;
    if (fault == Fault::LOCK) {
      g_locksLeft = nth;
      Hooks::SetPointHandler(&ThrowAtLock);
    } else {
      Hooks::FailAllocation(nth, fault == Fault::ALL_ALLOCATIONS);
    }
    const int status = attempt();
    Hooks::FailAllocation(0);
    Hooks::SetPointHandler(nullptr);
    const bool met = fault == Fault::LOCK ? g_locksLeft == 0 : Hooks::AllocationFailures() != 0;
    if (met) {
      check();
    }
    if (status == KAVO_SUCCESS || testing::Test::HasFailure()) {
      return nth - first;
    }
    EXPECT_TRUE(met) << "failed by itself";
    EXPECT_TRUE(status == KAVO_NO_MEMORY || status == KAVO_FAILED) << status;
    EXPECT_FALSE(log.Lines().empty());
  }
  ADD_FAILURE() << "never succeeds";
  return 1000;
}

struct Kind {
  const char* name;
  unsigned id;
  unsigned type;
  unsigned prepared;  // values written before their keys
};

class FaultLoop : public testing::TestWithParam<std::tuple<Kind, unsigned, Fault>> {
 public:
  static constexpr unsigned SIZE = 20;

 protected:
  static constexpr unsigned LEN = 16'000;    // so long that every sixteenth value needs memory
  static constexpr unsigned FREQ = 3;        // occurrences that admit a key
  static constexpr unsigned PREPARED = 100;  // the first value that was written before its key

  struct Entry {
    unsigned char byte = 0;
    bool hasValue = false;
    unsigned count = 0;
  };
  enum class Call { INSERT, INSERT_OR_UPDATE, LOOKUP_OR_INSERT };  // the latter two as batches

  // What the process keeps from an id's first table on is not counted: the buckets of the registry's map, and this
  // thread's position in the pool.
  void SetUp() override {
    unsigned char value[1] = {};
    ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(id, 8, 1, type));
    ASSERT_EQ(KAVO_SUCCESS, KavoInsert(id, 1, value, 1, 0, 0));
    ASSERT_EQ(KAVO_SUCCESS, KavoUninitHashTable(id));
    Hooks::SetWaitLimit(1);  // nothing may be left to wait for
  }
  void TearDown() override { Hooks::SetWaitLimit(0); }

  void Create() {
    const Held before;
    const unsigned failures = FailUntilItSucceeds(
        fault, [this] { return KavoInitHashTable(id, SIZE, LEN, type); },
        [&, this] {
          EXPECT_EQ(before, Held());
          LogCapture quiet;
          EXPECT_EQ(KAVO_INVALID, KavoUninitHashTable(id)) << "the id is not taken";
        });
    // At least the table, the hash table and its cells, the pool and its stock.
    EXPECT_GE(failures, fault == Fault::LOCK ? 1U : 5U);
    ASSERT_EQ(KAVO_SUCCESS, KavoSetRehashMode(id, std::get<1>(GetParam())));
    if (isFilter) {
      ASSERT_EQ(KAVO_SUCCESS, KavoSetFilterFreq(id, FREQ));
    }
    unsigned long long count = 0;
    for (unsigned i = 0; i < prepared; ++i) {
      unsigned char* address = nullptr;
      unsigned len = 0;
      ASSERT_EQ(KAVO_SUCCESS, i == 0 ? KavoPrepareMemForValues(id, &count) : KAVO_SUCCESS);
      ASSERT_EQ(KAVO_SUCCESS, KavoGetMemForValue(id, i, &address, &len));
      std::memset(address, static_cast<int>(PREPARED + i), LEN);
    }
  }

  // A call on keys, for KavoInsert one; a filter table's key gets no value from null bytes. How often it failed.
  unsigned Offer(Call call, const std::vector<long>& keys, unsigned count, bool withValue = true) {
    std::vector<unsigned char> rows(keys.size() * LEN, ++m_byte);
    std::vector<unsigned char*> values(keys.size());
    std::vector<unsigned> isFind(keys.size());
    std::size_t at = 0;
    const auto attempt = [&] {
      const std::size_t rest = keys.size() - at;
      unsigned long long done = 0;
      int status = KAVO_SUCCESS;
      if (call == Call::INSERT) {
        status = KavoInsert(id, keys[0], withValue ? rows.data() : nullptr, LEN, count, 0);
        done = status == KAVO_SUCCESS ? 1 : 0;
      } else if (call == Call::INSERT_OR_UPDATE) {
        status = KavoBatchInsertOrUpdate(id, &keys[at], rest, rows.data(), LEN, count, &done);
      } else {
        status = KavoBatchLookupOrInsert(id, &keys[at], rest, values.data(), isFind.data(), count, &done);
      }
      EXPECT_EQ(status == KAVO_SUCCESS, done == rest);
      for (; done > 0; --done, ++at) {
        Serve(call, keys[at], count, withValue);
      }
      if (at < keys.size() && m_entries.contains(keys[at])) {
        m_entries[keys[at]].count += count;  // counted, though its value could not be had
      }
      return status;
    };
    return FailUntilItSucceeds(
        fault, attempt, [this] { CheckTable(); }, m_firstStep);
  }

  // An insert that fails and is not repeated: its key is absent, while others come and the table grows.
  void GiveUp(long key) {
    Bytes value(LEN);
    LogCapture quiet;
    g_locksLeft = 1;
    Hooks::SetPointHandler(&ThrowAtLock);
    EXPECT_EQ(KAVO_FAILED, KavoInsert(id, key, value.data(), LEN, 1, 0));
    Hooks::SetPointHandler(nullptr);
    m_givenUp.push_back(key);
  }

  // What a call that succeeded has made of the key.
  void Serve(Call call, long key, unsigned count, bool withValue) {
    const bool writes = call != Call::LOOKUP_OR_INSERT;
    const auto [place, isNew] = m_entries.try_emplace(key);
    Entry& entry = place->second;
    entry.count += isFilter && (isNew || !writes) ? count : 0;
    if (writes && withValue && (isNew || entry.hasValue)) {
      entry = {m_byte, true, entry.count};
    } else if (!writes && !entry.hasValue && (!isFilter || entry.count >= FREQ || (isNew && count == 0))) {
      const bool adopts = m_adopted < prepared;
      entry = {static_cast<unsigned char>(adopts ? PREPARED + m_adopted : 0), true, entry.count};
      m_adopted += adopts ? 1 : 0;
    }
  }

  void CheckTable() {
    std::size_t seen = 0;
    unsigned long long withValue = 0;
    for (const auto& [key, value, count] : kavo::Entries(id, kavo::ExportMode::ALL, 50)) {
      const auto found = m_entries.find(key);
      ASSERT_NE(m_entries.end(), found) << key;
      const Entry& entry = found->second;
      ASSERT_EQ(entry.hasValue, value != nullptr) << key;
      ASSERT_EQ(value, AddressOf(id, key)) << key;
      ASSERT_TRUE(value == nullptr || (value[0] == entry.byte && value[LEN - 1] == entry.byte)) << key;
      ASSERT_TRUE(!isFilter || entry.count == count) << key << " counts " << count << ", not " << entry.count;
      ++seen;
      withValue += entry.hasValue ? 1 : 0;
    }
    ASSERT_EQ(m_entries.size(), seen);
    KavoTableStats stats{};
    stats.size = sizeof(stats);
    ASSERT_EQ(KAVO_SUCCESS, KavoGetTableStats(id, &stats));
    m_bytesOfValue = m_bytesOfValue != 0 || withValue == 0 ? m_bytesOfValue : stats.valueBytes / withValue;
    ASSERT_EQ(m_bytesOfValue * withValue, stats.valueBytes) << "a value that no key has";
    const std::size_t records = stats.filterRecordBytes / sizeof(Qen::FilterRecord);
    ASSERT_TRUE(isFilter ? records == seen || records == seen + 1 : records == 0) << records << " records";
  }

  const unsigned id = std::get<0>(GetParam()).id;
  const unsigned type = std::get<0>(GetParam()).type;
  const unsigned prepared = std::get<0>(GetParam()).prepared;
  const bool isFilter = type == KAVO_TABLE_TYPE_FILTER;
  const Fault fault = std::get<2>(GetParam());
  std::map<long, Entry> m_entries;
  std::vector<long> m_givenUp;
  unsigned m_firstStep = 1;
  unsigned char m_byte = 0;
  unsigned m_adopted = 0;
  unsigned long long m_bytesOfValue = 0;
};
std::string NameOf(const testing::TestParamInfo<FaultLoop::ParamType>& info) {
  const auto& [kind, mode, fault] = info.param;
  return std::string(kind.name) + (mode == KAVO_REHASH_GRADUAL ? "Gradual" : "WholeTable") +
         std::array{"OneAllocation", "AllAllocations", "Lock"}.at(static_cast<std::size_t>(fault));
}
constexpr Kind KINDS[] = {{"Basic", 1, KAVO_TABLE_TYPE_BASIC, 0},
                          {"MappedPrepared", 5000, KAVO_TABLE_TYPE_BASIC, FaultLoop::SIZE},
                          {"Filter", 1, KAVO_TABLE_TYPE_FILTER, 0},
                          {"FilterPrepared", 1, KAVO_TABLE_TYPE_FILTER, FaultLoop::SIZE}};
INSTANTIATE_TEST_SUITE_P(, FaultLoop,
                         testing::Combine(testing::ValuesIn(KINDS),
                                          testing::Values(KAVO_REHASH_WHOLE_TABLE, KAVO_REHASH_GRADUAL),
                                          testing::Values(Fault::ONE_ALLOCATION, Fault::ALL_ALLOCATIONS, Fault::LOCK)),
                         &NameOf);

// Two keys of three share one bucket at every size: the table soon needs an overflow map, also while its entries move.
TEST_P(FaultLoop, EveryFailureLeavesTheTableAsItWas) {
  const Held before;
  Create();
  unsigned failures = 0;
  long made = 0;
  const auto keys = [&made](int number) {
    std::vector<long> some;
    for (; number > 0; --number, ++made) {
      some.push_back(made % 3 == 0 ? made : made << 20);
    }
    return some;
  };
  for (unsigned round = 0; round < 40; ++round) {
    SCOPED_TRACE(testing::Message() << "round " << round);
    m_firstStep = round % 2 == 0 ? 1 : 2 + round / 2;
    failures += Offer(Call::INSERT, keys(1), 1);
    failures += Offer(Call::INSERT_OR_UPDATE, keys(5), 1);
    failures += Offer(Call::LOOKUP_OR_INSERT, keys(5), 0);
    GiveUp(keys(1)[0]);
    GiveUp(keys(1)[0]);
    if (isFilter) {
      const std::vector<long> counted = keys(3);
      failures += Offer(Call::INSERT, {counted[0]}, 1, false);
      failures += Offer(Call::LOOKUP_OR_INSERT, counted, 1);
      failures += Offer(Call::LOOKUP_OR_INSERT, counted, 2);
    }
    if (HasFailure()) {
      break;
    }
  }
  EXPECT_GE(failures, 10U);
  CheckTable();
  m_firstStep = 1;
  Offer(Call::INSERT_OR_UPDATE, m_givenUp, 1);
  CheckTable();
  // A cursor.
  KavoHtBatchElement element{};
  KavoHtBatchInfo batch{&element, 1, KAVO_EXPORT_ALL, 0};
  unsigned num = 0;
  void* iter = nullptr;
  FailUntilItSucceeds(
      fault, [&] { return KavoBatchGetNext(id, &batch, &num, &iter); }, [&iter] { EXPECT_EQ(nullptr, iter); });
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(id));
  EXPECT_EQ(before, Held());
}

TEST(FaultLoopOfPartitionMap, EveryFailureLeavesNone) {
  const std::vector<unsigned> ids(5000, 3);
  const Held before;
  const unsigned failures = FailUntilItSucceeds(
      Fault::ONE_ALLOCATION, [&ids] { return InitPartitionMap(1, 5000, ids.data()); },
      [] {
        LogCapture quiet;
        EXPECT_EQ(KAVO_UNSUPPORTED, UninitPartitionMap()) << "half a map was left";
      });
  EXPECT_EQ(2U, failures) << "the list that is built from the arguments, and the map's own";
  EXPECT_EQ(KAVO_SUCCESS, UninitPartitionMap());
}

}  // namespace
}  // namespace KavoTest
