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
