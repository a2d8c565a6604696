#include "model/call_runner.h"

#include <cstring>
#include <string>

#include "model/call_outputs.h"

namespace KavoTest {
namespace {

bool HasMapMissText(const char* format) {
  return std::strstr(format, "key is not exist in map!") != nullptr;
}

}  // namespace

void CallStatistics::Add(const CallStatistics& other) {
  for (unsigned i = 0; i < FUNCTION_COUNT; ++i) {
    succeeded[i] += other.succeeded[i];
    failed[i] += other.failed[i];
  }
  growths += other.growths;
  mapMisses += other.mapMisses;
}

CallRunner::CallRunner() {
  Call call;
  call.function = Function::SET_LOG_SINK;
  SetLogSink(call);
}

// Whatever a mismatch has left behind goes too.
CallRunner::~CallRunner() {
  for (const unsigned id : TABLE_IDS) {
    static_cast<void>(KavoUninitHashTable(id));
  }
  static_cast<void>(::UninitPartitionMap());
  static_cast<void>(KavoSetLogSink(nullptr));
}

int CallRunner::WantsLines(void* /* context */, unsigned /* channel */, int /* level */) {
  return 1;
}

void CallRunner::TakeLine(void* context, unsigned /* channel */, int level, const char* format,
                          va_list /* arguments */) {
  CallRunner& runner = *static_cast<CallRunner*>(context);
  if (HasMapMissText(format)) {
    ++runner.m_statistics.mapMisses;
  } else if (level >= KAVO_LOG_LEVEL_WARN) {
    ++runner.m_failureLines;
  } else if (std::strstr(format, "is deleted, root is") != nullptr) {
    ++runner.m_statistics.growths;
  }
}

void CallRunner::Run(const Call& call) {
  const unsigned times = IsBatch(call.function) ? 1 : call.count;
  for (unsigned repetition = 0; repetition < times; ++repetition) {
    try {
      RunOnce(call, repetition);
    } catch (const Mismatch& mismatch) {
      std::ostringstream message;
      message << call << ", repetition " << repetition << ": " << mismatch.what();
      throw Mismatch(message.str());
    }
  }
}

void CallRunner::RunOnce(const Call& call, unsigned repetition) {
  const unsigned id = TABLE_IDS[call.table];
  const long key = KeyOf(call.family, call.index + repetition);
  switch (call.function) {
    case Function::INIT_TABLE:
      return InitTable(call, id);
    case Function::UNINIT_TABLE:
      return Compare(call.function, m_model.UninitHashTable(id), [id] { return KavoUninitHashTable(id); });
    case Function::LOOKUP:
    case Function::LOOKUP_FOR_UPDATE:
      return Lookup(call, id, key);
    case Function::UPDATE:
    case Function::INSERT:
    case Function::INSERT_OR_UPDATE:
      return Write(call, id, key, repetition);
    case Function::LOOKUP_OR_INSERT:
      return LookupOrInsert(call, id, key);
    case Function::SET_FILTER_FREQ:
      return Compare(call.function, m_model.SetFilterFreq(id, call.number),
                     [id, &call] { return KavoSetFilterFreq(id, call.number); });
    case Function::PREPARE_MEM:
      return PrepareMem(call, id);
    case Function::GET_MEM:
      return GetMem(call, id, call.wide + repetition);
    case Function::SIZE_AND_LENGTH:
      return SizeAndLength(call, id);
    case Function::BATCH_GET_NEXT:
      return BatchGetNext(id, call.number, call.kind, call.nulls, m_cursors[call.cursor]);
    case Function::BATCH_LOOKUP:
      return BatchLookup(call, id);
    case Function::BATCH_GATHER:
      return BatchGather(call, id);
    case Function::BATCH_LOOKUP_OR_INSERT:
      return BatchLookupOrInsert(call, id);
    case Function::BATCH_INSERT_OR_UPDATE:
      return BatchInsertOrUpdate(call, id);
    case Function::INIT_PARTITION_MAP:
      return InitPartitionMap(call);
    case Function::UNINIT_PARTITION_MAP:
      return Compare(call.function, m_model.UninitPartitionMap(), [] { return ::UninitPartitionMap(); });
    case Function::QUERY_PS_ID:
      return QueryPsId(call, call.wide + repetition);
    case Function::BATCH_PS_IDS:
      return BatchPsIds(call);
    case Function::SET_LOG_SINK:
      return SetLogSink(call);
    case Function::WALK:
      return Walk(id, call.number, call.kind);
    default:
      return SpoilCursor(call);
  }
}

// The runner's own sink again, or one that is refused, and then the runner's own stays.
void CallRunner::SetLogSink(const Call& call) {
  const KavoLogSink sink{&CallRunner::WantsLines, Unless(call.IsNull(0), &CallRunner::TakeLine), this};
  Compare(call.function, call.IsNull(0) ? KAVO_INVALID : KAVO_SUCCESS, [&sink] { return KavoSetLogSink(&sink); });
}

void CallRunner::InitTable(const Call& call, unsigned id) {
  Compare(call.function, m_model.InitHashTable(id, call.number, call.valueLen, call.kind), [&] {
    const int ret = KavoInitHashTable(id, call.number, call.valueLen, call.kind);
    if (ret == KAVO_SUCCESS && call.bytes % 2 == 1) {
      KavoSetRehashMode(id, KAVO_REHASH_GRADUAL);  // how it grows changes no answer
    }
    return ret;
  });
}

void CallRunner::VerifyTable(unsigned id, ModelTable& table) {
  Call call;
  for (call.function = Function::LOOKUP; auto& [key, entry] : table.entries) {
    Lookup(call, id, key);
  }
  for (call.kind = 0; call.kind < 2; ++call.kind) {
    SizeAndLength(call, id);
  }
  const unsigned half = static_cast<unsigned>(table.entries.size() / 2) + 2;
  // The last two: everything that was due has been marked.
  for (const unsigned mode : {0U, 1U, 3U, 7U, 2U, 3U, 1U}) {
    Walk(id, half, mode);
  }
}

void CallRunner::Finish() {
  while (!m_model.Tables().empty()) {
    auto& [id, table] = *m_model.Tables().begin();
    const unsigned tableId = id;
    try {
      VerifyTable(tableId, table);
    } catch (const Mismatch& mismatch) {
      throw Mismatch("at the end, table " + std::to_string(tableId) + ": " + mismatch.what());
    }
    Compare(Function::UNINIT_TABLE, m_model.UninitHashTable(tableId), [=] { return KavoUninitHashTable(tableId); });
  }
  if (m_model.HasPartitionMap()) {
    Compare(Function::UNINIT_PARTITION_MAP, m_model.UninitPartitionMap(), [] { return ::UninitPartitionMap(); });
  }
}

}  // namespace KavoTest
