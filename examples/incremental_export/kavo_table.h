// A Kavo table for the length of a scope. Every status code is checked: a call that fails throws KavoError, which names
// the call, the table and the code.
#pragma once

#include <kavo.h>

#include <cstdint>
#include <stdexcept>

namespace IncrementalExport {

class KavoError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The library's numbers.
enum class TableType : std::uint32_t { BASIC = KAVO_TABLE_TYPE_BASIC, FILTER = KAVO_TABLE_TYPE_FILTER };

// Which exports a new entry is due in, in the numbers of KavoInsert's argument `state`.
enum class InsertState : unsigned {
  FULL_ONLY = 0,  // in full exports, until it is changed
  EXPORTED = 1,   // as if it had just been exported
  CHANGED = 2,    // in the next export of changes
};

class KavoTable {
 public:
  // `size` is what the table is made for; it grows beyond by itself.
  KavoTable(unsigned id, TableType type, unsigned size, unsigned valueLen);
  KavoTable(const KavoTable&) = delete;
  KavoTable& operator=(const KavoTable&) = delete;
  ~KavoTable();

  unsigned Id() const { return m_id; }
  TableType Type() const { return m_type; }
  unsigned ValueLen() const { return m_valueLen; }

  // Safe from any number of threads. A null value is that of a key which a filter table counts and has not admitted.

  struct Entry {
    unsigned char* value;
    bool found;  // a new entry on prepared memory counts as found: its value is there already
  };
  Entry LookupOrInsert(long key, unsigned occurrences) const;
  // False when the key was there, which is not changed then. A filter table takes a null value too.
  bool Insert(long key, unsigned char* value, unsigned count, InsertState state) const;
  void InsertOrUpdate(long key, unsigned char* value) const;
  unsigned char* Lookup(long key) const;
  // As Lookup, and makes the entry due in the next export of changes.
  unsigned char* LookupForUpdate(long key) const;

  // The rest needs the table for itself.

  // Occurrences from which on a filter table admits a key.
  void SetFilterFrequency(unsigned frequency) const;
  // Walks the whole table.
  std::uint64_t CountEntries(bool admittedOnly) const;
  // Gives the table's reserved value memory to the caller, who fills it by index; new keys offered by LookupOrInsert
  // then adopt it, index by index. Returns how many values there is memory for. Once, before the first insert.
  std::uint64_t PrepareValues() const;
  unsigned char* PreparedValue(std::uint64_t index) const;

 private:
  const unsigned m_id;
  const TableType m_type;
  const unsigned m_valueLen;
};

// Throws KavoError, with the call's name, unless the status is KAVO_SUCCESS.
void CheckStatus(const char* call, unsigned table, int status);

}  // namespace IncrementalExport
