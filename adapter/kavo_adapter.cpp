// The exported functions of the partition map: check the arguments and pass the call on to the map of the process.
#include "adapter/call_frame.h"
#include "kavo.h"
#include "partition/partition_map.h"
#include "platform/log.h"

using namespace Qen;

namespace {

constexpr char KAVO_ADAPTER_LOG_UNIT[] = "kavo_adapter.cpp";

}  // namespace

#define KAVO_CATCH_ALL_OF_MAP KAVO_CATCH_ALL_IN(KAVO_ADAPTER_LOG_UNIT, "make_unique")

int InitPartitionMap(unsigned int partitionNum, unsigned int psNum, const unsigned int* psId) {
  KAVO_REFUSE_IF_IN(KAVO_ADAPTER_LOG_UNIT, psNum == 0 || psId == nullptr || partitionNum == 0,
                    "partitionNum[%u] == 0, psNum[%u] == 0, or psId is null", partitionNum, psNum);
  try {
    KAVO_LOG_DEBUG(KAVO_ADAPTER_LOG_UNIT, "partitionNum[%u], psNum[%u], psIds are as follows:", partitionNum, psNum);
    PartitionMap::TargetIds targetIds;
    targetIds.reserve(psNum);
    for (unsigned int idx = 0; idx < psNum; ++idx) {
      targetIds.push_back(psId[idx]);
      KAVO_LOG_DEBUG(KAVO_ADAPTER_LOG_UNIT, "idx[%u], psId[%u]", idx, targetIds.back());
    }
    return PartitionMap::GetInstance().Init(partitionNum, targetIds);
  }
  KAVO_CATCH_ALL_OF_MAP;
}

int UninitPartitionMap(void) {
  try {
    return PartitionMap::GetInstance().Uninit();
  }
  KAVO_CATCH_ALL_OF_MAP;
}

int QueryPartitionMapPsId(unsigned long long key, unsigned int* psId) {
  KAVO_REFUSE_IF_IN(KAVO_ADAPTER_LOG_UNIT, psId == nullptr, "psId is nullper");
  try {
    const int ret = PartitionMap::GetInstance().QueryTargetId(key, *psId);
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(KAVO_ADAPTER_LOG_UNIT, "QueryTargetId failed! key[%llu]", key);
    }
    return ret;
  }
  KAVO_CATCH_ALL_OF_MAP;
}

int GetBatchPsIds(const unsigned long long* keys, unsigned int** psIds, unsigned int num) {
  KAVO_REFUSE_IF_IN(KAVO_ADAPTER_LOG_UNIT, keys == nullptr || psIds == nullptr || *psIds == nullptr || num == 0,
                    "keys is null, psIds or *psIds is null or num[%u] == 0", num);
  try {
    const int ret = PartitionMap::GetInstance().QueryTargetIds(keys, *psIds, num);
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(KAVO_ADAPTER_LOG_UNIT, "QueryTargetIds failed! num[%u] of keys, ret[%d]", num, ret);
    }
    return ret;
  }
  KAVO_CATCH_ALL_OF_MAP;
}
