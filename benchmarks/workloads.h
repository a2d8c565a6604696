// One round of one table: every workload once, in the order in which a table lives.
#pragma once

#include <algorithm>
#include <vector>

#include "check.h"
#include "figures.h"
#include "keys.h"
#include "parallel.h"
#include "value.h"

namespace Bench {

// Calls `step(begin, num)` for each batch of a range.
template <class Step>
void ForBatches(std::uint64_t begin, std::uint64_t end, const Step& step) {
  for (; begin < end; begin += BATCH_KEYS) {
    step(begin, std::min(BATCH_KEYS, end - begin));
  }
}

template <class Subject>
concept HasBatchLookup = requires(Subject& subject, const long* keys, std::uint64_t& sum, Value* rows) {
  subject.FindBatch(keys, sum, sum);
  subject.CopyBatch(keys, sum, rows);
  subject.TrainBatch(keys, sum, *rows);
};

template <class Subject>
concept HasBatchInsert = requires(Subject& subject, const long* keys, std::uint64_t num, Value* rows) {
  subject.InsertBatch(keys, num, rows);
};

// The workloads proper. Each returns what it counted, which the round checks. A table without calls for batches does
// single calls in their place, as its user would.
template <class Subject>
class Workloads {
 public:
  Workloads(Subject& subject, unsigned threads) : m_subject(subject), m_threads(threads) {}

  Measured Build(const std::vector<long>& keys) {
    return Run(keys, [&](std::uint64_t begin, std::uint64_t end) {
      Tally tally;
      for (std::uint64_t i = begin; i < end; ++i) {
        tally.count += m_subject.Insert(keys[i], ValueOf(keys[i]));
      }
      return tally;
    });
  }

  Measured BuildInBatches(const std::vector<long>& keys) {
    return Run(keys, [&](std::uint64_t begin, std::uint64_t end) {
      std::vector<Value> rows(BATCH_KEYS);
      ForBatches(begin, end, [&](std::uint64_t first, std::uint64_t num) {
        for (std::uint64_t i = 0; i < num; ++i) {
          rows[i] = ValueOf(keys[first + i]);
        }
        m_subject.InsertBatch(&keys[first], num, rows.data());
      });
      return Tally{end - begin, 0};
    });
  }

  Measured Find(const std::vector<long>& keys) {
    return Run(keys, [&](std::uint64_t begin, std::uint64_t end) {
      Tally tally;
      for (std::uint64_t i = begin; i < end; ++i) {
        tally.count += m_subject.Find(keys[i], tally.sum);
      }
      return tally;
    });
  }

  Measured FindInBatches(const std::vector<long>& keys) {
    if constexpr (!HasBatchLookup<Subject>) {
      return Find(keys);
    } else {
      return Run(keys, [&](std::uint64_t begin, std::uint64_t end) {
        Tally tally;
        ForBatches(begin, end, [&](std::uint64_t first, std::uint64_t num) {
          tally.count += m_subject.FindBatch(&keys[first], num, tally.sum);
        });
        return tally;
      });
    }
  }

  // Copies the values of each batch into the caller's rows.
  Measured CopyInBatches(const std::vector<long>& keys) {
    return Run(keys, [&](std::uint64_t begin, std::uint64_t end) {
      std::vector<Value> rows(BATCH_KEYS);
      Tally tally;
      ForBatches(begin, end, [&](std::uint64_t first, std::uint64_t num) {
        if constexpr (HasBatchLookup<Subject>) {
          m_subject.CopyBatch(&keys[first], num, rows.data());
        } else {
          for (std::uint64_t i = 0; i < num; ++i) {
            m_subject.Copy(keys[first + i], rows[i]);
          }
        }
        for (std::uint64_t i = 0; i < num; ++i) {
          tally.sum += FirstWord(rows[i]);
        }
        tally.count += num;
      });
      return tally;
    });
  }

  Measured Train(const std::vector<long>& keys) {
    return Run(keys, [&](std::uint64_t begin, std::uint64_t end) {
      const Value gradient = Gradient();
      Tally tally;
      for (std::uint64_t i = begin; i < end; ++i) {
        tally.count += m_subject.Train(keys[i], gradient);
      }
      return tally;
    });
  }

  Measured TrainInBatches(const std::vector<long>& keys) {
    if constexpr (!HasBatchLookup<Subject>) {
      return Train(keys);
    } else {
      return Run(keys, [&](std::uint64_t begin, std::uint64_t end) {
        const Value gradient = Gradient();
        Tally tally;
        ForBatches(begin, end, [&](std::uint64_t first, std::uint64_t num) {
          tally.count += m_subject.TrainBatch(&keys[first], num, gradient);
        });
        return tally;
      });
    }
  }

