// Random embeddings and sequences of calls against a model in double precision: every output, and every row at the end
// and whenever a snapshot was loaded. Rows are compared as floats computed in another order are: within a share of
// their size.
#include <rapidcheck.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <optional>
#include <random>
#include <set>
#include <vector>

#include "embedding/handle.h"
#include "embedding/reference_embedding.h"
#include "support/own_folder.h"

using namespace EmbeddingTest;

namespace {

bool IsClose(double a, double b) {
  return std::abs(a - b) <= 2e-3 * (1 + std::abs(a) + std::abs(b));
}

KavoEmbeddingOptions RandomOptions(std::mt19937_64& random) {
  const unsigned dim = 1 + static_cast<unsigned>(random() % 20);
  KavoEmbeddingOptions options = Defaults(dim, 1 + static_cast<unsigned>(random() % 5));
  options.initialiser = static_cast<unsigned>(random() % 4);
  options.startA = -0.25F;
  options.startB = 0.5F;
  options.seed = random();
  options.initialAccumulator = random() % 2 == 0 ? 0.1F : 0.5F;
  options.expected = random() % 2 == 0 ? 8 : 5000;  // grows, or does not
  options.admission = static_cast<unsigned>(random() % 5);
  options.counts = static_cast<unsigned>(random() % 2);
  options.growth = random() % 2 == 0 ? KAVO_REHASH_GRADUAL : KAVO_REHASH_WHOLE_TABLE;
  options.threads = 1 + static_cast<unsigned>(random() % 4);
  options.rates.learningRate = 0.05;
  options.rates.eps = 1e-3;  // gradients that cancel but for their rounding must not decide a step
  options.rates.weightDecay = random() % 2 == 0 ? 0 : 0.01;
  options.rates.l1 = random() % 2 == 0 ? 0 : 0.003;
  options.rates.l2 = 0.01;
  return options;
}

// One embedding beside its model.
class Pair {
 public:
  explicit Pair(std::uint64_t seed)
      : m_random(seed),
        m_options(RandomOptions(m_random)),
        m_dim(m_options.dim),
        m_embedding(Make(m_options)),
        m_model(m_options),
        m_space(20 + m_random() % 3000) {}

  void Call(std::uint64_t which) {
    constexpr void (Pair::*CALLS[])() = {&Pair::Forward,  &Pair::Forward,      &Pair::PooledBags, &Pair::Backward,
                                         &Pair::Backward, &Pair::BackwardBags, &Pair::Lookup,     &Pair::PooledBags,
                                         &Pair::Set,      &Pair::SetRates,     &Pair::Save,       &Pair::Load,
                                         &Pair::Reshard};
    (this->*CALLS[which % std::size(CALLS)])();
  }

  void CompareAll() {
    std::vector<long> keys;
    void* cursor = nullptr;
    do {
      long some[7];
      unsigned long long num = 0;
      Must(KavoEmbeddingNextKeys(m_embedding.get(), &cursor, some, 7, &num));
      keys.insert(keys.end(), some, some + num);
    } while (cursor != nullptr);
    RC_ASSERT(keys.size() == m_model.Rows().size());
    RC_ASSERT(std::set<long>(keys.begin(), keys.end()).size() == keys.size());
    const std::size_t floats = KavoEmbeddingRowFloats(m_embedding.get());
    RC_ASSERT(floats == m_dim + m_model.StateFloats());
    std::vector<float> rows(keys.size() * floats);
    std::vector<unsigned long long> steps(keys.size());
    std::vector<unsigned char> found(keys.size());
    Must(KavoEmbeddingGetRows(m_embedding.get(), keys.data(), keys.size(), rows.data(), steps.data(), found.data()));
    for (std::size_t i = 0; i < keys.size(); ++i) {
      const Reference::Row* const row = m_model.Find(keys[i]);
      RC_ASSERT(row != nullptr && found[i] == 1);
      RC_ASSERT(steps[i] == row->step);
      for (std::size_t f = 0; f < floats; ++f) {
        const double expected = f < m_dim ? row->weights[f] : row->state[f - m_dim];
        RC_ASSERT(IsClose(rows[i * floats + f], expected));
      }
    }
    const KavoEmbeddingStats stats = StatsOf(m_embedding);
    RC_ASSERT(stats.rows == m_model.Rows().size());
    RC_ASSERT(stats.steps == m_model.Steps());
  }

