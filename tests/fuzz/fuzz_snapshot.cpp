// Reads a byte string as a manifest and as a part of a snapshot. Whatever it is, it is refused or it is whole; nothing
// is read or allocated beyond what it can justify (the allocation limit is the fuzzer's, -malloc_limit_mb).
//
// Checksums keep everything else from being reached, so each string is read with right ones, too.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "snapshot/part_reader.h"
#include "snapshot/part_writer.h"

namespace {

using Qen::BlockHeader;
using Qen::Bytes;

constexpr std::size_t LENGTH_OFFSET = 60;  // of a part's header, where its length stands

template <class Number>
Number At(const std::vector<unsigned char>& bytes, std::size_t offset) {
  Number number{};
  std::memcpy(&number, &bytes[offset], sizeof(number));
  return number;
}

void MendManifest(std::vector<unsigned char>& bytes) {
  if (bytes.size() >= 8) {
    const std::uint64_t checksum = Qen::Checksum(Bytes(bytes).first(bytes.size() - 8));
    std::memcpy(&bytes[bytes.size() - 8], &checksum, 8);
  }
}

void MendPart(std::vector<unsigned char>& bytes) {
  if (bytes.size() < LENGTH_OFFSET + 4) {
    return;
  }
  std::uint64_t place = At<std::uint32_t>(bytes, LENGTH_OFFSET);
  if (place > bytes.size()) {
    return;
  }
  Qen::RunningChecksum all;
  all.Add(Bytes(bytes).first(place));
  while (bytes.size() - place >= BlockHeader::BYTES) {
    const auto type = At<std::uint32_t>(bytes, place);
    const auto stored = At<std::uint64_t>(bytes, place + 24);
    if (stored > bytes.size() - place - BlockHeader::BYTES) {
      return;
    }
    const std::uint64_t checksum = Qen::Checksum(Bytes(bytes).subspan(place + BlockHeader::BYTES, stored));
    std::memcpy(&bytes[place + 32], &checksum, 8);
    all.Add(Bytes(bytes).subspan(place, BlockHeader::BYTES));
    place += BlockHeader::BYTES + stored;
    if (type == static_cast<std::uint32_t>(Qen::BlockType::END)) {
      const std::uint64_t sum = all.Value();
      bytes.resize(place + 8);
      std::memcpy(&bytes[place], &sum, 8);
      return;
    }
  }
}

void ReadManifest(const std::vector<unsigned char>& bytes) {
  const Qen::Manifest manifest = Qen::Manifest::Decode(bytes, "manifest");
  // What can be read is written as it was.
  if (manifest.parts.size() != manifest.header.parts || manifest.Encode().All().size() != bytes.size()) {
    std::abort();
  }
}

void ReadPart(const std::vector<unsigned char>& bytes) {
  static const int fd = ::memfd_create("part", 0);
  if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    std::abort();
  }
  const Qen::PartReader part("/proc/self/fd/" + std::to_string(fd));
  const Qen::File file = part.Open();
  std::vector<unsigned char> stored;
  std::vector<unsigned char> raw;
  std::uint64_t records = 0;
  for (const auto& block : part.Blocks()) {
    if (part.Read(file, block, stored, raw).size() != block.header.rawBytes) {
      std::abort();
    }
    records += block.header.records;
  }
  for (const auto& totals : part.Totals()) {
    records -= totals.rows + totals.counted + totals.removed;
  }
  if (records != 0 || part.Totals().size() != part.Items().size()) {
    std::abort();
  }
}

}  // namespace

// Gives the fuzzer a file of each kind to begin with.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  for (int i = 1; i < *argc; ++i) {
    const std::filesystem::path corpus = (*argv)[i];
    if (!std::filesystem::is_directory(corpus)) {
      continue;
    }
    Qen::ItemDescription item;
    item.name = "rows";
    item.dim = 2;
    Qen::Manifest manifest;
    manifest.header.identity = {1, 1};
    manifest.header.parts = 1;
    manifest.items.push_back({item, {}});
    const std::string path = corpus / "part";
    {
      Qen::PartWriter writer(path, manifest.header, 0, {item}, 1);
      const unsigned char rows[3 * 24] = {};
      writer.AddBlock(Qen::BlockType::ROWS, 0, 3, rows);
      manifest.parts.push_back(writer.Finish());
    }
    const auto bytes = manifest.Encode();
    std::ofstream(corpus / "manifest", std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.All().data()), static_cast<std::streamsize>(bytes.All().size()));
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<unsigned char> given(data, data + size);
  for (const auto& [mend, read] : {std::pair(&MendManifest, &ReadManifest), std::pair(&MendPart, &ReadPart)}) {
    for (const bool mended : {false, true}) {
      std::vector<unsigned char> bytes = given;
      if (mended) {
        mend(bytes);
      }
      try {
        read(bytes);
      } catch (const Qen::Failure&) {
      }
    }
  }
  return 0;
}
