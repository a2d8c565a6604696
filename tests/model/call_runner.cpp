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
  static_cast<void>(KavoSetLogSink(nullptr));
}

long CallRunner::KeyFor(const Call& call, unsigned offset) const {
  const long key = KeyOf(call.family, call.index + offset);
  return m_shares == 0 ? key : KeyOfShare(key, m_share, m_shares);
}

void CallRunner::Run(const Call& call) {
  using Self = CallRunner;
  // In the order of Function.
  static constexpr std::array METHODS{&Self::Lookup,
                                      &Self::Lookup,
                                      &Self::Write,
                                      &Self::Write,
                                      &Self::Write,
                                      &Self::LookupOrInsert,
                                      &Self::InitTable,
                                      &Self::UninitTable,
                                      &Self::SetFilterFreq,
                                      &Self::PrepareMem,
                                      &Self::GetMem,
                                      &Self::SizeAndLength,
                                      &Self::BatchGetNext,
                                      &Self::BatchLookup,
                                      &Self::BatchGather,
                                      &Self::BatchLookupOrInsert,
                                      &Self::BatchInsertOrUpdate,
                                      &Self::Walk,
                                      &Self::SpoilCursor};
  const unsigned times = IsBatch(call.function) ? 1 : call.count;
  for (unsigned repetition = 0; repetition < times; ++repetition) {
    const unsigned id = m_ids[call.table];
    try {
      (this->*METHODS[static_cast<std::size_t>(call.function)])(
          Step{call, id, KeyFor(call, repetition), repetition, m_model.Table(id)});
    } catch (const Mismatch& mismatch) {
      std::ostringstream message;
      message << call << ", repetition " << repetition << ": " << mismatch.what();
      throw Mismatch(message.str());
    }
  }
}

void CallRunner::InitTable(const Step& step) {
  Compare(step.function, m_model.InitHashTable(step.id, step.number, step.valueLen, step.kind), [&] {
    const int ret = KavoInitHashTable(step.id, step.number, step.valueLen, step.kind);
    if (ret == KAVO_SUCCESS && step.bytes % 2 == 1) {
      KavoSetRehashMode(step.id, KAVO_REHASH_GRADUAL);  // how it grows changes no answer
    }
    return ret;
  });
}

void CallRunner::UninitTable(const Step& step) {
  Compare(step.function, m_model.UninitHashTable(step.id), [&] { return KavoUninitHashTable(step.id); });
}

void CallRunner::SetFilterFreq(const Step& step) {
  Compare(step.function, m_model.SetFilterFreq(step.id, step.number),
          [&] { return KavoSetFilterFreq(step.id, step.number); });
}

void CallRunner::VerifyTable(unsigned id, ModelTable& table) {
  Step step{{}, id, 0, 0, &table};
  for (auto& [key, entry] : table.entries) {
    step.key = key;
    Lookup(step);
  }
  for (step.kind = 0; step.kind < 2; ++step.kind) {
    SizeAndLength(step);
  }
  step.number = static_cast<unsigned>(table.entries.size() / 2) + 2;
  // The last two: everything that was due has been marked.
  for (const unsigned mode : {0U, 1U, 3U, 7U, 2U, 3U, 1U}) {
    step.kind = mode;
    Walk(step);
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
    UninitTable({{.function = Function::UNINIT_TABLE}, tableId});
  }
}

}  // namespace KavoTest
