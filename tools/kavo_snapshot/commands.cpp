#include "kavo_snapshot/commands.h"

#include <fmt/format.h>

#include <set>
#include <unordered_map>

#include "kavo_snapshot/gathered.h"
#include "snapshot/save.h"

namespace KavoSnapshot {
namespace {

using Qen::BlockType;
using Qen::ItemDescription;
using Qen::ItemType;
using Qen::Manifest;

const char* KindOf(const Manifest& manifest) {
  return manifest.header.kind == Qen::SnapshotKind::FULL ? "full" : "increment";
}

std::string TypeOf(const ItemDescription& item) {
  static const char* const OPTIMISERS[] = {"none", "sgd", "adagrad", "rowwise adagrad", "adam", "ftrl"};
  if (item.type != ItemType::EMBEDDING) {
    return fmt::format("{} table, values of {} bytes", item.type == ItemType::FILTER_TABLE ? "filter" : "basic",
                       item.valueBytes);
  }
  return fmt::format(
      "embedding, dim {}, optimiser {}, {} floats of state{}", item.dim,
      item.optimiser < std::size(OPTIMISERS) ? OPTIMISERS[item.optimiser] : std::to_string(item.optimiser),
      item.stateFloats, item.hasCounts != 0 ? ", counts" : "");
}

void PrintManifest(const Manifest& manifest, std::FILE* out) {
  fmt::print(out, "snapshot {}: {}", manifest.header.identity.number, KindOf(manifest));
  if (manifest.header.kind == Qen::SnapshotKind::INCREMENT) {
    fmt::print(out, " after {}", manifest.header.follows.number);
  }
  fmt::print(out, ", {} part(s), {} bytes, blob of {} bytes\n", manifest.header.parts, manifest.PartBytes(),
             manifest.blob.size());
  for (const Manifest::Item& item : manifest.items) {
    fmt::print(out, "  {}: {}\n    {} rows, {} only counted, {} removed", item.description.name,
               TypeOf(item.description), item.totals.rows, item.totals.counted, item.totals.removed);
    if (item.description.type == ItemType::EMBEDDING) {
      fmt::print(out, ", {} steps", item.totals.steps);
    }
    fmt::print(out, "\n");
  }
}

std::uint64_t FingerprintOf(const Entry& entry) {
  return Qen::Checksum(entry.record) + static_cast<std::uint64_t>(entry.type);
}

struct Difference {
  std::uint64_t onlyFirst = 0;
  std::uint64_t onlySecond = 0;
  std::uint64_t changed = 0;
  std::uint64_t same = 0;
};

Difference Compare(const Chain& first, const Chain& second, const std::string& item) {
  std::unordered_map<long, std::uint64_t> fingerprints;
  ForEachEntry(first, item, [&](const Entry& entry) { fingerprints.emplace(entry.key, FingerprintOf(entry)); });
  Difference difference;
  ForEachEntry(second, item, [&](const Entry& entry) {
    const auto found = fingerprints.find(entry.key);
    if (found == fingerprints.end()) {
      ++difference.onlySecond;
      return;
    }
    ++(found->second == FingerprintOf(entry) ? difference.same : difference.changed);
    fingerprints.erase(found);
  });
  difference.onlyFirst = fingerprints.size();
  return difference;
}

// An item of a chain as something to be saved.
class GatheredSource : public Qen::ItemSource {
 public:
  GatheredSource(const Chain& chain, const Manifest::Item& item) : m_chain(chain), m_item(item) {}

  ItemDescription Description() const override { return m_item.description; }
  void Begin(const Qen::FileHeader&) override {}
  std::uint64_t ExpectedBytes() const override { return 0; }
  void Write(Qen::PartWriter& writer, std::uint32_t item, Qen::Progress&) override {
    Qen::RecordBuffer rows(writer, BlockType::ROWS, item);
    Qen::RecordBuffer counted(writer, BlockType::COUNTED, item);
    ForEachEntry(m_chain, m_item.description.name, [&](const Entry& entry) {
      Qen::RecordBuffer& to = entry.type == BlockType::ROWS ? rows : counted;
      Copy(entry, to.Next());
      to.Keep();
    });
    rows.Flush();
    counted.Flush();
    writer.SetSteps(item, m_item.totals.steps);
  }
  void Committed(const Qen::SaveIdentity&) noexcept override {}

 private:
  // An older snapshot of the chain may have rows with counts, or without.
  void Copy(const Entry& entry, unsigned char* to) const {
    const ItemDescription& now = m_item.description;
    if (entry.type != BlockType::ROWS || entry.description.IsCounted() == now.IsCounted()) {
      std::memcpy(to, entry.record.data(), entry.record.size());
      return;
    }
    const Qen::Bytes value = entry.record.subspan(entry.description.ValueOffset());
    std::memcpy(to, entry.record.data(), now.CountOffset());
    std::memset(to + now.CountOffset(), 0, now.ValueOffset() - now.CountOffset());
    std::memcpy(to + now.ValueOffset(), value.data(), value.size());
  }