  // One thread. With `readValues` a word of each value is read.
  Measured Export(bool readValues) {
    return Parallel(1, 1, [&](std::uint64_t, std::uint64_t) {
      Tally tally;
      if (readValues) {
        m_subject.ForEach([&tally](long, const unsigned char* value) {
          ++tally.count;
          tally.sum += FirstWord(value);
        });
      } else {
        m_subject.ForEach([&tally](long key, const unsigned char* value) {
          ++tally.count;
          tally.sum += static_cast<std::uint64_t>(key) + reinterpret_cast<std::uintptr_t>(value);
        });
      }
      return tally;
    });
  }

 private:
  static Value Gradient() {
    Value gradient;
    std::fill(std::begin(gradient.numbers), std::end(gradient.numbers), 0.125F);
    return gradient;
  }

  template <class Work>
  Measured Run(const std::vector<long>& keys, const Work& work) const {
    return Parallel(m_threads, keys.size(), work);
  }

  Subject& m_subject;
  unsigned m_threads;
};

template <class Subject>
class Round {
 public:
  Round(const KeySets& keys, unsigned threads) : m_keys(keys), m_threads(threads) {}

  Figures Run() {
    if constexpr (Subject::GROWS) {
      GrownTable();
    }
    SizedTable();
    if constexpr (HasBatchInsert<Subject>) {
      if constexpr (Subject::GROWS) {
        BatchBuild("build_small_batch", SMALL_TABLE);
      }
      BatchBuild("build_sized_batch", m_keys.present.size());
    }
    return m_nanoseconds;
  }

 private:
  void GrownTable() {
    Subject subject(SMALL_TABLE);
    Workloads<Subject> workloads(subject, m_threads);
    Note("build_small", workloads.Build(m_keys.present), m_keys.present.size());
    NoteHits("hit_grown", workloads.Find(m_keys.hits));
  }

  void SizedTable() {
    const std::uint64_t entries = m_keys.present.size();
    Subject subject(entries);
    Workloads<Subject> workloads(subject, m_threads);
    Note("build_sized", workloads.Build(m_keys.present), entries);
    NoteHits("hit", workloads.Find(m_keys.hits));
    NoteHits("batch_hit", workloads.FindInBatches(m_keys.hits));
    NoteHits("batch_copy", workloads.CopyInBatches(m_keys.hits));
    NoteOf("miss", workloads.Find(m_keys.misses), m_keys.misses.size(), 0);
    NoteOf("batch_miss", workloads.FindInBatches(m_keys.misses), m_keys.misses.size(), 0);
    Note("export", workloads.Export(false), entries);
    Note("export_values", workloads.Export(true), entries);
    NoteOf("training", workloads.TrainInBatches(m_keys.training.keys), entries, m_keys.training.newKeys);
    if constexpr (HasBatchLookup<Subject>) {
      NoteOf("training_single", workloads.Train(m_keys.furtherTraining.keys), entries, m_keys.furtherTraining.newKeys);
    }
  }

  void BatchBuild(const char* row, std::uint64_t expected) {
    if constexpr (HasBatchInsert<Subject>) {
      Subject subject(expected);
      Workloads<Subject> workloads(subject, m_threads);
      Note(row, workloads.BuildInBatches(m_keys.present), m_keys.present.size());
      const Measured check = workloads.Find(m_keys.hits);
      Check(check.tally.count == m_keys.hits.size() && check.tally.sum == m_keys.hitSum, "batches inserted every key");
    }
  }

  void NoteHits(const char* row, const Measured& measured) {
    Check(measured.tally.sum == m_keys.hitSum, "every hit gives the value of its key");
    Note(row, measured, m_keys.hits.size());
  }
  // Each operation counted.
  void Note(const char* row, const Measured& measured, std::uint64_t operations) {
    NoteOf(row, measured, operations, operations);
  }
  void NoteOf(const char* row, const Measured& measured, std::uint64_t operations, std::uint64_t expectedCount) {
    Check(measured.tally.count == expectedCount, "a workload counts what it must");
    m_nanoseconds[row] = measured.seconds * 1e9 / static_cast<double>(operations);
  }

  const KeySets& m_keys;
  unsigned m_threads;
  Figures m_nanoseconds;
};

}  // namespace Bench
