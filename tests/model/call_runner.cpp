#include "model/call_runner.h"

#include <algorithm>
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

// Single keys, and prepared values.

void CallRunner::CheckValue(ModelTable& table, long key, ModelEntry& entry, unsigned char* given) {
  if (!entry.admitted) {
    Expect(given == nullptr, "a key without a value has an address");
    return;
  }
  table.CheckAddress(key, entry.address, given);
  Expect(std::memcmp(given, entry.bytes.data(), table.valueLen) == 0, "wrong value bytes of key ", key);
}

// What a call has given of a key.
void CallRunner::CheckAnswer(const Step& step, ModelEntry* entry, unsigned char* value, unsigned length) {
  if (entry == nullptr) {
    Expect(value == &g_noValue && length == NO_NUMBER, "a failed call has written its outputs");
    return;
  }
  CheckValue(*step.model, step.key, *entry, value);
  ExpectEqual(length, entry->admitted ? step.model->valueLen : NO_NUMBER, "length");
  if (step.writes && step.function != Function::LOOKUP && value != nullptr) {
    entry->bytes = ValueFor(step.bytes, step.key, length);
    std::copy(entry->bytes.begin(), entry->bytes.end(), value);
  }
}

void CallRunner::Lookup(const Step& step) {
  const bool forUpdate = step.function == Function::LOOKUP_FOR_UPDATE;
  const auto answer = forUpdate ? m_model.LookupForUpdate(step.id, step.key) : m_model.Lookup(step.id, step.key);
  unsigned char* value = &g_noValue;
  unsigned length = NO_NUMBER;
  Compare(step.function, answer.status,
          [&] { return (forUpdate ? KavoLookupForUpdate : KavoLookup)(step.id, step.key, &value, &length); });
  CheckAnswer(step, answer.entry, value, length);
}

void CallRunner::LookupOrInsert(const Step& step) {
  const auto answer = m_model.LookupOrInsert(step.id, step.key, step.number);
  unsigned char* value = &g_noValue;
  unsigned length = NO_NUMBER;
  unsigned isFind = NO_NUMBER;
  Compare(step.function, answer.status,
          [&] { return KavoLookupOrInsert(step.id, step.key, &value, &length, &isFind, step.number); });
  ExpectEqual(isFind, answer.entry == nullptr ? NO_NUMBER : answer.isFind, "isFind");
  CheckAnswer(step, answer.entry, value, length);
}

const unsigned char* CallRunner::SourceOf(const Step& step, const Bytes& buffer) const {
  if (step.source == Source::NOTHING) {
    return nullptr;
  }
  if (step.model == nullptr || step.source == Source::BUFFER) {
    return buffer.data();
  }
  const bool other = step.source == Source::OTHER_VALUE;
  const ModelEntry* const entry = step.model->Find(other ? KeyFor(step, step.repetition + 1) : step.key);
  if (entry == nullptr || entry->address == nullptr) {
    return buffer.data();
  }
  return step.source == Source::OVERLAPPING && step.model->valueLen > 1 ? entry->address + 1 : entry->address;
}

void CallRunner::Write(const Step& step) {
  // Of the right length whatever is said of it, so that a sanitizer sees reads beyond it.
  const Bytes buffer = ValueFor(step.bytes, step.key, step.RightLen());
  auto* const value = const_cast<unsigned char*>(SourceOf(step, buffer));
  const unsigned length = step.RightLen() + step.tooLong;
  switch (step.function) {
    case Function::UPDATE:
      return Compare(step.function, m_model.Update(step.id, step.key, value, length),
                     [&] { return KavoUpdate(step.id, step.key, value, length); });
    case Function::INSERT:
      return Compare(step.function, m_model.Insert(step.id, step.key, value, length, step.number, step.kind),
                     [&] { return KavoInsert(step.id, step.key, value, length, step.number, step.kind); });
    default:
      return Compare(step.function, m_model.InsertOrUpdate(step.id, step.key, value, length, step.number),
                     [&] { return KavoInsertOrUpdate(step.id, step.key, value, length, step.number); });
  }
}

void CallRunner::PrepareMem(const Step& step) {
  std::optional<unsigned long long> wanted;
  const int status = m_model.PrepareMemForValues(step.id, wanted);
  unsigned long long count = NO_COUNT;
  Compare(step.function, status, [&] { return KavoPrepareMemForValues(step.id, &count); });
  ExpectEqual(count, wanted.value_or(NO_COUNT), "count");
}

void CallRunner::GetMem(const Step& step) {
  const unsigned long long index = step.wide + step.repetition;
  const int status = m_model.GetMemForValue(step.id, index);
  unsigned char* value = &g_noValue;
  unsigned length = NO_NUMBER;
  Compare(step.function, status, [&] { return KavoGetMemForValue(step.id, index, &value, &length); });
  if (status != KAVO_SUCCESS) {
    return CheckAnswer(step, nullptr, value, length);
  }
  ModelPool::Slot& slot = step.model->pool.Fetched(index);
  ExpectEqual(length, step.model->valueLen, "length");
  step.model->CheckAddress(-1 - static_cast<long>(index), slot.address, value);
  Expect(std::memcmp(value, slot.bytes.data(), length) == 0, "wrong value bytes of index ", index);
  if (step.writes) {
    slot.bytes = ValueFor(step.bytes, static_cast<long>(index), length);
    std::copy(slot.bytes.begin(), slot.bytes.end(), value);
  }
}

}  // namespace KavoTest
