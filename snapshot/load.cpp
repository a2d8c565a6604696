#include "snapshot/load.h"

#include <algorithm>
#include <optional>

namespace Qen {
namespace {

// A block, and whom it is for.
struct Piece {
  const PartReader* part;
  const PartReader::Block* block;
  std::size_t item;
  ItemTarget* target;  // null when nobody takes it
};

std::uint64_t BytesOf(const PartReader::Block& block) noexcept {
  return BlockHeader::BYTES + block.header.storedBytes;
}

std::vector<Piece> PiecesOf(const Snapshot& snapshot, const ItemTargets& targets) {
  std::vector<Piece> pieces;
  for (const auto& part : snapshot.parts) {
    for (const PartReader::Block& block : part->Blocks()) {
      const std::string& name = part->Items()[block.header.item].name;
      const auto target =
          std::find_if(targets.begin(), targets.end(), [&name](const auto& each) { return each->Name() == name; });
      pieces.push_back({part.get(), &block, block.header.item, target == targets.end() ? nullptr : target->get()});
    }
  }
  return pieces;
}

// work(piece, records) for all pieces, on all workers.
template <class Work>
void ReadPieces(const std::vector<Piece>& pieces, const Workers& workers, Progress& progress, const Work& work) {
  Atomic<std::size_t> next{0};
  workers.Run(std::min<std::size_t>(workers.threads, pieces.size()), [&](std::size_t) {
    std::vector<unsigned char> stored;
    std::vector<unsigned char> raw;
    std::optional<File> file;
    // Relaxed: hands out numbers.
    for (std::size_t i = next.fetch_add(1, std::memory_order_relaxed); i < pieces.size();
         i = next.fetch_add(1, std::memory_order_relaxed)) {
      const PartReader& part = *pieces[i].part;
      if (!file || file->Path() != part.Path()) {
        file.emplace(part.Open());
      }
      work(pieces[i], part.Read(*file, *pieces[i].block, stored, raw));
      progress.Add(BytesOf(*pieces[i].block));
    }
  });
}

void CheckTargets(const Snapshot& snapshot, const ItemTargets& targets, bool isNewest) {
  const auto number = static_cast<unsigned long long>(snapshot.manifest.header.identity.number);
  for (const auto& target : targets) {
    const Manifest::Item* const item = snapshot.manifest.Find(target->Name());
    if (item == nullptr) {
      Fail(isNewest ? KAVO_INVALID : KAVO_REFUSED_FILE, "%s: is not in snapshot %llu", target->Name().c_str(), number);
    }
    const std::string mismatch = target->Mismatch(item->description, item->totals);
    if (!mismatch.empty()) {
      Fail(KAVO_REFUSED_FILE, "snapshot %llu: %s: %s", number, target->Name().c_str(), mismatch.c_str());
    }
  }
}

}  // namespace

std::vector<Manifest> ReadChain(const Folder& folder, std::uint64_t number, const SaveIdentity* until) {
  std::vector<Manifest> chain;
  chain.push_back(folder.Read(number));
  while (until == nullptr || chain.back().header.identity != *until) {
    const FileHeader header = chain.back().header;
    if (header.kind == SnapshotKind::FULL) {
      if (until != nullptr) {
        Fail(KAVO_REFUSED_FILE, "%s: snapshot %llu is not of the chain that was loaded", folder.Path().c_str(),
             static_cast<unsigned long long>(chain.front().header.identity.number));
      }
      return chain;
    }
    const std::string path = folder.ManifestPath(header.follows.number);
    if (!FileExists(path)) {
      throw Failure(KAVO_REFUSED_FILE, path + ": is missing");
    }
    chain.push_back(folder.Read(header.follows.number));
    if (chain.back().header.identity != header.follows) {
      throw Failure(KAVO_REFUSED_FILE, path + ": is not the snapshot that the next one follows");
    }
  }
  chain.pop_back();
  return chain;
}

std::uint64_t NewestOfChain(const Folder& folder, const SaveIdentity& at) {
  try {
    SaveIdentity last = at;
    for (const std::uint64_t number : folder.Numbers()) {
      if (number <= at.number) {
        continue;
      }
      const FileHeader header = folder.Read(number).header;
      if (header.follows != last) {
        break;
      }
      last = header.identity;
    }
    if (last != at || folder.Read(at.number).header.identity == at) {
      return last.number;
    }
  } catch (const Failure& failure) {
    if (failure.Status() != KAVO_INVALID) {  // not there: a commit deletes the chain
      throw;
    }
  }
  Fail(KAVO_REFUSED_FILE, "%s: the chain that was loaded is not there any more", folder.Path().c_str());
}

std::vector<Snapshot> ExamineParts(const Folder& folder, std::vector<Manifest> chain) {
  std::vector<Snapshot> examined;
  for (Manifest& manifest : chain) {
    Snapshot snapshot{std::move(manifest), {}};
    for (std::uint32_t part = 0; part < snapshot.manifest.parts.size(); ++part) {
      const std::string path = folder.PartPath(snapshot.manifest.header.identity, part);
      snapshot.parts.push_back(std::make_unique<PartReader>(path));
      snapshot.parts.back()->CheckBelongs(snapshot.manifest, part);
    }
    examined.push_back(std::move(snapshot));
  }
  return examined;
}

std::uint64_t BlockBytes(const std::vector<Snapshot>& chain) noexcept {
  std::uint64_t bytes = 0;
  for (const Snapshot& snapshot : chain) {
    for (const auto& part : snapshot.parts) {
      for (const PartReader::Block& block : part->Blocks()) {
        bytes += BytesOf(block);
      }
    }
  }
  return bytes;
}

void VerifyChain(const std::vector<Snapshot>& chain, const ItemTargets& targets, const Workers& workers,
                 Progress& progress) {
  for (const Snapshot& snapshot : chain) {
    CheckTargets(snapshot, targets, &snapshot == &chain.front());
  }
  for (const Snapshot& snapshot : chain) {
    ReadPieces(PiecesOf(snapshot, targets), workers, progress, [](const Piece& piece, Bytes records) {
      const BlockHeader& header = piece.block->header;
      if (piece.target != nullptr && !piece.target->CanBe(header.type, piece.part->Items()[piece.item], records)) {
        throw Failure(KAVO_REFUSED_FILE, piece.part->Path() + ": a record cannot be");
      }
    });
  }
}

void InstallChain(const std::vector<Snapshot>& chain, const ItemTargets& targets, const Workers& workers,
                  Progress& progress, LoadOrder order) {
  const auto install = [](const Piece& piece, Bytes records) {
    piece.target->Install(piece.block->header.type, piece.part->Items()[piece.item], records);
  };
  for (std::size_t i = 0; i < chain.size(); ++i) {
    const bool newestFirst = order == LoadOrder::NEWEST_FIRST;
    std::vector<Piece> pieces = PiecesOf(chain[newestFirst ? i : chain.size() - 1 - i], targets);
    const bool counts = order == LoadOrder::NEWEST_FIRST && i == 0;
    std::uint64_t passedOver = 0;
    std::erase_if(pieces, [&](const Piece& piece) {
      const bool isWanted = piece.target != nullptr && (counts || piece.block->header.type != BlockType::COUNTED);
      passedOver += isWanted ? 0 : BytesOf(*piece.block);
      return !isWanted;
    });
    progress.Add(passedOver);
    const auto counted = std::stable_partition(pieces.begin(), pieces.end(), [](const Piece& piece) {
      return piece.block->header.type != BlockType::COUNTED;
    });
    const std::vector<Piece> last(counted, pieces.end());
    pieces.erase(counted, pieces.end());
    ReadPieces(pieces, workers, progress, install);
    ReadPieces(last, workers, progress, install);
  }
}

}  // namespace Qen
