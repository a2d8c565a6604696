// Which parameter server owns a key: one map a process, independent of the tables.
//
// Contract
//  - Any number of threads query at once. A query, a batch included, holds `m_lock` shared from start to end and so
//    sees one map; Init and Uninit hold it exclusively, their log lines included, and are not starved by queries.
//  - Key k belongs to entry k mod n of the target list. Keys are not mixed, and the partition count takes no part.
//  - Results are status codes. A lock that reports an error throws std::system_error.
//
//   not initialised   Init   -> initialised        Uninit -> KAVO_UNSUPPORTED
//   initialised       Uninit -> not initialised    Init   -> KAVO_EXISTS or KAVO_FAILED, and changes nothing
#pragma once

#include <vector>

#include "partition/writer_priority_mutex.h"
#include "platform/allocation.h"

namespace Qen {

class PartitionMap {
 public:
  using TargetIds = std::vector<unsigned int, HeapAllocator<unsigned int>>;

  // Made on first use, destroyed when the process ends or the library is unloaded.
  static PartitionMap& GetInstance();

  PartitionMap(const PartitionMap&) = delete;
  PartitionMap& operator=(const PartitionMap&) = delete;

  // Installs a map. The same one again is KAVO_EXISTS, another one KAVO_FAILED.
  int Init(unsigned int partitionNum, const TargetIds& targetIds);

  int Uninit();

  // On failure `psId` keeps what it held.
  int QueryTargetId(unsigned long long key, unsigned int& psId) const;

  // Maps `num` keys into the array `psIds`, in order. On failure the entries before the failing key have been written.
  int QueryTargetIds(const unsigned long long* keys, unsigned int*& psIds, unsigned int num) const;

 private:
  PartitionMap() = default;
  ~PartitionMap() = default;

  // Maps one key. The caller holds `m_lock`, and the map is initialised.
  int QueryId(unsigned long long key, unsigned int& psId) const;

  mutable WriterPriorityMutex m_lock;  // guards the rest
  TargetIds m_targetIds;
  unsigned int m_partitionNum = 0;  // as given; compared and logged only
  bool m_inited = false;
};

}  // namespace Qen
