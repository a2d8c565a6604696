#include "incremental_export/posix_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "incremental_export/snapshot_format.h"

namespace IncrementalExport {
namespace {

[[noreturn]] void FailWithErrno(const std::string& path, const char* what) {
  const int error = errno;
  throw SnapshotError(path, fmt::format("{}: {}", what, std::generic_category().message(error)));
}

}  // namespace

PosixFile PosixFile::OpenToRead(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    FailWithErrno(path, "cannot be opened");
  }
  return PosixFile(path, descriptor);
}

PosixFile PosixFile::Create(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (descriptor < 0) {
    FailWithErrno(path, "cannot be created");
  }
  return PosixFile(path, descriptor);
}

PosixFile::PosixFile(PosixFile&& other) noexcept : m_path(std::move(other.m_path)), m_descriptor(other.m_descriptor) {
  other.m_descriptor = -1;
}

PosixFile::~PosixFile() {
  if (m_descriptor >= 0) {
    ::close(m_descriptor);  // after Sync it has nothing to report
  }
}

std::uint64_t PosixFile::Size() const {
  struct stat facts {};
  if (::fstat(m_descriptor, &facts) != 0) {
    FailWithErrno(m_path, "cannot be examined");
  }
  if (!S_ISREG(facts.st_mode)) {
    throw SnapshotError(m_path, "is not a regular file");
  }
  return static_cast<std::uint64_t>(facts.st_size);
}

std::size_t PosixFile::ReadAt(std::uint64_t offset, unsigned char* bytes, std::size_t count) const {
  std::size_t done = 0;
  while (done < count) {
    const ssize_t got = ::pread(m_descriptor, bytes + done, count - done, static_cast<off_t>(offset + done));
    if (got == 0) {
      break;
    }
    if (got > 0) {
      done += static_cast<std::size_t>(got);
    } else if (errno != EINTR) {
      FailWithErrno(m_path, "cannot be read");
    }
  }
  return done;
}

void PosixFile::WriteAt(std::uint64_t offset, const unsigned char* bytes, std::size_t count) const {
  std::size_t done = 0;
  while (done < count) {
    const ssize_t put = ::pwrite(m_descriptor, bytes + done, count - done, static_cast<off_t>(offset + done));
    if (put >= 0) {
      done += static_cast<std::size_t>(put);
    } else if (errno != EINTR) {
      FailWithErrno(m_path, "cannot be written");
    }
  }
}

void PosixFile::Sync() const {
  if (::fsync(m_descriptor) != 0) {
    FailWithErrno(m_path, "cannot be brought to the disk");
  }
}

void RenameDurably(const std::string& from, const std::string& to) {
  if (std::rename(from.c_str(), to.c_str()) != 0) {
    FailWithErrno(to, "cannot be put in place");
  }
  // The name stands in the directory, which is a file of its own.
  const std::string directory = std::filesystem::path(to).parent_path().string();
  PosixFile::OpenToRead(directory.empty() ? "." : directory).Sync();
}

}  // namespace IncrementalExport
