// The state of one bucket: one byte on its home cell, and the one place for all of its transitions.
//
//   bit 0x01 BUCKET_MOVING   a thread is copying the bucket's entries into the next generation
//   bit 0x02 BUCKET_MOVED    they are all there; final
//   bit 0x40 MAP_BUILDING    a thread is creating the bucket's overflow map
//   bit 0x80 MAP_READY       the map exists and is in the index of maps; final
//
//   from                        to                          by
//   neither move bit            MOVING                      TryBeginMove: the caller becomes the bucket's mover
//   MOVING                      neither move bit            AbandonMove: its mover, after a failure
//   MOVING                      MOVING|MOVED                FinishMove: its mover. MOVING stays; everybody tests MOVED
//                                                           first
//   no bit                      MAP_BUILDING                TryBeginMap: the caller becomes the map's creator
//   MAP_BUILDING [MOVING]       MAP_READY [MOVING]          PublishMap: its creator
//   MAP_BUILDING [MOVING]       none [MOVING]               WithdrawMap: its creator, after a failure
//
// Every write is a read-modify-write of this byte, so each sees all that the earlier ones published, whatever
// happened between. That is what ConfirmInPlace rests on: of a claimer's confirmation and a mover's TryBeginMove one
// comes second, and the second sees what the first did before (the claimed key and its link, or the move bits).
#pragma once

#include <cstdint>

#include "hash/hcore.h"
#include "platform/atomic.h"

namespace Qen {

class BucketFlags {
 public:
  // Acquire: whoever sees MOVED sees the copies; whoever sees MAP_READY sees the map.
  std::uint8_t Load() const noexcept { return m_bits.load(std::memory_order_acquire); }

  // The validation of a claim: changes nothing, but takes its place in the order of this byte's changes. True when no
  // move had begun by then: a later mover will see the claim. `observed` is an earlier reading.
  // Acquire and release: see above.
  bool ConfirmInPlace(std::uint8_t observed) noexcept {
    while ((observed & (HCore::BUCKET_MOVING | HCore::BUCKET_MOVED)) == 0) {
      if (m_bits.compare_exchange_weak(observed, observed, std::memory_order_acq_rel, std::memory_order_acquire)) {
        return true;
      }
    }
    return false;
  }

  // Sets MOVING. The caller is the bucket's mover when the answer has neither move bit. Acquire and release: see above.
  std::uint8_t TryBeginMove() noexcept { return m_bits.fetch_or(HCore::BUCKET_MOVING, std::memory_order_acq_rel); }

  // Release: the next mover, who acquires, finds the copies that were made.
  void AbandonMove() noexcept {
    m_bits.fetch_and(static_cast<std::uint8_t>(~HCore::BUCKET_MOVING), std::memory_order_release);
  }

  // Release: pairs with Load; carries the copies.
  void FinishMove() noexcept { m_bits.fetch_or(HCore::BUCKET_MOVED, std::memory_order_release); }

  // True when the caller is now the map's creator; `observed` holds the latest reading otherwise. Flags arbitrate
  // between creator and mover, hence acquire and release as in ConfirmInPlace.
  bool TryBeginMap(std::uint8_t& observed) noexcept {
    while (observed == 0) {
      if (m_bits.compare_exchange_weak(observed, HCore::MAP_BUILDING, std::memory_order_acq_rel,
                                       std::memory_order_acquire)) {
        return true;
      }
    }
    return false;
  }

  // Release: pairs with Load; carries the map and its place in the index. READY before BUILDING goes, so that nobody
  // takes the step between them for a withdrawal.
  void PublishMap() noexcept {
    m_bits.fetch_or(HCore::MAP_READY, std::memory_order_release);
    WithdrawMap();
  }

  // Release: so that the order of this byte's changes carries on what came before.
  void WithdrawMap() noexcept {
    m_bits.fetch_and(static_cast<std::uint8_t>(~HCore::MAP_BUILDING), std::memory_order_release);
  }

#ifdef KAVO_TESTING
  // See HashCell::Clear.
  void Clear() noexcept {
    m_bits.store(0, std::memory_order_relaxed);
  }
#endif

 private:
  Atomic<std::uint8_t> m_bits;
};

}  // namespace Qen
