#include "snapshot/folder.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <map>
#include <optional>
#include <string_view>

namespace Qen {
namespace {

constexpr std::string_view MANIFEST_NAME = "manifest-";
constexpr std::string_view PART_NAME = "part-";
constexpr std::string_view PARTIAL = ".partial";
constexpr std::size_t NUMBER_DIGITS = 10;
constexpr std::size_t ID_DIGITS = 16;
constexpr std::size_t PART_DIGITS = 5;

// Takes a number of at least `digits` digits from the front of a name.
std::optional<std::uint64_t> TakeNumber(std::string_view& name, std::size_t digits, int base = 10) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number, base);
  const auto length = static_cast<std::size_t>(end - name.data());
  if (error != std::errc{} || length < digits) {
    return {};
  }
  name.remove_prefix(length);
  return number;
}

bool TakeText(std::string_view& name, std::string_view text) {
  if (!name.starts_with(text)) {
    return false;
  }
  name.remove_prefix(text.size());
  return true;
}

struct Name {
  enum class Kind { MANIFEST, PARTIAL_MANIFEST, PART, FOREIGN };
  Kind kind = Kind::FOREIGN;
  SaveIdentity save;  // the id of parts only
};

Name Parse(std::string_view name) {
  if (TakeText(name, MANIFEST_NAME)) {
    const auto number = TakeNumber(name, NUMBER_DIGITS);
    if (number && (name.empty() || name == PARTIAL)) {
      return {name.empty() ? Name::Kind::MANIFEST : Name::Kind::PARTIAL_MANIFEST, {*number, 0}};
    }
  } else if (TakeText(name, PART_NAME)) {
    const auto number = TakeNumber(name, NUMBER_DIGITS);
    const auto id = number && TakeText(name, "-") ? TakeNumber(name, ID_DIGITS, 16) : std::nullopt;
    if (id && TakeText(name, "-") && TakeNumber(name, PART_DIGITS) && name.empty()) {
      return {Name::Kind::PART, {*number, *id}};
    }
  }
  return {};
}

}  // namespace

std::string Folder::ManifestPath(std::uint64_t number) const {
  char digits[24];
  std::snprintf(digits, sizeof(digits), "%010llu", static_cast<unsigned long long>(number));
  return m_path + "/" + std::string(MANIFEST_NAME) + digits;
}

std::string Folder::PartPath(const SaveIdentity& save, std::uint32_t part) const {
  char digits[60];
  std::snprintf(digits, sizeof(digits), "%010llu-%016llx-%05u", static_cast<unsigned long long>(save.number),
                static_cast<unsigned long long>(save.id), part);
  return m_path + "/" + std::string(PART_NAME) + digits;
}

std::vector<std::uint64_t> Folder::Numbers() const {
  std::vector<std::uint64_t> numbers;
  for (const std::string& name : ListFolder(m_path)) {
    if (const Name parsed = Parse(name); parsed.kind == Name::Kind::MANIFEST) {
      numbers.push_back(parsed.save.number);
    }
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

std::uint64_t Folder::Newest() const {
  const std::vector<std::uint64_t> numbers = Numbers();
  if (numbers.empty()) {
    Fail(KAVO_INVALID, "%s: there is no snapshot", m_path.c_str());
  }
  return numbers.back();
}

Manifest Folder::Read(std::uint64_t number) const {
  const std::string path = ManifestPath(number);
  if (!FileExists(path)) {
    Fail(KAVO_INVALID, "%s: there is no snapshot %llu", m_path.c_str(), static_cast<unsigned long long>(number));
  }
  const File file(path, File::How::READ);
  std::vector<unsigned char> bytes(file.Size());
  file.ReadAt(0, bytes.data(), bytes.size());
  Manifest manifest = Manifest::Decode(bytes, path);
  if (manifest.header.identity.number != number) {
    throw Failure(KAVO_REFUSED_FILE, path + ": is the manifest of another number");
  }
  return manifest;
}

void Folder::Publish(const Manifest& manifest) const {
  const std::string path = ManifestPath(manifest.header.identity.number);
  const std::string partial = path + std::string(PARTIAL);
  try {
    const ByteWriter bytes = manifest.Encode();
    {
      File file(partial, File::How::CREATE);
      file.WriteAt(0, bytes.All().data(), bytes.All().size());
      file.Sync();
    }
    RenameFile(partial, path);
    SyncFolder(m_path);
  } catch (...) {
    // What cannot be taken back is a snapshot, and Clear leaves it its parts.
    RemoveFile(path);
    RemoveFile(partial);
    throw;
  }
}

void Folder::Clear() const {
  const std::vector<std::uint64_t> numbers = Numbers();
  std::map<std::uint64_t, std::map<std::uint64_t, std::vector<std::string>>> parts;  // by number and id
  std::vector<std::string> leftOver;
  for (const std::string& name : ListFolder(m_path)) {
    const Name parsed = Parse(name);
    if (parsed.kind == Name::Kind::PARTIAL_MANIFEST) {
      leftOver.push_back(name);
    } else if (parsed.kind == Name::Kind::PART) {
      parts[parsed.save.number][parsed.save.id].push_back(name);
    }
  }
  for (auto& [number, ofNumber] : parts) {
    const bool isThere = std::binary_search(numbers.begin(), numbers.end(), number);
    if (isThere && ofNumber.size() == 1) {
      continue;  // its own, so that not every manifest is read
    }
    if (isThere) {
      try {
        ofNumber.erase(Read(number).header.identity.id);
      } catch (const Failure&) {
        continue;  // whose they are cannot be known
      }
    }
    for (const auto& [id, names] : ofNumber) {
      leftOver.insert(leftOver.end(), names.begin(), names.end());
    }
  }
  if (!leftOver.empty()) {
    // A manifest that is gone must stay gone before its parts go, or a power failure brings it back without them.
    SyncFolder(m_path);
  }
  for (const std::string& name : leftOver) {
    RemoveFile(m_path + "/" + name);
  }
}

void Folder::DeleteOldChains(std::uint32_t keep) const {
  std::vector<std::uint64_t> numbers = Numbers();
  std::uint32_t chains = 0;
  while (!numbers.empty() && chains < keep) {
    try {
      // What cannot be read is no begin of a chain: rather one too many stays.
      chains += Read(numbers.back()).header.kind == SnapshotKind::FULL ? 1 : 0;
    } catch (const Failure&) {
    }
    numbers.pop_back();
  }
  for (; !numbers.empty(); numbers.pop_back()) {
    if (!RemoveFile(ManifestPath(numbers.back()))) {
      return;  // nor the ones that it follows
    }
  }
  Clear();
}

}  // namespace Qen
