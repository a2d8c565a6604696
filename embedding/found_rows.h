// What a forward call has found, kept for the backward call of the same batch: a key's row stays where it is, so half
// of a step's searches need not be made again.
//
// A thread that calls forward and then backward finds its batch in the slot of threads that share its number; whoever
// finds another batch there, or none, searches. A slot's batch is one call's for as long as the call works on it.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <thread>

#include "embedding/reused.h"
#include "platform/atomic.h"

namespace Qen {

class FoundRows {
 public:
  struct Batch {
    std::span<const long> keys;      // empty: nothing was found
    std::span<unsigned char*> rows;  // of these keys; null for one that had none

    Reused<long> keyMemory;
    Reused<unsigned char*> rowMemory;
  };

  FoundRows() = default;
  FoundRows(const FoundRows&) = delete;
  FoundRows& operator=(const FoundRows&) = delete;
  ~FoundRows() { Clear(); }

  // Of a forward call: makes room for a batch's rows, to be written by index; Finish once all are. Throws
  // std::bad_alloc.
  class Writer {
   public:
    Writer(FoundRows& found, std::span<const long> keys) : m_slot(found.OwnSlot()), m_batch(Take(m_slot)) {
      if (m_batch == nullptr) {
        m_batch = std::make_unique<Batch>();
      }
      m_batch->keys = {};
      m_batch->rows = m_batch->rowMemory.Take(keys.size());
      m_copy = m_batch->keyMemory.Take(keys.size());
      std::copy(keys.begin(), keys.end(), m_copy.begin());
    }
    unsigned char** Rows() const noexcept { return m_batch->rows.data(); }
    void Finish() noexcept {
      m_batch->keys = m_copy;
      PutBack(m_slot, std::move(m_batch));
    }

   private:
    Atomic<Batch*>& m_slot;
    std::unique_ptr<Batch> m_batch;
    std::span<long> m_copy;
  };

  // Of a backward call: the rows that forward found for these keys, empty if that is not known.
  class Reader {
   public:
    Reader(FoundRows& found, std::span<const long> keys) noexcept
        : m_slot(found.OwnSlot()),
          m_batch(Take(m_slot)),
          m_known(m_batch != nullptr &&
                  std::equal(keys.begin(), keys.end(), m_batch->keys.begin(), m_batch->keys.end())) {}
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    ~Reader() { PutBack(m_slot, std::move(m_batch)); }
    std::span<unsigned char* const> Rows() const noexcept {
      return m_known ? std::span<unsigned char* const>(m_batch->rows) : std::span<unsigned char* const>();
    }

   private:
    Atomic<Batch*>& m_slot;
    std::unique_ptr<Batch> m_batch;
    bool m_known;
  };

  // Rows are about to go. No other call is at work.
  void Clear() noexcept {
    for (Atomic<Batch*>& slot : m_slots) {
      delete slot.exchange(nullptr, std::memory_order_relaxed);
    }
  }

 private:
  Atomic<Batch*>& OwnSlot() noexcept {
    return m_slots[std::hash<std::thread::id>()(std::this_thread::get_id()) % m_slots.size()];
  }
  // Acquire and release: whoever takes a batch sees what was left in it.
  static std::unique_ptr<Batch> Take(Atomic<Batch*>& slot) noexcept {
    return std::unique_ptr<Batch>(slot.exchange(nullptr, std::memory_order_acquire));
  }
  static void PutBack(Atomic<Batch*>& slot, std::unique_ptr<Batch> batch) noexcept {
    delete slot.exchange(batch.release(), std::memory_order_acq_rel);  // of another thread with this slot
  }

  std::array<Atomic<Batch*>, 61> m_slots{};  // a prime: ids of threads are addresses
};

}  // namespace Qen
