#include "embedding/key_tables.h"

#include <algorithm>

namespace Qen {
namespace {

// Ids of embeddings' tables, from the top; those in use are passed over. Relaxed: hands out numbers.
constinit Atomic<unsigned> g_nextId{0xFFFFFFFF};

const long* Mixed(const Tag* tags) noexcept {
  return reinterpret_cast<const long*>(tags);
}

}  // namespace

KeyTables::~KeyTables() {
  for (unsigned table = 0; table < 2; ++table) {
    if (m_made[table].load(std::memory_order_acquire)) {
      static_cast<void>(KavoUninitHashTable(m_ids[table]));
    }
  }
}

int KeyTables::Make(unsigned table) {
  if (table == 1 && !m_made[0].load(std::memory_order_acquire)) {
    const int status = Make(0);
    if (status != KAVO_SUCCESS) {
      return status;
    }
  }
  const std::lock_guard lock(m_mutex);
  if (m_made[table].load(std::memory_order_relaxed)) {  // written under this lock
    return KAVO_SUCCESS;
  }
  const unsigned type = m_shape.admission > 1 ? KAVO_TABLE_TYPE_FILTER : KAVO_TABLE_TYPE_BASIC;
  // The second table is made for few: how many keys are negative is not known.
  const unsigned expected = table == 0 ? m_shape.expected : std::min(m_shape.expected, 1024U);
  unsigned id = 0;
  int status = KAVO_EXISTS;
  while (status == KAVO_EXISTS) {
    id = g_nextId.fetch_sub(1, std::memory_order_relaxed);
    status = KavoInitHashTable(id, expected, m_shape.rowBytes, type);
  }
  if (status != KAVO_SUCCESS) {
    return status;
  }
  static_cast<void>(KavoSetRehashMode(id, m_shape.growth));
  if (type == KAVO_TABLE_TYPE_FILTER) {
    static_cast<void>(KavoSetFilterFreq(id, m_shape.admission));
  }
  m_ids[table] = id;
  m_made[table].store(true, std::memory_order_release);
  return KAVO_SUCCESS;
}

// call(table, mixed keys, num, rows, where): `where` is each key's place in the block, null when it is its own. At once
// for a block without negative keys; otherwise the keys of each table are brought together first.
template <class Call>
int KeyTables::OnBoth(const Tag* tags, std::size_t num, unsigned char** rows, const Call& call) const {
  Tag any = 0;
  for (std::size_t i = 0; i < num; ++i) {
    any |= tags[i];
  }
  if ((any & SIGN) == 0) [[likely]] {
    return num == 0 ? KAVO_SUCCESS : call(0U, Mixed(tags), num, rows, static_cast<const unsigned*>(nullptr));
  }
  for (unsigned table = 0; table < 2; ++table) {
    Tag mixed[BLOCK];
    unsigned where[BLOCK];
    unsigned char* found[BLOCK];
    std::size_t count = 0;
    for (std::size_t i = 0; i < num; ++i) {
      if ((tags[i] >> 63) == table) {
        mixed[count] = tags[i] & ~SIGN;
        where[count++] = static_cast<unsigned>(i);
      }
    }
    if (count == 0) {
      continue;
    }
    const int status = call(table, Mixed(mixed), count, found, static_cast<const unsigned*>(where));
    if (status != KAVO_SUCCESS) {
      return status;
    }
    for (std::size_t i = 0; i < count; ++i) {
      rows[where[i]] = found[i];
    }
  }
  return KAVO_SUCCESS;
}

int KeyTables::Find(const Tag* tags, std::size_t num, unsigned char** rows, std::size_t* there) const {
  std::size_t all = 0;
  const int status = OnBoth(
      tags, num, rows,
      [this, &all](unsigned table, const long* mixed, std::size_t count, unsigned char** found, const unsigned*) {
        if (!m_made[table].load(std::memory_order_acquire)) {
          std::fill_n(found, count, nullptr);
          return KAVO_SUCCESS;
        }
        unsigned long long ofTable = 0;
        const int answer = KavoBatchLookup(m_ids[table], mixed, count, found, &ofTable);
        all += ofTable;
        return answer;
      });
  if (there != nullptr) {
    *there = all;
  }
  return status;
}

int KeyTables::Offer(const Tag* tags, std::size_t num, const unsigned* counts, unsigned char** rows) {
  return OnBoth(tags, num, rows,
                [this, counts](unsigned table, const long* mixed, std::size_t count, unsigned char** found,
                               const unsigned* where) {
                  if (!m_made[table].load(std::memory_order_acquire)) {
                    const int status = Make(table);
                    if (status != KAVO_SUCCESS) {
                      return status;
                    }
                  }
                  unsigned ordered[BLOCK];
                  for (std::size_t i = 0; i < count; ++i) {
                    ordered[i] = counts[where == nullptr ? i : where[i]];
                  }
                  unsigned isFind[BLOCK];
                  unsigned long long done = 0;
                  return KavoBatchOffer(m_ids[table], mixed, count, found, isFind, ordered, &done);
                });
}

int KeyTables::Count(Tag tag, unsigned count) {
  const unsigned table = static_cast<unsigned>(tag >> 63);
  if (!m_made[table].load(std::memory_order_acquire)) {
    const int status = Make(table);
    if (status != KAVO_SUCCESS) {
      return status;
    }
  }
  return KavoInsert(m_ids[table], static_cast<long>(tag & ~SIGN), nullptr, 0, count, 0);
}

}  // namespace Qen
