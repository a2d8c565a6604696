#include "partition/partition_map.h"

#include <mutex>
#include <new>
#include <shared_mutex>
#include <stdexcept>

#include "kavo.h"
#include "platform/log.h"
#include "platform/test_hooks.h"

namespace Qen {
namespace {

constexpr char PARTITION_LOG_UNIT[] = "partition_map.cpp";

unsigned SizeOf(const PartitionMap::TargetIds& targetIds) noexcept {
  return static_cast<unsigned>(targetIds.size());
}

}  // namespace

PartitionMap& PartitionMap::GetInstance() {
  static PartitionMap partitionMap;
  return partitionMap;
}

int PartitionMap::Init(unsigned int partitionNum, const TargetIds& targetIds) {
  const std::lock_guard lock(m_lock);
  if (m_inited) {
    if (m_partitionNum == partitionNum && m_targetIds == targetIds) {
      KAVO_LOG_WARN(PARTITION_LOG_UNIT, "PartitionMap already exists! PartitionNum[%u], targetIds.size[%u]",
                    partitionNum, SizeOf(targetIds));
      return KAVO_EXISTS;
    }
    KAVO_LOG_ERROR(PARTITION_LOG_UNIT,
                   "PartitionMap had been inited! Original partitionNum[%u], targetIds.size[%u]. New partitionNum[%u], "
                   "targetIds.size[%u]",
                   m_partitionNum, SizeOf(m_targetIds), partitionNum, SizeOf(targetIds));
    return KAVO_FAILED;
  }
  try {
    m_targetIds = targetIds;
  } catch (const std::bad_alloc& error) {
    KAVO_LOG_EVENT(PARTITION_LOG_UNIT, "make_unique failed, exception caught:%s", error.what());
    return KAVO_NO_MEMORY;
  }
  m_partitionNum = partitionNum;
  m_inited = true;
  KAVO_LOG_INFO(PARTITION_LOG_UNIT, "Init partitionMap successfully! partitionNum[%u], targetIdNum[%u]", m_partitionNum,
                SizeOf(m_targetIds));
  return KAVO_SUCCESS;
}

int PartitionMap::Uninit() {
  const std::lock_guard lock(m_lock);
  if (!m_inited) {
    KAVO_LOG_WARN(PARTITION_LOG_UNIT, "There is no inited PartitionMap or the PartitionMap has been uninited!");
    return KAVO_UNSUPPORTED;
  }
  m_targetIds.clear();
  m_partitionNum = 0;
  m_inited = false;
  KAVO_LOG_INFO(PARTITION_LOG_UNIT, "Uninit partitionMap successfully!");
  return KAVO_SUCCESS;
}

int PartitionMap::QueryTargetId(unsigned long long key, unsigned int& psId) const {
  const std::shared_lock lock(m_lock);
  if (!m_inited) {
    KAVO_LOG_ERROR(PARTITION_LOG_UNIT, "PartitionMap is not inited! key[%llu].", key);
    return KAVO_FAILED;
  }
  return QueryId(key, psId);
}

int PartitionMap::QueryTargetIds(const unsigned long long* keys, unsigned int*& psIds, unsigned int num) const {
  const std::shared_lock lock(m_lock);
  if (!m_inited) {
    KAVO_LOG_ERROR(PARTITION_LOG_UNIT, "PartitionMap is not inited!");
    return KAVO_FAILED;
  }
  for (unsigned int i = 0; i < num; ++i) {
    KAVO_TEST_POINT("PartitionMap.batchKey");
    const int ret = QueryId(keys[i], psIds[i]);
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(PARTITION_LOG_UNIT, "QueryId failed, key[%llu], ret[%d]", keys[i], ret);
      return ret;
    }
  }
  return KAVO_SUCCESS;
}

int PartitionMap::QueryId(unsigned long long key, unsigned int& psId) const {
  try {
    const TargetIds::size_type size = m_targetIds.size();
    // A remainder by zero stops the process on some processors; on the others it is the key. An empty list fails the
    // bounds check on all of them.
    psId = m_targetIds.at(size == 0 ? key : key % size);
    return KAVO_SUCCESS;
  } catch (const std::out_of_range& error) {
    KAVO_LOG_ERROR(PARTITION_LOG_UNIT, "TargetIds at key[%llu] exception caught: %s", key, error.what());
    return KAVO_FAILED;
  }
}

}  // namespace Qen
