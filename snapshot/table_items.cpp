#include "snapshot/table_items.h"

#include <array>

namespace Qen {
namespace {

constexpr unsigned EXPORTED = 1;  // export state, as KavoInsert is told it
constexpr std::size_t KEYS_A_CALL = 256;

using Elements = std::array<KavoHtBatchElement, 1024>;

constexpr unsigned NO_MODE = 99;  // takes counted keys only

// take(element) for each entry that meets the mode, once. Nobody inserts meanwhile. Answers the table's type.
template <class Take>
unsigned Walk(unsigned table, unsigned mode, const Take& take) {
  Elements elements;
  KavoHtBatchInfo batch{elements.data(), static_cast<unsigned>(elements.size()), mode, 0};
  void* cursor = nullptr;
  bool hasLast = false;
  long last = 0;
  do {
    unsigned num = 0;
    CheckBase(KavoBatchGetNext(table, &batch, &num, &cursor), "KavoBatchGetNext");
    // The last entry of a full batch comes again.
    try {
      for (unsigned i = hasLast && num > 0 && elements[0].key == last ? 1 : 0; i < num; ++i) {
        take(elements[i]);
      }
    } catch (...) {
      // On to the end: a table keeps its retired memory as long as a cursor.
      while (cursor != nullptr && KavoBatchGetNext(table, &batch, &num, &cursor) == KAVO_SUCCESS) {
      }
      throw;
    }
    if (num > 0) {
      hasLast = true;
      last = elements[num - 1].key;
    }
  } while (cursor != nullptr);
  return batch.tableType;
}

ItemDescription Describe(std::string name, unsigned table, std::uint64_t& entries) {
  ItemDescription item;
  item.name = std::move(name);
  unsigned valueLen = 0;
  unsigned long long size = 0;
  if (KavoGetHtSizeAndVl(table, &size, &valueLen, false) != KAVO_SUCCESS) {
    Fail(KAVO_INVALID, "%s: there is no table %u", item.name.c_str(), table);
  }
  entries = size;
  item.valueBytes = valueLen;
  const unsigned type = Walk(table, NO_MODE, [](const KavoHtBatchElement&) {});
  item.type = type == KAVO_TABLE_TYPE_FILTER ? ItemType::FILTER_TABLE : ItemType::BASIC_TABLE;
  return item;
}

}  // namespace

TableSource::TableSource(std::string name, unsigned tableId)
    : m_description(Describe(std::move(name), tableId, m_entries)), m_table(tableId) {}

std::uint64_t TableSource::ExpectedBytes() const {
  return m_entries * m_description.RecordBytes(BlockType::ROWS);
}

void TableSource::Write(PartWriter& writer, std::uint32_t item, Progress& progress) {
  RecordBuffer rows(writer, BlockType::ROWS, item);
  RecordBuffer counted(writer, BlockType::COUNTED, item);
  const bool isFilter = m_description.type == ItemType::FILTER_TABLE;
  const unsigned mode = m_kind == SnapshotKind::FULL ? KAVO_EXPORT_ALL : KAVO_EXPORT_UNMARKED;
  static_cast<void>(Walk(m_table, mode, [&](const KavoHtBatchElement& element) {
    RecordBuffer& to = element.value == nullptr ? counted : rows;
    unsigned char* const record = to.Next();
    std::memcpy(record, &element.key, sizeof(element.key));
    if (isFilter) {
      std::memcpy(record + m_description.CountOffset(), &element.count, sizeof(element.count));
    }
    if (element.value != nullptr) {
      std::memcpy(record + m_description.ValueOffset(), element.value, m_description.valueBytes);
    }
    progress.Add(to.Keep());
  }));
  progress.Add(rows.Flush());
  progress.Add(counted.Flush());
}

void TableSource::Committed(const SaveIdentity&) noexcept {
  try {
    static_cast<void>(Walk(m_table, KAVO_EXPORT_UNMARKED_MARK, [](const KavoHtBatchElement&) {}));
  } catch (const std::exception&) {  // the next increment takes again what was not marked
  }
}

TableTarget::TableTarget(std::string name, unsigned tableId, unsigned shard, unsigned shards)
    : ItemTarget(name), m_table(tableId), m_shard(shard), m_shards(shards) {
  std::uint64_t entries = 0;
  m_description = Describe(std::move(name), tableId, entries);
  if (entries != 0) {
    Fail(KAVO_INVALID, "%s: table %u is not empty", Name().c_str(), tableId);
  }
}

std::string TableTarget::Mismatch(const ItemDescription& item, const ItemTotals&) const {
  if (item.type != m_description.type) {
    return "is not of the table's type";
  }
  return item.valueBytes == m_description.valueBytes ? "" : "its values have another length than the table's";
}

bool TableTarget::CanBe(BlockType type, const ItemDescription& item, Bytes records) const {
  if (type != BlockType::ROWS && item.type != ItemType::FILTER_TABLE) {
    return false;
  }
  const std::size_t recordBytes = item.RecordBytes(type);
  for (std::size_t at = 0; at < records.size(); at += recordBytes) {
    long key = 0;
    std::memcpy(&key, &records[at], sizeof(key));
    if (key < 0) {
      return false;
    }
  }
  return type != BlockType::REMOVED;
}

void TableTarget::Install(BlockType type, const ItemDescription& item, Bytes records) {
  const std::size_t recordBytes = item.RecordBytes(type);
  long keys[KEYS_A_CALL] = {};
  unsigned char* values[KEYS_A_CALL];
  std::size_t places[KEYS_A_CALL] = {};
  std::size_t num = 0;
  const auto insert = [&] {
    unsigned long long found = 0;
    CheckBase(KavoBatchLookup(m_table, keys, num, values, &found), "KavoBatchLookup");
    for (std::size_t i = 0; i < num; ++i) {
      if (values[i] != nullptr) {
        continue;  // of a newer snapshot
      }
      // Not what it points to is written.
      auto* const value = const_cast<unsigned char*>(&records[places[i]] + item.ValueOffset());
      unsigned count = 0;
      if (item.IsCounted()) {
        std::memcpy(&count, &records[places[i]] + 8, sizeof(count));
      }
      CheckBase(
          KavoInsert(m_table, keys[i], type == BlockType::ROWS ? value : nullptr, item.valueBytes, count, EXPORTED),
          "KavoInsert");
    }
    num = 0;
  };
  for (std::size_t at = 0; at < records.size(); at += recordBytes) {
    long key = 0;
    std::memcpy(&key, &records[at], sizeof(key));
    if ((static_cast<unsigned long>(key) >> 32) % m_shards != m_shard) {
      continue;
    }
    keys[num] = key;
    places[num++] = at;
    if (num == KEYS_A_CALL) {
      insert();
    }
  }
  insert();
}

}  // namespace Qen
