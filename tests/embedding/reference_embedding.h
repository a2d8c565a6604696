// What an embedding should do, in double precision and in the plainest way: a map from keys to rows.
#pragma once

#include <kavo_embedding.h>

#include <cstdint>
#include <map>
#include <span>
#include <vector>

namespace Reference {

struct Row {
  std::vector<double> weights;
  std::vector<double> state;
  std::uint64_t step = 0;
};

struct Bags {
  std::vector<unsigned long long> offsets{0};
  std::vector<float> weights;  // empty: none
  bool mean = false;
  bool hasPadding = false;
  long padding = 0;

  KavoBags View() const;
  bool IsPadding(long key) const { return hasPadding && key == padding; }
  // Of each key: its bag, and by what its row is multiplied there.
  struct Place {
    std::size_t bag;
    double factor;
  };
  std::vector<Place> Places(const std::vector<long>& keys) const;
};

class Embedding {
 public:
  explicit Embedding(const KavoEmbeddingOptions& options) : m_options(options) {}

  const std::map<long, Row>& Rows() const { return m_rows; }
  const Row* Find(long key) const;
  std::uint64_t Steps() const { return m_steps; }
  void SetRates(const KavoRates& rates) { m_options.rates = rates; }
  std::size_t StateFloats() const;

  // Offers a key whose row would start with `start`; false when it has no row at this turn.
  bool Offer(long key, unsigned occurrences, std::span<const float> start);
  // Answers how many keys were passed over.
  unsigned long long Step(const std::vector<long>& keys, const std::vector<double>& gradients, double scale);
  void Set(long key, std::span<const float> row);

 private:
  std::vector<double> BeginState(const std::vector<double>& weights) const;
  void Train(Row& row, const std::vector<double>& gradient) const;

  KavoEmbeddingOptions m_options;
  std::map<long, Row> m_rows;
  std::map<long, std::uint64_t> m_offered;  // occurrences of every key
  std::uint64_t m_steps = 0;
};

}  // namespace Reference