 private:
  // New ones, or those of the call before, as backward brings those of forward.
  const std::vector<long>& Keys() {
    if (m_random() % 2 == 0) {
      return m_keys;
    }
    std::vector<long>& keys = m_keys;
    keys.resize(m_random() % 4 == 0 ? m_random() % 1500 : m_random() % 40);
    for (long& key : keys) {
      constexpr long EXTREMES[] = {std::numeric_limits<long>::min(), std::numeric_limits<long>::max(), -1, 0};
      const auto drawn = static_cast<long>(m_random() % m_space);
      key = m_random() % 30 == 0 ? EXTREMES[m_random() % 4] : m_random() % 3 == 0 ? -drawn : drawn;
    }
    return keys;
  }

  Reference::Bags Bags(std::size_t num, const std::vector<long>& keys) {
    Reference::Bags bags;
    while (bags.offsets.back() < num || m_random() % 4 == 0) {
      bags.offsets.push_back(std::min<unsigned long long>(num, bags.offsets.back() + m_random() % 60));
    }
    bags.mean = m_random() % 2 == 0;
    if (!bags.mean && m_random() % 2 == 0) {
      bags.weights = Floats(num);
    }
    bags.hasPadding = !keys.empty() && m_random() % 2 == 0;
    bags.padding = bags.hasPadding ? keys[m_random() % keys.size()] : 0;
    return bags;
  }

  std::vector<float> Floats(std::size_t num) {
    std::vector<float> floats(num);
    for (float& x : floats) {
      x = static_cast<float>(static_cast<int>(m_random() % 2001) - 1000) / 1000;
    }
    return floats;
  }

  // Where keys start, from an embedding of the same starts that has no row.
  std::vector<float> Starts(const std::vector<long>& keys) {
    KavoEmbeddingOptions options = m_options;
    options.expected = 8;
    return EmbeddingTest::Lookup(Make(options), keys, options.dim);
  }

  // The weights of keys[i], which are absent's when it has no row.
  double Weight(const std::vector<long>& keys, const std::vector<float>& absent, std::size_t i, std::size_t d) const {
    const Reference::Row* const row = m_model.Find(keys[i]);
    return row != nullptr ? row->weights[d] : absent[i * m_dim + d];
  }

  void Compare(const std::vector<float>& rows, const std::vector<long>& keys, const std::vector<float>& absent) const {
    for (std::size_t at = 0; at < rows.size(); ++at) {
      RC_ASSERT(IsClose(rows[at], Weight(keys, absent, at / m_dim, at % m_dim)));
    }
  }

  // Answers how many keys have no row at their turn.
  unsigned long long Offer(const std::vector<long>& keys, const std::vector<float>& starts,
                           const std::vector<unsigned>& occurrences, const Reference::Bags& bags) {
    unsigned long long without = 0;
    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (!bags.IsPadding(keys[i])) {
        const auto start = std::span(starts).subspan(i * m_dim, m_dim);
        without += m_model.Offer(keys[i], occurrences.empty() ? 1 : occurrences[i], start) ? 0 : 1;
      }
    }
    return without;
  }

  void Forward() {
    const std::vector<long> keys = Keys();
    std::vector<unsigned> occurrences(m_random() % 2 == 0 ? keys.size() : 0);
    for (unsigned& each : occurrences) {
      each = 1 + static_cast<unsigned>(m_random() % 3);
    }
    const std::vector<float> starts = Starts(keys);
    const unsigned long long expected = Offer(keys, starts, occurrences, {});
    std::vector<float> rows(keys.size() * m_dim);
    unsigned long long without = 0;
    Must(KavoEmbeddingForward(m_embedding.get(), keys.data(), keys.size(),
                              occurrences.empty() ? nullptr : occurrences.data(), rows.data(), &without));
    // Several threads may offer the occurrences of one key in another order, which tells when occurrences differ.
    RC_ASSERT(without == expected || (!occurrences.empty() && m_options.threads > 1));
    Compare(rows, keys, starts);
  }

  // Those of forward, which makes rows, or of lookup.
  void PooledBags() {
    const std::vector<long> keys = Keys();
    const Reference::Bags bags = Bags(keys.size(), keys);
    const KavoBags view = bags.View();
    std::vector<float> pooled((bags.offsets.size() - 1) * m_dim);
    std::vector<float> absent = Starts(keys);
    if (m_random() % 2 == 0) {
      const unsigned long long expected = Offer(keys, absent, {}, bags);
      unsigned long long without = 0;
      Must(KavoEmbeddingForwardBags(m_embedding.get(), keys.data(), keys.size(), &view, pooled.data(), &without));
      RC_ASSERT(without == expected);
    } else {
      const unsigned kind = m_random() % 2 == 0 ? KAVO_ABSENT_ZEROS : KAVO_ABSENT_START;
      absent = kind == KAVO_ABSENT_ZEROS ? std::vector<float>(absent.size()) : absent;
      Must(KavoEmbeddingLookupBags(m_embedding.get(), keys.data(), keys.size(), &view, kind, nullptr, pooled.data()));
    }
    std::vector<double> sums(pooled.size());
    const auto places = bags.Places(keys);
    for (std::size_t i = 0; i < keys.size(); ++i) {
      for (std::size_t d = 0; d < m_dim && !bags.IsPadding(keys[i]); ++d) {
        sums[places[i].bag * m_dim + d] += places[i].factor * Weight(keys, absent, i, d);
      }
    }
    RC_ASSERT(std::equal(pooled.begin(), pooled.end(), sums.begin(), IsClose));
  }

