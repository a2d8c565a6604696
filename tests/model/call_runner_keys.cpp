// The runner's calls on single keys and on prepared values.
#include <algorithm>
#include <cstring>

#include "model/call_runner.h"

namespace KavoTest {
void CallRunner::CheckValue(ModelTable& table, long key, ModelEntry& entry, unsigned char* given) {
  if (!entry.admitted) {
    Expect(given == nullptr, "a key without a value has an address");
    return;
  }
  table.CheckAddress(key, entry.address, given);
  Expect(std::memcmp(given, entry.bytes.data(), table.valueLen) == 0, "wrong value bytes of key ", key);
}

// What a call has given of a key.
void CallRunner::CheckAnswer(const Call& call, unsigned id, long key, ModelEntry* entry, unsigned char* value,
                             unsigned length) {
  if (entry == nullptr) {
    Expect(value == &g_noValue && length == NO_NUMBER, "a failed call has written its outputs");
    return;
  }
  ModelTable& table = *m_model.Table(id);
  CheckValue(table, key, *entry, value);
  ExpectEqual(length, entry->admitted ? table.valueLen : NO_NUMBER, "length");
  if (call.writes && call.function != Function::LOOKUP && value != nullptr) {
    entry->bytes = ValueFor(call.bytes, key, length);
    std::copy(entry->bytes.begin(), entry->bytes.end(), value);
  }
}

void CallRunner::Lookup(const Call& call, unsigned id, long key) {
  const bool forUpdate = call.function == Function::LOOKUP_FOR_UPDATE;
  const auto answer = forUpdate ? m_model.LookupForUpdate(id, key) : m_model.Lookup(id, key);
  unsigned char* value = &g_noValue;
  unsigned length = NO_NUMBER;
  Compare(call.function, answer.status,
          [&] { return (forUpdate ? KavoLookupForUpdate : KavoLookup)(id, key, &value, &length); });
  CheckAnswer(call, id, key, answer.entry, value, length);
}

void CallRunner::LookupOrInsert(const Call& call, unsigned id, long key) {
  const auto answer = m_model.LookupOrInsert(id, key, call.number);
  unsigned char* value = &g_noValue;
  unsigned length = NO_NUMBER;
  unsigned isFind = NO_NUMBER;
  Compare(call.function, answer.status,
          [&] { return KavoLookupOrInsert(id, key, &value, &length, &isFind, call.number); });
  ExpectEqual(isFind, answer.entry == nullptr ? NO_NUMBER : answer.isFind, "isFind");
  CheckAnswer(call, id, key, answer.entry, value, length);
}

const unsigned char* CallRunner::SourceOf(const Call& call, unsigned id, long key, unsigned repetition,
                                          const Bytes& buffer) {
  if (call.source == Source::NOTHING) {
    return nullptr;
  }
  ModelTable* const table = m_model.Table(id);
  if (table == nullptr || call.source == Source::BUFFER) {
    return buffer.data();
  }
  const bool other = call.source == Source::OTHER_VALUE;
  const ModelEntry* const entry = table->Find(other ? KeyFor(call, repetition + 1) : key);
  if (entry == nullptr || entry->address == nullptr) {
    return buffer.data();
  }
  return call.source == Source::OVERLAPPING && table->valueLen > 1 ? entry->address + 1 : entry->address;
}

void CallRunner::Write(const Call& call, unsigned id, long key, unsigned repetition) {
  ModelTable* const table = m_model.Table(id);
  const unsigned right = table == nullptr ? 8 : table->valueLen;
  // Of the right length whatever is said of it, so that a sanitizer sees reads beyond it.
  const Bytes buffer = ValueFor(call.bytes, key, right);
  auto* const value = const_cast<unsigned char*>(SourceOf(call, id, key, repetition, buffer));
  const unsigned length = right + call.tooLong;
  switch (call.function) {
    case Function::UPDATE:
      return Compare(call.function, m_model.Update(id, key, value, length),
                     [&] { return KavoUpdate(id, key, value, length); });
    case Function::INSERT:
      return Compare(call.function, m_model.Insert(id, key, value, length, call.number, call.kind),
                     [&] { return KavoInsert(id, key, value, length, call.number, call.kind); });
    default:
      return Compare(call.function, m_model.InsertOrUpdate(id, key, value, length, call.number),
                     [&] { return KavoInsertOrUpdate(id, key, value, length, call.number); });
  }
}

void CallRunner::PrepareMem(const Call& call, unsigned id) {
  std::optional<unsigned long long> wanted;
  const int status = m_model.PrepareMemForValues(id, wanted);
  unsigned long long count = NO_COUNT;
  Compare(call.function, status, [&] { return KavoPrepareMemForValues(id, &count); });
  ExpectEqual(count, wanted.value_or(NO_COUNT), "count");
}

void CallRunner::GetMem(const Call& call, unsigned id, unsigned long long index) {
  const int status = m_model.GetMemForValue(id, index);
  unsigned char* value = &g_noValue;
  unsigned length = NO_NUMBER;
  Compare(call.function, status, [&] { return KavoGetMemForValue(id, index, &value, &length); });
  if (status != KAVO_SUCCESS) {
    Expect(value == &g_noValue && length == NO_NUMBER, "a failed call has written its outputs");
    return;
  }
  ModelTable& table = *m_model.Table(id);
  ModelPool::Slot& slot = table.pool.Fetched(index);
  ExpectEqual(length, table.valueLen, "length");
  table.CheckAddress(-1 - static_cast<long>(index), slot.address, value);
  Expect(std::memcmp(value, slot.bytes.data(), length) == 0, "wrong value bytes of index ", index);
  if (call.writes) {
    slot.bytes = ValueFor(call.bytes, static_cast<long>(index), length);
    std::copy(slot.bytes.begin(), slot.bytes.end(), value);
  }
}

}  // namespace KavoTest
