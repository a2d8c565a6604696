#include "model/call_runner.h"

#include <cstring>
#include <string>

namespace KavoTest {

LineCounts& CountedLines() {
  thread_local LineCounts counts;
  return counts;
}

void CountLine(int level, const char* format) {
  if (std::strstr(format, "key is not exist in map!") != nullptr) {
    ++CountedLines().mapMisses;
  } else if (level >= KAVO_LOG_LEVEL_WARN) {
    ++CountedLines().failures;
  } else if (std::strstr(format, "is deleted, root is") != nullptr) {
    ++CountedLines().growths;
  }
}

CallRunner::CallRunner() {
  const KavoLogSink sink{[](void*, unsigned, int) { return 1; },
                         [](void*, unsigned, int level, const char* format, va_list) { CountLine(level, format); },
                         nullptr};
  ExpectEqual(KavoSetLogSink(&sink), KAVO_SUCCESS, "status of a new sink");
}

CallRunner::CallRunner(unsigned id, ModelTable table, unsigned share, unsigned shares)
    : m_share(share), m_shares(shares) {
  m_ids.fill(id);
  m_model.AdoptTable(id, std::move(table));
}

// Whatever a mismatch has left behind goes too.
CallRunner::~CallRunner() {
  if (m_shares != 0) {
    return;
  }
  for (const unsigned id : m_ids) {
    static_cast<void>(KavoUninitHashTable(id));
  }
  static_cast<void>(::UninitPartitionMap());
  static_cast<void>(KavoSetLogSink(nullptr));
}

long CallRunner::KeyFor(const Call& call, unsigned offset) const {
  const long key = KeyOf(call.family, call.index + offset);
  return m_shares == 0 ? key : KeyOfShare(key, m_share, m_shares);
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
  const unsigned id = m_ids[call.table];
  const long key = KeyFor(call, repetition);
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
      return BatchGetNext(id, call.number, call.kind, m_cursors[call.cursor]);
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
    case Function::WALK:
      return Walk(id, call.number, call.kind);
    default:
      return SpoilCursor(call);
  }
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