  void Lookup() {
    const std::vector<long> keys = Keys();
    const unsigned kind = static_cast<unsigned>(m_random() % 3);
    const std::vector<float> row = Floats(m_dim);
    std::vector<float> absent = kind == KAVO_ABSENT_START ? Starts(keys) : std::vector<float>(keys.size() * m_dim);
    for (std::size_t i = 0; kind == KAVO_ABSENT_ROW && i < absent.size(); ++i) {
      absent[i] = row[i % m_dim];
    }
    std::vector<float> rows(keys.size() * m_dim);
    std::vector<unsigned char> found(keys.size());
    Must(KavoEmbeddingLookup(m_embedding.get(), keys.data(), keys.size(), kind, row.data(), rows.data(), found.data()));
    for (std::size_t i = 0; i < keys.size(); ++i) {
      RC_ASSERT(found[i] == (m_model.Find(keys[i]) != nullptr ? 1 : 0));
    }
    Compare(rows, keys, absent);
  }

  void Backward() {
    const std::vector<long> keys = Keys();
    const std::vector<float> gradients = Floats(keys.size() * m_dim);
    const float scale = m_random() % 2 == 0 ? 1 : 0.5F;
    unsigned long long passedOver = 0;
    Must(KavoEmbeddingBackward(m_embedding.get(), keys.data(), keys.size(), gradients.data(), scale, &passedOver));
    RC_ASSERT(passedOver == m_model.Step(keys, std::vector<double>(gradients.begin(), gradients.end()), scale));
  }

  void BackwardBags() {
    const std::vector<long> keys = Keys();
    const Reference::Bags bags = Bags(keys.size(), keys);
    const std::vector<float> gradients = Floats((bags.offsets.size() - 1) * m_dim);
    const std::vector<float> starts = Starts(keys);
    const KavoBags view = bags.View();
    std::vector<float> weightGradients(keys.size(), 7);
    unsigned long long passedOver = 0;
    Must(KavoEmbeddingBackwardBags(m_embedding.get(), keys.data(), keys.size(), &view, gradients.data(), 1,
                                   bags.weights.empty() ? nullptr : weightGradients.data(), &passedOver));
    const auto places = bags.Places(keys);
    std::vector<long> trained;
    std::vector<double> theirs;
    for (std::size_t i = 0; i < keys.size(); ++i) {
      double ofWeight = 0;
      for (std::size_t d = 0; d < m_dim && !bags.IsPadding(keys[i]); ++d) {
        const double gradient = gradients[places[i].bag * m_dim + d];
        theirs.push_back(places[i].factor * gradient);
        ofWeight += gradient * Weight(keys, starts, i, d);
      }
      if (!bags.IsPadding(keys[i])) {
        trained.push_back(keys[i]);
      }
      RC_ASSERT(bags.weights.empty() || IsClose(weightGradients[i], ofWeight));
    }
    RC_ASSERT(passedOver == m_model.Step(trained, theirs, 1));
  }

  void Set() {
    const std::vector<long> keys = Keys();
    const std::size_t floats = m_dim + m_model.StateFloats();
    std::vector<float> rows = Floats(keys.size() * floats);
    for (std::size_t i = 0; i < rows.size(); ++i) {
      rows[i] = i % floats < m_dim ? rows[i] : std::abs(rows[i]) + 0.1F;  // sums of squares
    }
    Must(KavoEmbeddingSetRows(m_embedding.get(), keys.data(), keys.size(), rows.data()));
    for (std::size_t i = 0; i < keys.size(); ++i) {
      m_model.Set(keys[i], std::span(rows).subspan(i * floats, floats));
    }
  }

  void SetRates() {
    // FTRL's state means weights by its own rate only; elsewhere a rate is just the next step's.
    if (m_options.optimiser != KAVO_OPTIMISER_FTRL) {
      m_options.rates.learningRate = 0.01 + static_cast<double>(m_random() % 10) / 100;
      Must(KavoEmbeddingSetRates(m_embedding.get(), &m_options.rates));
      m_model.SetRates(m_options.rates);
    }
  }

