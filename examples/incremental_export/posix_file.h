// A file by its descriptor: what a standard stream does not offer is fsync. Failures throw SnapshotError with the path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace IncrementalExport {

class PosixFile {
 public:
  static PosixFile OpenToRead(const std::string& path);
  static PosixFile Create(const std::string& path);  // empties a file that is there
  PosixFile(PosixFile&& other) noexcept;
  PosixFile& operator=(PosixFile&&) = delete;
  ~PosixFile();

  const std::string& Path() const { return m_path; }
  std::uint64_t Size() const;
  // Both deal with all bytes or throw; ReadAt returns fewer only at the end of the file.
  std::size_t ReadAt(std::uint64_t offset, unsigned char* bytes, std::size_t count) const;
  void WriteAt(std::uint64_t offset, const unsigned char* bytes, std::size_t count) const;
  // Returns when the bytes are on the disk.
  void Sync() const;

 private:
  PosixFile(std::string path, int descriptor) : m_path(std::move(path)), m_descriptor(descriptor) {}

  std::string m_path;
  int m_descriptor;
};

// Gives a file its final name, in place of a file that has it, and returns when the name is on the disk.
void RenameDurably(const std::string& from, const std::string& to);

}  // namespace IncrementalExport
