// The runner's calls on single keys and on prepared values.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "model/call_inputs.h"
#include "model/call_outputs.h"
#include "model/call_runner.h"

namespace KavoTest {
// The address must be the one that was given before; a new one must lie apart from all others.
void CallRunner::CheckAddress(ModelTable& table, long owner, unsigned char*& known, unsigned char* given) {
  if (known != nullptr) {
    Expect(given == known, "the value has moved");
    return;
  }
  Expect(given != nullptr && reinterpret_cast<std::uintptr_t>(given) % 8 == 0, "bad address");
  const auto behind = table.addresses.lower_bound(given);
  Expect(behind == table.addresses.end() || static_cast<std::size_t>(behind->first - given) >= table.valueLen,
         "the value overlaps that of ", behind == table.addresses.end() ? 0 : behind->second);
  if (behind != table.addresses.begin()) {
    const auto before = std::prev(behind);
    Expect(static_cast<std::size_t>(given - before->first) >= table.valueLen, "the value overlaps that of ",
           before->second);
  }
  table.addresses.emplace(given, owner);
  known = given;
}

void CallRunner::CheckValue(ModelTable& table, long key, ModelEntry& entry, unsigned char* given) {
  if (!entry.admitted) {
    Expect(given == nullptr, "a key without a value has an address");
    return;
  }
  CheckAddress(table, key, entry.address, given);
  Expect(std::memcmp(given, entry.bytes.data(), table.valueLen) == 0, "wrong value bytes of key ", key);
}

void CallRunner::Lookup(const Call& call, unsigned id, long key) {
  const bool hasPointers = !call.IsNull(0) && !call.IsNull(1);
  const bool forUpdate = call.function == Function::LOOKUP_FOR_UPDATE;
  const auto answer = forUpdate ? m_model.LookupForUpdate(id, key, hasPointers) : m_model.Lookup(id, key, hasPointers);
  unsigned char* value = &g_noValue;
  unsigned length = NO_NUMBER;
  Compare(call.function, answer.status, [&] {
    return (forUpdate ? KavoLookupForUpdate : KavoLookup)(id, key, Unless(call.IsNull(0), &value),
                                                          Unless(call.IsNull(1), &length));
  });
  if (answer.entry == nullptr) {
    Expect(value == &g_noValue && length == NO_NUMBER, "a failed call has written its outputs");
    return;
  }
  ModelTable& table = *m_model.Table(id);
  CheckValue(table, key, *answer.entry, value);
  ExpectEqual(length, answer.entry->admitted ? table.valueLen : NO_NUMBER, "length");
  if (forUpdate && call.writes && value != nullptr) {
    answer.entry->bytes = ValueFor(call.bytes, key, length);
    std::copy(answer.entry->bytes.begin(), answer.entry->bytes.end(), value);
  }
}

void CallRunner::LookupOrInsert(const Call& call, unsigned id, long key) {
  const bool hasPointers = !call.IsNull(0) && !call.IsNull(1) && !call.IsNull(2);
  const auto answer = m_model.LookupOrInsert(id, key, hasPointers, call.number);
  unsigned char* value = &g_noValue;
  unsigned length = NO_NUMBER;
  unsigned isFind = NO_NUMBER;
  Compare(call.function, answer.status, [&] {
    return KavoLookupOrInsert(id, key, Unless(call.IsNull(0), &value), Unless(call.IsNull(1), &length),
                              Unless(call.IsNull(2), &isFind), call.number);
  });
  if (answer.entry == nullptr) {
    Expect(value == &g_noValue && length == NO_NUMBER && isFind == NO_NUMBER, "a failed call has written its outputs");
    return;
  }
  ModelTable& table = *m_model.Table(id);
  ExpectEqual(isFind, answer.isFind, "isFind");
  CheckValue(table, key, *answer.entry, value);
  ExpectEqual(length, answer.entry->admitted ? table.valueLen : NO_NUMBER, "length");
  if (call.writes && value != nullptr) {
    answer.entry->bytes = ValueFor(call.bytes, key, length);
    std::copy(answer.entry->bytes.begin(), answer.entry->bytes.end(), value);
  }
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
  const ModelEntry* const entry = table->Find(other ? KeyOf(call.family, call.index + repetition + 1) : key);
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
  const unsigned length = LengthOf(call, right);
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
  const int status = m_model.PrepareMemForValues(id, !call.IsNull(0), wanted);
  unsigned long long count = NO_COUNT;
  Compare(call.function, status, [&] { return KavoPrepareMemForValues(id, Unless(call.IsNull(0), &count)); });
  ExpectEqual(count, wanted.value_or(NO_COUNT), "count");
}

void CallRunner::GetMem(const Call& call, unsigned id, unsigned long long index) {
  const int status = m_model.GetMemForValue(id, index, !call.IsNull(0) && !call.IsNull(1));
  unsigned char* value = &g_noValue;
  unsigned length = NO_NUMBER;
  Compare(call.function, status, [&] {
    return KavoGetMemForValue(id, index, Unless(call.IsNull(0), &value), Unless(call.IsNull(1), &length));
  });
  if (status != KAVO_SUCCESS) {
    Expect(value == &g_noValue && length == NO_NUMBER, "a failed call has written its outputs");
    return;
  }
  ModelTable& table = *m_model.Table(id);
  ModelPool::Slot& slot = table.pool.Fetched(index);
  ExpectEqual(length, table.valueLen, "length");
  CheckAddress(table, -1 - static_cast<long>(index), slot.address, value);
  Expect(std::memcmp(value, slot.bytes.data(), length) == 0, "wrong value bytes of index ", index);
  if (call.writes) {
    slot.bytes = ValueFor(call.bytes, static_cast<long>(index), length);
    std::copy(slot.bytes.begin(), slot.bytes.end(), value);
  }
}

}  // namespace KavoTest
