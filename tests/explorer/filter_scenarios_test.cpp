// A filter table's admissions beside each other.
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "explorer/explore.h"
#include "explorer/scheduled_types.h"
#include "explorer/table_run.h"
#include "platform/test_hooks.h"
#include "table/filter_test_table.h"

namespace KavoExplorer {
namespace {

using KavoTest::Answer;

constexpr long KEY = 7;
constexpr std::uint32_t FREQ = 3;  // the third occurrence admits

// Calls on one key of a table whose stock is used up, so that a block must be allocated.
class FilterRun final : public ScenarioRun {
 public:
  explicit FilterRun(unsigned occurrencesBefore) : m_everyOfferAdmits(occurrencesBefore + 1 == FREQ) {
    m_table.SetFilterFreq(FREQ);
    KavoTest::UseUpStock(m_table);
    for (; occurrencesBefore > 0; --occurrencesBefore) {
      KavoTest::Offer(m_table, KEY);
      ++m_offers;
    }
  }

  void Offer(bool hasMemory) {
    Qen::TestHooks::FailAllocation(hasMemory ? 0 : 1, true);
    const Answer answer = KavoTest::Offer(m_table, KEY);
    Qen::TestHooks::FailAllocation(0);
    m_calls.fetch_add(1);
    ++m_offers;
    if (answer.status < 0 && hasMemory) {
      m_failure = "an offer failed";
    } else if (answer.status >= 0 && answer.block == nullptr && m_everyOfferAdmits) {
      m_failure = "an offer that may admit got no block";
    }
    m_creators += answer.status == Qen::ENTRY_INSERTED ? 1U : 0U;
    m_allSucceeded = m_allSucceeded && answer.status >= 0;
    SeeBlock(answer.block);
  }
  void Look() {
    m_calls.load();
    const bool admitted = m_block != nullptr;
    const Qen::FilterRecord* const record = KavoTest::RecordOf(m_table, KEY);
    unsigned char* const block = record == nullptr ? nullptr : record->value.load();
    if (admitted && block == nullptr) {
      m_failure = "a lookup missed the block of a key that was admitted";
    }
    SeeBlock(block);
  }

  std::string Check() override {
    Look();
    if (m_failure.empty() && KavoTest::CountOf(m_table, KEY) != m_offers) {
      m_failure = "occurrences were lost, or counted twice";
    }
    if (m_failure.empty() && m_creators > 1) {
      m_failure = "two creators";
    }
    if (m_failure.empty() && m_allSucceeded && (m_block != nullptr) != (m_offers >= FREQ)) {
      m_failure = "admitted too early, or not at all";
    }
    return m_failure;
  }

 private:
  void SeeBlock(unsigned char* block) {
    if (m_block != nullptr && block != nullptr && m_block != block) {
      m_failure = "two blocks";
    }
    m_block = m_block != nullptr ? m_block : block;
  }

  const KavoTest::FilterTable m_table{1, 8, 8};
  const bool m_everyOfferAdmits;
  Atomic<unsigned> m_calls;  // see Ledger
  unsigned m_offers = 0;
  unsigned m_creators = 0;
  bool m_allSucceeded = true;
  unsigned char* m_block = nullptr;
  std::string m_failure;
};

using FilterCall = std::function<void(FilterRun&)>;

const FilterCall OFFER = [](FilterRun& run) { run.Offer(true); };
const FilterCall OFFER_WITHOUT_MEMORY = [](FilterRun& run) { run.Offer(false); };
const FilterCall LOOK = [](FilterRun& run) { run.Look(); };

void ExpectHolds(unsigned occurrencesBefore, const std::vector<FilterCall>& threads) {
  Silence();
  KavoExplorer::ExpectHolds([&] {
    auto run = std::make_unique<FilterRun>(occurrencesBefore);
    for (const FilterCall& call : threads) {
      run->threads.emplace_back([&call, &table = *run] { call(table); });
    }
    return run;
  });
}

TEST(FilterScenarios, OneOfTwoThatMayAdmitDoes) {
  ExpectHolds(FREQ - 1, {OFFER, OFFER, LOOK});
}

TEST(FilterScenarios, AnAdmissionThatFailsKeepsNobodyWaiting) {
  ExpectHolds(FREQ - 1, {OFFER_WITHOUT_MEMORY, OFFER, LOOK});
  ExpectHolds(FREQ - 1, {OFFER_WITHOUT_MEMORY, OFFER_WITHOUT_MEMORY, OFFER});
}

TEST(FilterScenarios, ThreeOccurrencesOfANewKey) {
  ExpectHolds(0, {OFFER, OFFER, OFFER});
}

}  // namespace
}  // namespace KavoExplorer
