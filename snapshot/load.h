// Reading a chain: every file is verified before the first record is given to whoever takes it.
#pragma once

#include <memory>

#include "snapshot/folder.h"
#include "snapshot/part_reader.h"
#include "snapshot/progress.h"
#include "snapshot/workers.h"

namespace Qen {

struct Snapshot {
  Manifest manifest;
  std::vector<std::unique_ptr<PartReader>> parts;
};

// The snapshots from `number` back to its full one, that one included, or back to the one named by
// `until`, not included; the newest first. Refuses a chain in which one is missing.
std::vector<Manifest> ReadChain(const Folder& folder, std::uint64_t number, const SaveIdentity* until = nullptr);

// The newest snapshot of the chain that `at` is in, as far as it comes after that one. Refuses a chain that is gone.
std::uint64_t NewestOfChain(const Folder& folder, const SaveIdentity& at);

// The parts of each. Refuses those that do not belong.
std::vector<Snapshot> ExamineParts(const Folder& folder, std::vector<Manifest> chain);

// Something that records can be put into.
class ItemTarget {
 public:
  explicit ItemTarget(std::string name) : m_name(std::move(name)) {}
  ItemTarget(const ItemTarget&) = delete;
  ItemTarget& operator=(const ItemTarget&) = delete;
  virtual ~ItemTarget() = default;
  const std::string& Name() const noexcept { return m_name; }

  // The reason why this item cannot be taken; empty when it can.
  virtual std::string Mismatch(const ItemDescription& item, const ItemTotals& totals) const = 0;
  // Whether one of these records cannot be. Any thread, here and below.
  virtual bool CanBe(BlockType type, const ItemDescription& item, Bytes records) const = 0;
  virtual void Install(BlockType type, const ItemDescription& item, Bytes records) = 0;

 private:
  std::string m_name;
};

using ItemTargets = std::vector<std::unique_ptr<ItemTarget>>;

// What verifying and installing a chain are each done with, for their progress.
std::uint64_t BlockBytes(const std::vector<Snapshot>& chain) noexcept;

// Verifies all of the chain. Throws KAVO_INVALID for a target that is not in it.
void VerifyChain(const std::vector<Snapshot>& chain, const ItemTargets& targets, const Workers& workers,
                 Progress& progress);

// NEWEST_FIRST: the first record of a key is the one that counts, and counted keys are those of the newest snapshot,
// given after its rows. OLDEST_FIRST: the last one counts; counted keys are not given.
enum class LoadOrder { NEWEST_FIRST, OLDEST_FIRST };
void InstallChain(const std::vector<Snapshot>& chain, const ItemTargets& targets, const Workers& workers,
                  Progress& progress, LoadOrder order);

}  // namespace Qen
