// One row of an embedding: written, created, forgotten and saved, beside readers.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <vector>

#include "embedding/row.h"
#include "embedding/step_clock.h"
#include "explorer/explore.h"

namespace KavoExplorer {
namespace {

constexpr float START = 7;
constexpr float NO_ROW = -1;

class RowRun final : public ScenarioRun {
 public:
  using Actions = std::vector<void (RowRun::*)()>;

  // `moments`: what the row is, one after the other, the last of them when all threads have ended.
  RowRun(const std::vector<float>& moments, const std::vector<Actions>& actions) : m_moments(moments) {
    if (moments[0] != NO_ROW) {
      Qen::RowHead head(m_row.data());
      Qen::RowHead::Word seen = 0;
      static_cast<void>(head.TryBeginWrite(seen));
      head.EndWrite(seen, 1);
    }
    for (const Actions& each : actions) {
      threads.emplace_back([this, each] {
        for (const auto action : each) {
          (this->*action)();
        }
      });
    }
  }

  std::string Check() override {
    const float last = Read();
    if (last != m_moments.back()) {
      Fail("an update, or a mark, was lost");
    }
    if (m_saves != 0) {
      Save();
      if (m_saved != last) {
        Fail("an update is in no save");
      }
    }
    return m_failure;
  }

  void Look() {
    const std::size_t first = MomentOf(Read());
    if (MomentOf(Read()) < first) {
      Fail("an earlier moment was seen after a later one");
    }
  }

  // One is added to the floats of a row that is there.
  void Train() {
    const Qen::StepClock::Call call(m_clock, Qen::StepClock::Call::Kind::STEP);
    Qen::RowHead head(m_row.data());
    Qen::RowHead::Word seen = 0;
    if (Qen::BeginWrite(head, seen, Qen::RowHead::HasRow)) {
      Floats floats{};
      float* const row = Qen::RowLayout::Weights(m_row.data());
      Qen::LoadFloats(row, floats.data(), floats.size());
      std::transform(floats.begin(), floats.end(), floats.begin(), [](float x) { return x + 1; });
      Qen::StoreFloats(floats.data(), row, floats.size());
      head.EndWrite(seen, std::max(call.Number(), Qen::RowHead::Step(seen)));
    }
  }

  void Create() {
    const Qen::StepClock::Call call(m_clock, Qen::StepClock::Call::Kind::WRITE);
    Floats floats{};
    Qen::CreateRow(m_row.data(), floats.size(), call.Number(), floats.data(),
                   [&](float* start) { std::fill_n(start, floats.size(), START); });
    Read();
  }

  void Forget() { Qen::ForgetRow(m_row.data(), Qen::RowHead::HasRow); }

  // The first is full, those after it increments. The walk comes to the row twice.
  void Save() {
    const Qen::RowsToSave save{m_saves == 0, m_cut, m_saves + 1};
    ++m_saves;
    m_cut = m_clock.Cut();
    unsigned taken = 0;
    for (int visit = 0; visit < 2; ++visit) {
      Floats floats{};
      Qen::RowHead::Word seen = 0;
      if (Qen::TakeRow(m_row.data(), save, floats.size(), floats.data(), seen) == Qen::Taken::ROW) {
        m_saved = Whole(floats);
        ++taken;
      }
    }
    if (taken > 1 || (taken == 0 && save.all && m_moments[0] != NO_ROW)) {
      Fail("a save has the row twice, or not at all");
    }
  }

 private:
  using Floats = std::array<float, 2>;

  void Fail(const char* what) { m_failure = m_failure.empty() ? what : m_failure; }

  std::size_t MomentOf(float seen) const {
    return static_cast<std::size_t>(std::find(m_moments.begin(), m_moments.end(), seen) - m_moments.begin());
  }
  float Whole(const Floats& floats) {
    if (floats[0] != floats[1] || MomentOf(floats[0]) == m_moments.size()) {
      Fail("a row of two moments was seen, or of none");
    }
    return floats[0];
  }
  float Read() {
    Floats floats{};
    Qen::RowHead::Word seen = 0;
    if (!Qen::ReadRow(m_row.data(), floats.size(), floats.data(), seen)) {
      floats.fill(NO_ROW);
    }
    return Whole(floats);
  }

  const std::vector<float> m_moments;
  alignas(8) std::array<unsigned char, Qen::RowHead::BYTES + sizeof(Floats)> m_row{};
  Qen::StepClock m_clock{{}, 1};
  unsigned m_saves = 0;
  std::uint64_t m_cut = 0;
  float m_saved = NO_ROW;
  std::string m_failure;
};

void ExpectRowHolds(const std::vector<float>& moments, const std::vector<RowRun::Actions>& actions) {
  ExpectHolds([&] { return std::make_unique<RowRun>(moments, actions); });
}

TEST(RowScenarios, TwoWritersOrCreatorsAndAReader) {
  ExpectRowHolds({0, 1, 2}, {{&RowRun::Train}, {&RowRun::Train}, {&RowRun::Look}});
  ExpectRowHolds({NO_ROW, START}, {{&RowRun::Create}, {&RowRun::Create}, {&RowRun::Look}});
}

TEST(RowScenarios, AForgottenRowStaysAbsentOrComesBackAsNew) {
  ExpectRowHolds({0, 1, NO_ROW}, {{&RowRun::Forget}, {&RowRun::Train}, {&RowRun::Look}});
  ExpectRowHolds({0, NO_ROW, START}, {{&RowRun::Forget, &RowRun::Create}, {&RowRun::Create}, {&RowRun::Look}});
}

TEST(RowScenarios, ASaveTakesARowOnceAndMissesNoUpdate) {
  ExpectRowHolds({0, 1, 2}, {{&RowRun::Save, &RowRun::Save}, {&RowRun::Train}, {&RowRun::Train}});
  ExpectRowHolds({NO_ROW, START, START + 1},
                 {{&RowRun::Save, &RowRun::Save}, {&RowRun::Create, &RowRun::Train}, {&RowRun::Create}});
}

}  // namespace
}  // namespace KavoExplorer
