#include "incremental_export/model.h"

#include <algorithm>

#include "pseudo_random.h"

namespace IncrementalExport {
namespace {

KavoEmbeddingOptions Options(unsigned dim, std::uint64_t rows) {
  KavoEmbeddingOptions options = Examples::Defaults(dim, KAVO_OPTIMISER_ADAM);
  options.expected = rows;
  return options;
}

}  // namespace

Model::Model(unsigned tableId, unsigned dim, std::uint64_t rows)
    : m_dim(dim),
      m_rows(Examples::Make(Options(dim, rows))),
      m_visits(tableId, static_cast<unsigned>(rows), sizeof(std::uint64_t)) {}

void Model::Train(std::span<const long> keys, std::uint64_t salt) const {
  std::vector<float> rows(keys.size() * m_dim);
  Examples::Check(KavoEmbeddingForward(m_rows.get(), keys.data(), keys.size(), nullptr, rows.data(), nullptr));
  std::vector<float>& gradients = rows;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const auto word = static_cast<std::uint64_t>(keys[i / m_dim]) ^ PseudoRandom::Mix(salt ^ (i % m_dim));
    gradients[i] = static_cast<float>(PseudoRandom::BellCurve(PseudoRandom::Mix(word)));
  }
  Examples::Check(KavoEmbeddingBackward(m_rows.get(), keys.data(), keys.size(), gradients.data(), 1.0F, nullptr));
  for (const long key : keys) {
    m_visits.LookupOrInsert(VisitsKey(key));
    // Says that the value changes; LookupOrInsert does not, and the change would be in no increment.
    ++m_visits.LookupForUpdate<std::uint64_t>(VisitsKey(key)).front();
  }
}

void Train(const Shards& shards, std::span<const long> keys, std::uint64_t salt) {
  std::vector<unsigned> owners(keys.size());
  Examples::Check(KavoOwners(keys.data(), keys.size(), static_cast<unsigned>(shards.size()), owners.data()));
  for (unsigned shard = 0; shard < shards.size(); ++shard) {
    std::vector<long> own;
    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (owners[i] == shard) {
        own.push_back(keys[i]);
      }
    }
    shards[shard].Train(own, salt);
  }
}

}  // namespace IncrementalExport
