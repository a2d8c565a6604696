#include "kavo_snapshot/gathered.h"

#include <charconv>
#include <unordered_set>

namespace KavoSnapshot {
namespace {

// A target that takes the first record of each key, and hands it on.
class Gatherer : public Qen::ItemTarget {
 public:
  Gatherer(const std::string& item, const Visit& visit) : ItemTarget(item), m_visit(visit) {}

  std::string Mismatch(const Qen::ItemDescription&, const Qen::ItemTotals&) const override { return ""; }
  bool CanBe(Qen::BlockType, const Qen::ItemDescription&, Qen::Bytes) const override { return true; }
  void Install(Qen::BlockType type, const Qen::ItemDescription& item, Qen::Bytes records) override {
    const std::size_t bytes = item.RecordBytes(type);
    for (std::size_t at = 0; at < records.size(); at += bytes) {
      long key = 0;
      std::memcpy(&key, &records[at], sizeof(key));
      if (m_keys.insert(key).second && type != Qen::BlockType::REMOVED) {
        m_visit({key, type, item, records.subspan(at, bytes)});
      }
    }
  }

 private:
  const Visit& m_visit;
  std::unordered_set<long> m_keys;
};

}  // namespace

Place::Place(const std::string& text) : folder(text) {
  const std::size_t at = text.rfind('@');
  if (at == std::string::npos || at + 1 == text.size()) {
    return;
  }
  const char* const end = text.data() + text.size();
  if (const auto [last, error] = std::from_chars(text.data() + at + 1, end, number);
      last == end && error == std::errc{}) {
    folder = text.substr(0, at);
  } else {
    number = 0;
  }
}

Chain::Chain(const Place& place) {
  const Qen::Folder folder(place.folder);
  snapshots = folder.ReadNewest(place.number, [&folder](std::uint64_t number) {
    return Qen::ExamineParts(folder, Qen::ReadChain(folder, number));
  });
}

void ForEachEntry(const Chain& chain, const std::string& item, const Visit& visit) {
  if (chain.Newest().Find(item) == nullptr) {
    Qen::Fail(KAVO_INVALID, "there is no item %s in snapshot %llu", item.c_str(),
              static_cast<unsigned long long>(chain.Newest().header.identity.number));
  }
  Qen::ItemTargets targets;
  targets.push_back(std::make_unique<Gatherer>(item, visit));
  Qen::Progress nobody(nullptr, nullptr);
  Qen::InstallChain(chain.snapshots, targets, Qen::Workers{}, nobody, Qen::LoadOrder::NEWEST_FIRST);
}

}  // namespace KavoSnapshot