  const Chain& m_chain;
  const Manifest::Item& m_item;
};

void PrintEntry(const Entry& entry, std::FILE* out) {
  const ItemDescription& item = entry.description;
  fmt::print(out, "{}", entry.key);
  const auto number = [&entry](std::size_t offset, auto zero) {
    std::memcpy(&zero, &entry.record[offset], sizeof(zero));
    return zero;
  };
  const bool isRow = entry.type == BlockType::ROWS;
  if (item.type == ItemType::EMBEDDING) {
    isRow ? fmt::print(out, ",{}", number(8, std::uint64_t{0})) : fmt::print(out, ",");
  }
  if (!isRow || item.IsCounted()) {
    fmt::print(out, ",{}", number(isRow ? item.CountOffset() : 8, std::uint32_t{0}));
  } else {
    fmt::print(out, ",");
  }
  if (item.type == ItemType::EMBEDDING) {
    for (std::size_t i = 0; i < item.Floats(); ++i) {
      isRow ? fmt::print(out, ",{:.9g}", number(item.ValueOffset() + i * sizeof(float), 0.0F)) : fmt::print(out, ",");
    }
  } else {
    fmt::print(out, ",");
    for (const unsigned char byte : isRow ? entry.record.subspan(item.ValueOffset()) : Qen::Bytes{}) {
      fmt::print(out, "{:02x}", byte);
    }
  }
  fmt::print(out, "\n");
}

}  // namespace

int PrintInfo(const std::string& place, std::FILE* out) {
  const Place at(place);
  const Qen::Folder folder(at.folder);
  if (at.number != 0) {
    PrintManifest(folder.Read(at.number), out);
    return EXIT_GOOD;
  }
  for (const std::uint64_t number : folder.Numbers()) {
    PrintManifest(folder.Read(number), out);
  }
  return EXIT_GOOD;
}

int Verify(const std::string& place, std::FILE* out) {
  const Chain chain{Place(place)};
  Qen::Progress nobody(nullptr, nullptr);
  Qen::VerifyChain(chain.snapshots, {}, Qen::Workers{}, nobody);
  std::uint64_t bytes = 0;
  for (const Qen::Snapshot& snapshot : chain.snapshots) {
    bytes += snapshot.manifest.PartBytes();
  }
  fmt::print(out, "snapshot {}: whole, with its chain of {} snapshot(s), {} bytes\n",
             chain.Newest().header.identity.number, chain.snapshots.size(), bytes);
  return EXIT_GOOD;
}

int Diff(const std::string& first, const std::string& second, std::FILE* out) {
  const Chain a{Place(first)};
  const Chain b{Place(second)};
  std::set<std::string> names;
  for (const Manifest* const manifest : {&a.Newest(), &b.Newest()}) {
    for (const Manifest::Item& item : manifest->items) {
      names.insert(item.description.name);
    }
  }
  bool isSame = true;
  for (const std::string& name : names) {
    const Manifest::Item* const inA = a.Newest().Find(name);
    const Manifest::Item* const inB = b.Newest().Find(name);
    if (inA == nullptr || inB == nullptr) {
      fmt::print(out, "{}: only in {}\n", name, inA == nullptr ? second : first);
      isSame = false;
      continue;
    }
    if (inA->description != inB->description) {
      fmt::print(out, "{}: {} and {}, or other starts\n", name, TypeOf(inA->description), TypeOf(inB->description));
      isSame = false;
    }
    const Difference difference = Compare(a, b, name);
    fmt::print(out, "{}: {} equal, {} different, {} only in {}, {} only in {}\n", name, difference.same,
               difference.changed, difference.onlyFirst, first, difference.onlySecond, second);
    isSame = isSame && difference.changed + difference.onlyFirst + difference.onlySecond == 0;
  }
  return isSame ? EXIT_GOOD : EXIT_DIFFERENT;
}

int Merge(const std::string& place, const std::string& folder, int level, std::FILE* out) {
  const Chain chain{Place(place)};
  Qen::Progress nobody(nullptr, nullptr);
  Qen::VerifyChain(chain.snapshots, {}, Qen::Workers{}, nobody);
  Qen::Save save(folder, {Qen::SnapshotKind::FULL, 1, 0, level});
  std::vector<std::unique_ptr<Qen::ItemSource>> sources;
  for (const Manifest::Item& item : chain.Newest().items) {
    sources.push_back(std::make_unique<GatheredSource>(chain, item));
  }
  save.WritePart(0, std::move(sources), nobody);
  save.Commit(chain.Newest().blob);
  fmt::print(out, "{}: snapshot {}\n", folder, save.Identity().number);
  return EXIT_GOOD;
}

int PrintCsv(const std::string& place, const std::string& item, std::FILE* out) {
  const Chain chain{Place(place)};
  const Manifest::Item* const found = chain.Newest().Find(item);
  if (found == nullptr) {
    Qen::Fail(KAVO_INVALID, "%s: there is no item %s", place.c_str(), item.c_str());
  }
  const ItemDescription& description = found->description;
  if (description.type == ItemType::EMBEDDING) {
    fmt::print(out, "key,step,count");
    for (std::size_t i = 0; i < description.Floats(); ++i) {
      fmt::print(out, ",{}{}", i < description.dim ? "weight" : "state", i < description.dim ? i : i - description.dim);
    }
    fmt::print(out, "\n");
  } else {
    fmt::print(out, "key,count,value\n");
  }
  ForEachEntry(chain, item, [out](const Entry& entry) { PrintEntry(entry, out); });
  return EXIT_GOOD;
}

}  // namespace KavoSnapshot
