// A folder of snapshots: names of its files, which snapshots there are, and what may be cleared away.
#pragma once

#include "snapshot/manifest.h"

namespace Qen {

class Folder {
 public:
  explicit Folder(std::string path) : m_path(std::move(path)) {}

  const std::string& Path() const noexcept { return m_path; }
  std::string LockPath() const { return m_path + "/lock"; }
  std::string ManifestPath(std::uint64_t number) const;
  // With the id of the save: whoever still writes to one that was given up harms no other of the same number.
  std::string PartPath(const SaveIdentity& save, std::uint32_t part) const;

  // Snapshots that are there, in rising order.
  std::vector<std::uint64_t> Numbers() const;
  // Throws KAVO_INVALID when there is none.
  std::uint64_t Newest() const;
  // Throws KAVO_INVALID when it is not there.
  Manifest Read(std::uint64_t number) const;
  // read(number), for 0 that of the newest: of the newer one, where a commit has deleted what was being read.
  template <class Call>
  auto ReadNewest(std::uint64_t number, const Call& read) const {
    for (;;) {
      const std::uint64_t wanted = number != 0 ? number : Newest();
      try {
        return read(wanted);
      } catch (const Failure&) {
        if (number != 0 || Newest() == wanted) {
          throw;
        }
      }
    }
  }

  // Makes the manifest's snapshot visible. On failure it is not, once Clear has brought that to the disk.
  void Publish(const Manifest& manifest) const;

  // Deletes what saves left that were never committed. Only while the folder's lock is held, here and below.
  void Clear() const;
  // Deletes chains but the newest `keep`: a chain from its end, and a manifest before its parts, so that what is left
  // after a crash is whole.
  void DeleteOldChains(std::uint32_t keep) const;

 private:
  std::string m_path;
};

}  // namespace Qen
