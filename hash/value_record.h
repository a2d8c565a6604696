// The value record of one key: where a cell or a map entry names the key's block, by its number.
//
// States, once the key is set:
//
//   FILLING (zero)   a thread is between its claim of the key and the attachment of the block; it owns the record and
//                    waits for nobody meanwhile. Ended by the owner only: to ATTACHED, or to VACANT.
//   VACANT           nobody works on it: the claim was withdrawn, or its block could not be had. Ended by the
//                    compare-exchange of an inserter that takes it over, to FILLING.
//   ATTACHED         names a block. Final: a key has one block for the life of its table. Copies of the record in
//                    newer generations name the same block, which is why a move never has to empty a record and a
//                    reader may trust whatever it finds in an old generation.
//
// The record owns nothing; blocks belong to the table's pool.
#pragma once

#include <cstdint>

#include "platform/atomic.h"
#include "platform/block_directory.h"

namespace Qen {

enum class RecordState { FILLING, VACANT, ATTACHED };

template <class PointeeType>
class ValueRecord {
 public:
  using Pointee = PointeeType;

  // What everybody outside the core sees: the block, or null while there is none.
  // Acquire: pairs with Attach; whoever sees the number sees what was written to the block before.
  Pointee* Get(const BlockDirectory& blocks) const noexcept {
    const std::uint32_t word = m_word.load(std::memory_order_acquire);
    return word > VACANT_WORD ? reinterpret_cast<Pointee*>(blocks.At(word - FIRST_BLOCK_WORD)) : nullptr;
  }

  RecordState State() const noexcept {
    const std::uint32_t word = m_word.load(std::memory_order_acquire);  // as in Get: the caller may go on to Get
    return word == FILLING_WORD  ? RecordState::FILLING
           : word == VACANT_WORD ? RecordState::VACANT
                                 : RecordState::ATTACHED;
  }

  // Owner of FILLING only. Release: pairs with Get.
  void Attach(BlockNumber number) noexcept { m_word.store(number + FIRST_BLOCK_WORD, std::memory_order_release); }

  // Of an attached record, as the caller has seen. Relaxed: see State.
  BlockNumber Number() const noexcept { return m_word.load(std::memory_order_relaxed) - FIRST_BLOCK_WORD; }

  // Owner of FILLING only. Relaxed: VACANT carries no data, and whoever takes the record over validates its claim
  // against the bucket's flags like a new one.
  void Withdraw() noexcept { m_word.store(VACANT_WORD, std::memory_order_relaxed); }

#ifdef KAVO_TESTING
  // See HashCell::Clear.
  void Clear() noexcept {
    m_word.store(FILLING_WORD, std::memory_order_relaxed);
  }
#endif

  // Makes the caller the owner of FILLING if the record is VACANT. Relaxed: ownership is published by the validation
  // that must follow.
  bool TakeOver() noexcept {
    std::uint32_t expected = VACANT_WORD;
    return m_word.compare_exchange_strong(expected, FILLING_WORD, std::memory_order_relaxed, std::memory_order_relaxed);
  }

 private:
  static constexpr std::uint32_t FILLING_WORD = 0;
  static constexpr std::uint32_t VACANT_WORD = 1;
  static constexpr std::uint32_t FIRST_BLOCK_WORD = 2;

  Atomic<std::uint32_t> m_word{FILLING_WORD};
};

// The record that names the value's own block. A table may have its records name what leads to the block instead.
using HashValue = ValueRecord<unsigned char>;

}  // namespace Qen
