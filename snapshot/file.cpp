#include "snapshot/file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <system_error>

#include "kavo_embedding.h"
#include "snapshot/failure.h"

namespace Qen {
namespace {

constexpr std::size_t MOST_BYTES_A_CALL = std::size_t{1} << 30;  // the system writes no more than 2 GiB at once

[[noreturn]] void FailOn(const std::string& path, const char* what, int error) {
  throw Failure(KAVO_IO_ERROR, path + ": " + what + ": " + std::generic_category().message(error));
}

#ifdef KAVO_TESTING
FileHooks::Handler g_handler = nullptr;

int Announce(FileHooks::Kind kind, const std::string& path, const std::string& to = {}) {
  return g_handler == nullptr ? 0 : g_handler({kind, path, to});
}
#define KAVO_ANNOUNCE(...) Announce(__VA_ARGS__)
using FileHooks::Kind;
#else
#define KAVO_ANNOUNCE(...) 0
#endif

// A call of the system that answers -1 for an error, made again when a signal has interrupted it.
template <class Call>
auto Persist(const Call& call) {
  auto answer = call();
  while (answer < 0 && errno == EINTR) {
    answer = call();
  }
  return answer;
}

int Open(const std::string& path, File::How how) {
  if (how == File::How::CREATE) {
    if (const int error = KAVO_ANNOUNCE(Kind::CREATE, path); error != 0) {
      errno = error;
      return -1;
    }
    return Persist([&] { return ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666); });
  }
  // Not waiting: for what is no plain file.
  return Persist([&] { return ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); });
}

}  // namespace

#ifdef KAVO_TESTING
void FileHooks::SetHandler(Handler handler) noexcept {
  g_handler = handler;
}
#endif

File::File(std::string path, How how) : m_path(std::move(path)), m_fd(Open(m_path, how)) {
  if (m_fd < 0) {
    if (errno == ENOENT && how == How::READ) {
      throw Failure(KAVO_REFUSED_FILE, m_path + ": is missing");
    }
    FailOn(m_path, how == How::CREATE ? "cannot be created" : "cannot be opened", errno);
  }
}

File::~File() {
  if (m_fd >= 0) {
    static_cast<void>(::close(m_fd));
  }
}

std::uint64_t File::Size() const {
  struct stat facts {};
  if (::fstat(m_fd, &facts) != 0) {
    FailOn(m_path, "cannot be examined", errno);
  }
  if (!S_ISREG(facts.st_mode)) {
    throw Failure(KAVO_REFUSED_FILE, m_path + ": is no plain file");
  }
  return static_cast<std::uint64_t>(facts.st_size);
}

void File::ReadAt(std::uint64_t offset, void* to, std::size_t bytes) const {
  auto* next = static_cast<unsigned char*>(to);
  while (bytes > 0) {
    const auto got =
        Persist([&] { return ::pread(m_fd, next, std::min(bytes, MOST_BYTES_A_CALL), static_cast<off_t>(offset)); });
    if (got < 0) {
      FailOn(m_path, "cannot be read", errno);
    }
    if (got == 0) {
      throw Failure(KAVO_REFUSED_FILE, m_path + ": is cut off");
    }
    next += got;
    offset += static_cast<std::uint64_t>(got);
    bytes -= static_cast<std::size_t>(got);
  }
}

void File::WriteAt(std::uint64_t offset, const void* from, std::size_t bytes) {
  if (const int error = KAVO_ANNOUNCE(Kind::WRITE, m_path); error != 0) {
    FailOn(m_path, "cannot be written", error);
  }
  const auto* next = static_cast<const unsigned char*>(from);
  while (bytes > 0) {
    const auto done =
        Persist([&] { return ::pwrite(m_fd, next, std::min(bytes, MOST_BYTES_A_CALL), static_cast<off_t>(offset)); });
    if (done <= 0) {
      FailOn(m_path, "cannot be written", done < 0 ? errno : EIO);
    }
    next += done;
    offset += static_cast<std::uint64_t>(done);
    bytes -= static_cast<std::size_t>(done);
  }
}

void File::Sync() {
  if (const int error = KAVO_ANNOUNCE(Kind::SYNC, m_path); error != 0) {
    FailOn(m_path, "cannot be brought to the disk", error);
  }
  if (Persist([&] { return ::fsync(m_fd); }) != 0) {
    FailOn(m_path, "cannot be brought to the disk", errno);
  }
}

FileLock::FileLock(const std::string& path)
    : m_fd(Persist([&] { return ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666); })), m_process(::getpid()) {
  if (m_fd < 0) {
    FailOn(path, "cannot be opened", errno);
  }
  if (Persist([&] { return ::flock(m_fd, LOCK_EX | LOCK_NB); }) != 0) {
    const int error = errno;
    static_cast<void>(::close(std::exchange(m_fd, -1)));
    if (error != EWOULDBLOCK) {
      FailOn(path, "cannot be locked", error);
    }
  }
}

FileLock::~FileLock() {
  if (IsHeld()) {
    static_cast<void>(::flock(m_fd, LOCK_UN));  // a forked child has the descriptor too
  }
  if (m_fd >= 0) {
    static_cast<void>(::close(m_fd));
  }
}

bool FileLock::IsHeld() const noexcept {
  return m_fd >= 0 && m_process == ::getpid();
}

void MakeFolder(const std::string& path) {
  if (::mkdir(path.c_str(), 0777) == 0) {
    const std::size_t end = path.find_last_not_of('/');
    const std::size_t slash = path.find_last_of('/', end);
    SyncFolder(slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash));
  } else if (errno != EEXIST) {
    FailOn(path, "cannot be made", errno);
  }
}

void SyncFolder(const std::string& path) {
  if (const int error = KAVO_ANNOUNCE(Kind::SYNC_FOLDER, path); error != 0) {
    FailOn(path, "cannot be brought to the disk", error);
  }
  const int fd = Persist([&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
  if (fd < 0) {
    FailOn(path, "cannot be opened", errno);
  }
  const int error = Persist([&] { return ::fsync(fd); }) == 0 ? 0 : errno;
  static_cast<void>(::close(fd));
  if (error != 0) {
    FailOn(path, "cannot be brought to the disk", error);
  }
}

std::vector<std::string> ListFolder(const std::string& path) {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(path.c_str()), ::closedir);
  if (folder == nullptr) {
    FailOn(path, "cannot be opened", errno);
  }
  std::vector<std::string> names;
  for (errno = 0; const dirent* entry = ::readdir(folder.get()); errno = 0) {
    names.emplace_back(entry->d_name);
  }
  if (errno != 0) {
    FailOn(path, "cannot be read", errno);
  }
  return names;
}

void RenameFile(const std::string& from, const std::string& to) {
  if (const int error = KAVO_ANNOUNCE(Kind::RENAME, from, to); error != 0) {
    FailOn(from, "cannot be renamed", error);
  }
  if (::rename(from.c_str(), to.c_str()) != 0) {
    FailOn(from, "cannot be renamed", errno);
  }
}

bool RemoveFile(const std::string& path) noexcept {
#ifdef KAVO_TESTING
  if (Announce(Kind::REMOVE, path) != 0) {
    return false;
  }
#endif
  return ::unlink(path.c_str()) == 0 || errno == ENOENT;
}

bool FileExists(const std::string& path) {
  struct stat facts {};
  if (::stat(path.c_str(), &facts) == 0) {
    return true;
  }
  if (errno != ENOENT && errno != ENOTDIR) {
    FailOn(path, "cannot be examined", errno);
  }
  return false;
}

}  // namespace Qen
