// BasicEsConcurrentTable: the plain kind. Every key that is inserted gets its value block at once, and its value
// record names that block.
//
// The class is final, so that the exported functions reach its operations without a virtual call.
#pragma once

#include "hash/hashtable.h"
#include "hash/traits.h"
#include "hash/value_record.h"
#include "table/es_concurrent_table.h"
#include "table/export_hints.h"
#include "table/export_selection.h"
#include "table/update_value.h"

namespace Qen {

template <class TableId, class Key, class Value, class KTraits, class VTraits>
class BasicEsConcurrentTable final : public EsConcurrentTable<TableId, Key, Value, KTraits, VTraits> {
  using Base = EsConcurrentTable<TableId, Key, Value, KTraits, VTraits>;

 public:
  using Base::Base;
  using typename Base::Cursor;
  using typename Base::OperationInfo;

  unsigned char* GetValue(unsigned char* value) const override { return value; }

  int InsertOrFind(OperationInfo& info) const override;

  int UpdateValue(unsigned char* value, const unsigned char* src, unsigned len) const override {
    return Qen::UpdateValue(value, src, len);
  }

  void GetTableSizeAndVl(unsigned long long& size, unsigned& valueLen, bool /* admittedOnly */) const override {
    valueLen = this->ValueLen();
    size = Base::CountEntries(*this, false, NoHint());
  }

  // An entry without a block is in no export; a walk does not report one.
  bool IsMeetRequirements(unsigned mode, unsigned char* value) const override {
    return value != nullptr && IsDue(mode, value);
  }

  // The element's count stays what the caller had there.
  void SetBatchInfo(KavoHtBatchInfo& info, const Cursor& it, unsigned index) const override {
    KavoHtBatchElement& element = info.elements[index];
    element.key = it.EntryKey();
    element.value = ValueBytes(it.EntryBlock());
  }

  void SetTableType(KavoHtBatchInfo& info) const override { info.tableType = KAVO_TABLE_TYPE_BASIC; }

  int GetBatchNext(KavoHtBatchInfo& info, unsigned& realNum, void*& iter) const {
    // A full export reads no header, and so no block.
    return Base::GetBatchNext(*this, info, realNum, iter, BlockHint{info.exportMode != KAVO_EXPORT_ALL});
  }
};

template <class TableId, class Key, class Value, class KTraits, class VTraits>
int BasicEsConcurrentTable<TableId, Key, Value, KTraits, VTraits>::InsertOrFind(OperationInfo& info) const {
  // Runs once, on the record of a key that this call created. The block becomes visible to others with Attach, as it
  // is by then.
  const auto onInsert = [this, &info](Value& value) {
    NumberedBlock block;
    const int ret = this->GetMemAndRawPtr(info.memKind, block);
    if (ret != KAVO_SUCCESS) {
      return ret;
    }
    info.rawPtr = block.address;
    if (info.newValue != nullptr) {
      info.newValue->WriteTo(info.rawPtr, this->ValueLen());
    }
    value.Attach(block.number);
    return static_cast<int>(KAVO_SUCCESS);
  };
  // The hash table waits for another thread's insert by itself.
  const auto onFound = [&info](unsigned char& block) {
    info.rawPtr = &block;
    return KAVO_SUCCESS;
  };
  return this->HashTableOwner().GetHashtable().InsertOrFind(info.key, onInsert, onFound);
}

}  // namespace Qen
