// Two writers, or two creators, of one embedding row, beside a reader.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>

#include "embedding/row.h"
#include "explorer/explore.h"

namespace KavoExplorer {
namespace {

constexpr std::size_t FLOATS = 2;

class RowRun final : public ScenarioRun {
 public:
  // `isThere`: with a row of zeros, to which both writers add 1; else each creates it, of sevens.
  explicit RowRun(bool isThere) : m_isThere(isThere) {
    if (isThere) {
      Qen::RowHead head(m_row.data());
      Qen::RowHead::Word seen = 0;
      static_cast<void>(head.TryBeginWrite(seen));
      head.EndWrite(0, 1);
    }
    for (std::array<float, FLOATS>& seen : m_seen) {
      threads.emplace_back([this, &seen] { IsReader(seen) ? Read(seen) : Write(seen); });
    }
  }

  std::string Check() override {
    for (const std::array<float, FLOATS>& seen : m_seen) {
      if (seen[0] != seen[1]) {
        return "a row of two moments was seen";
      }
      if (!m_isThere && seen[0] != 7 && seen[0] != ABSENT) {
        return "a new row was seen without its start";
      }
    }
    std::array<float, FLOATS> last{};
    Read(last);
    return last[0] == (m_isThere ? 2 : 7) && last[1] == last[0] ? "" : "an update was lost";
  }

 private:
  static constexpr float ABSENT = -1;

  bool IsReader(const std::array<float, FLOATS>& seen) const { return &seen == &m_seen.back(); }

  void Read(std::array<float, FLOATS>& seen) {
    Qen::RowHead::Word word = 0;
    if (!Qen::ReadRow(m_row.data(), FLOATS, seen.data(), word)) {
      seen.fill(ABSENT);
    }
  }

  void Write(std::array<float, FLOATS>& seen) {
    std::array<float, FLOATS> floats{};
    if (m_isThere) {
      Qen::RowHead head(m_row.data());
      Qen::RowHead::Word word = 0;
      static_cast<void>(Qen::BeginWrite(head, word, Qen::RowHead::HasRow));
      float* const row = Qen::RowLayout::Weights(m_row.data());
      Qen::LoadFloats(row, floats.data(), FLOATS);
      std::transform(floats.begin(), floats.end(), floats.begin(), [](float x) { return x + 1; });
      Qen::StoreFloats(floats.data(), row, FLOATS);
      head.EndWrite(word, 2);
    } else {
      Qen::CreateRow(m_row.data(), FLOATS, 1, floats.data(), [](float* start) { std::fill_n(start, FLOATS, 7.0F); });
    }
    Read(seen);
  }

  const bool m_isThere;
  alignas(8) std::array<unsigned char, Qen::RowHead::BYTES + FLOATS * sizeof(float)> m_row{};
  std::array<std::array<float, FLOATS>, 3> m_seen{};
};

TEST(RowScenarios, TwoWritersAndAReader) {
  ExpectHolds([] { return std::make_unique<RowRun>(true); });
}

TEST(RowScenarios, TwoCreatorsAndAReader) {
  ExpectHolds([] { return std::make_unique<RowRun>(false); });
}

}  // namespace
}  // namespace KavoExplorer
