// A Kavo table for the length of a scope, its values seen as floats. Every status code is checked: a call that fails
// throws KavoError, which names the call, the table and the code.
#pragma once

#include <kavo.h>

#include <cstdint>
#include <stdexcept>

namespace CtrTraining {

class KavoError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class KavoTable {
 public:
  // `size` is what the table is made for; it grows beyond by itself. A table that admits keys at their `admitAt`-th
  // offer only counts them before, which costs a few bytes a key; 1 gives every key a value at once.
  KavoTable(unsigned id, unsigned size, unsigned floatsPerValue, unsigned admitAt = 1);
  KavoTable(const KavoTable&) = delete;
  KavoTable& operator=(const KavoTable&) = delete;
  ~KavoTable();

  struct Entry {
    float* value;  // null while the key is not admitted; then its address as long as the table lives, growths included
    bool
        created;  // true for exactly one of the threads that offer a new key, if that admits it; the value is all zeros
  };

  // Counts `offers` of the key where the table counts. Safe from any number of threads.
  Entry LookupOrInsert(long key, unsigned offers = 1) const;

  // Keys that the table holds, or those of them that are admitted. While no thread inserts.
  std::uint64_t KeyCount(bool admittedOnly) const;

  // What it holds and has done. At any time.
  KavoTableStats Stats() const;

 private:
  const unsigned m_id;
};

}  // namespace CtrTraining
