#include "snapshot/manifest.h"

#include <algorithm>

namespace Qen {

const Manifest::Item* Manifest::Find(const std::string& name) const noexcept {
  const auto found =
      std::find_if(items.begin(), items.end(), [&name](const Item& item) { return item.description.name == name; });
  return found == items.end() ? nullptr : &*found;
}

std::uint64_t Manifest::PartBytes() const noexcept {
  std::uint64_t bytes = 0;
  for (const PartSeal& part : parts) {
    bytes += part.bytes;
  }
  return bytes;
}

ByteWriter Manifest::Encode() const {
  ByteWriter bytes;
  header.Put(bytes, MANIFEST_MAGIC);
  bytes.Put(static_cast<std::uint32_t>(items.size()));
  bytes.Put(std::uint64_t{blob.size()});
  for (const PartSeal& part : parts) {
    bytes.Put(part.bytes);
    bytes.Put(part.checksum);
  }
  for (const Item& item : items) {
    item.description.Put(bytes);
    item.totals.Put(bytes);
  }
  bytes.Put(blob.data(), blob.size());
  bytes.Put(Checksum(bytes.All()));
  return bytes;
}

Manifest Manifest::Decode(Bytes bytes, const std::string& file) {
  ByteReader from(bytes, file);
  Manifest manifest;
  manifest.header = FileHeader::Take(from, MANIFEST_MAGIC);  // first: what is foreign or newer is called so
  ByteReader tail(bytes.last(std::min<std::size_t>(bytes.size(), sizeof(std::uint64_t))), file);
  if (tail.Take<std::uint64_t>() != Checksum(bytes.first(bytes.size() - sizeof(std::uint64_t)))) {
    from.RefuseFile("is damaged: its checksum does not match");
  }
  const auto items = from.Take<std::uint32_t>();
  const auto blobBytes = from.Take<std::uint64_t>();
  for (std::uint32_t part = 0; part < manifest.header.parts; ++part) {
    const auto partBytes = from.Take<std::uint64_t>();
    manifest.parts.push_back({partBytes, from.Take<std::uint64_t>()});
  }
  for (std::uint32_t i = 0; i < items; ++i) {
    ItemDescription description = ItemDescription::Take(from);
    if (manifest.Find(description.name) != nullptr) {
      from.RefuseFile("two of its items have one name");
    }
    manifest.items.push_back({std::move(description), ItemTotals::Take(from)});
  }
  const Bytes blob = from.Take(blobBytes);
  manifest.blob.assign(blob.begin(), blob.end());
  if (from.Left() != sizeof(std::uint64_t)) {
    from.RefuseFile("is longer than it should be");
  }
  return manifest;
}

}  // namespace Qen