  // A part for each shard, each of a save of its own that joins the first. What is trained before the commit is not in
  // it, and in the next.
  void SaveShards(const std::vector<KavoEmbedding*>& shards) {
    const bool isFull = !m_saved || m_random() % 4 == 0;
    const KavoSaveOptions options{sizeof(KavoSaveOptions), isFull ? 0U : 1U, static_cast<unsigned>(shards.size()), 1,
                                  0};
    std::vector<KavoSave*> saves(shards.size());
    unsigned long long number = 0;
    unsigned long long id = 0;
    for (unsigned shard = 0; shard < shards.size(); ++shard) {
      const char* const folder = m_folder.Path().c_str();
      Must(shard == 0 ? KavoSnapshotBegin(folder, &options, &saves[0])
                      : KavoSnapshotJoin(folder, &options, number, id, &saves[shard]));
      Must(KavoSnapshotIdentity(saves[shard], &number, &id));
      const KavoSnapshotItem item{sizeof(KavoSnapshotItem), "rows", shards[shard], 0};
      Must(KavoSnapshotPart(saves[shard], shard, &item, 1, nullptr, nullptr));
    }
    m_saved = m_model;
    TrainShards(shards);
    for (KavoSave* const save : saves) {
      Must(KavoSnapshotCommit(save, nullptr, 0));
    }
  }

  // One step, each shard with the keys that it owns.
  void TrainShards(const std::vector<KavoEmbedding*>& shards) {
    const std::vector<long> keys = Keys();
    const std::vector<float> gradients = Floats(keys.size() * m_dim);
    std::vector<unsigned> owners(keys.size());
    Must(KavoOwners(keys.data(), keys.size(), static_cast<unsigned>(shards.size()), owners.data()));
    for (unsigned shard = 0; shard < shards.size(); ++shard) {
      std::vector<long> own;
      std::vector<float> theirs;
      for (std::size_t i = 0; i < keys.size(); ++i) {
        if (owners[i] == shard) {
          own.push_back(keys[i]);
          theirs.insert(theirs.end(), &gradients[i * m_dim], &gradients[i * m_dim] + m_dim);
        }
      }
      Must(KavoEmbeddingBackward(shards[shard], own.data(), own.size(), theirs.data(), 1, nullptr));
    }
    m_model.Step(keys, std::vector<double>(gradients.begin(), gradients.end()), 1);
  }

  // What was done since the last save is gone. The seed comes from the snapshot, rates do not.
  std::vector<KavoEmbedding*> LoadShards(unsigned num) {
    KavoEmbeddingOptions options = m_options;
    options.seed = m_random();
    m_shards.clear();
    std::vector<KavoEmbedding*> shards;
    for (unsigned shard = 0; shard < num; ++shard) {
      m_shards.push_back(Make(options));
      shards.push_back(m_shards.back().get());
      const KavoSnapshotItem item{sizeof(KavoSnapshotItem), "rows", shards.back(), 0};
      Must(KavoSnapshotLoad(m_folder.Path().c_str(), 0, &item, 1, shard, num, nullptr, nullptr));
    }
    m_model = *m_saved;
    m_model.SetRates(m_options.rates);
    return shards;
  }

  void Save() { SaveShards({m_embedding.get()}); }

  void Load() {
    if (m_saved) {
      LoadShards(1);
      m_embedding = std::move(m_shards[0]);
      CompareAll();
    }
  }

  void Reshard() {
    Save();
    const std::vector<KavoEmbedding*> shards = LoadShards(2 + static_cast<unsigned>(m_random() % 2));
    TrainShards(shards);
    SaveShards(shards);
    Load();
  }

  std::vector<long> m_keys;
  std::mt19937_64 m_random;
  KavoEmbeddingOptions m_options;
  std::size_t m_dim;
  Handle m_embedding;
  Reference::Embedding m_model;
  std::optional<Reference::Embedding> m_saved;  // as the newest snapshot has it
  OwnFolder m_folder;
  std::vector<Handle> m_shards;
  std::uint64_t m_space;
};

TEST(EmbeddingModel, EveryCallAnswersAsTheModelDoes) {
  EXPECT_TRUE(rc::check("embedding and model", [](std::uint64_t seed, const std::vector<std::uint8_t>& calls) {
    Pair pair(seed);
    for (const std::uint8_t call : calls) {
      pair.Call(call);
    }
    pair.CompareAll();
  }));
}

}  // namespace
