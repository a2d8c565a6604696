// Files and folders of the system. Whatever fails throws a Failure of KAVO_IO_ERROR that names the file and the
// system's reason; a file that ends too early one of KAVO_REFUSED_FILE.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Qen {

class File {
 public:
  enum class How { READ, CREATE };  // CREATE: empty, whatever was there

  File(std::string path, How how);
  File(File&& other) noexcept : m_path(std::move(other.m_path)), m_fd(std::exchange(other.m_fd, -1)) {}
  File& operator=(File&&) = delete;
  ~File();

  const std::string& Path() const noexcept { return m_path; }
  std::uint64_t Size() const;
  // Any thread may read and write, at places of its own.
  void ReadAt(std::uint64_t offset, void* to, std::size_t bytes) const;
  void WriteAt(std::uint64_t offset, const void* from, std::size_t bytes);
  // Brings what was written to the disk.
  void Sync();

 private:
  std::string m_path;
  int m_fd;
};

// Held until it is destroyed, or the process ends: by one of all processes, and by one object of this one. A forked
// child does not hold it, but a lock whose holder has died stays until the children from that time have ended.
class FileLock {
 public:
  explicit FileLock(const std::string& path);
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  ~FileLock();
  bool IsHeld() const noexcept;  // false: somebody else has it

 private:
  int m_fd;
  int m_process;
};

// Makes a folder in one that is there; nothing if it is there already.
void MakeFolder(const std::string& path);
void SyncFolder(const std::string& path);
std::vector<std::string> ListFolder(const std::string& path);
void RenameFile(const std::string& from, const std::string& to);
// Whether the file is gone.
bool RemoveFile(const std::string& path) noexcept;
bool FileExists(const std::string& path);

#ifdef KAVO_TESTING
namespace FileHooks {

enum class Kind { CREATE, WRITE, SYNC, RENAME, REMOVE, SYNC_FOLDER };
struct Operation {
  Kind kind;
  std::string path;
  std::string to;  // of RENAME
};
// Called before each operation that changes something; any answer but 0 is the error that the operation fails with.
// Null for none. Set while nobody is at work on files.
using Handler = int (*)(const Operation& operation);
void SetHandler(Handler handler) noexcept;

}  // namespace FileHooks
#endif

}  // namespace Qen
