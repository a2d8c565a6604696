// A Kavo table for the length of a scope, its values seen as floats. Every status code is checked: a call that fails
// throws KavoError, which names the call, the table and the code.
#pragma once

#include <stdexcept>

namespace CtrTraining {

class KavoError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class KavoTable {
 public:
  // `size` is what the table is made for; it grows beyond by itself.
  KavoTable(unsigned id, unsigned size, unsigned floatsPerValue);
  KavoTable(const KavoTable&) = delete;
  KavoTable& operator=(const KavoTable&) = delete;
  ~KavoTable();

  struct Entry {
    float* value;  // stays the key's address as long as the table lives, growths included
    bool created;  // true for exactly one of the threads that offer a new key; the value is all zeros then
  };

  // Safe from any number of threads.
  Entry LookupOrInsert(long key) const;

 private:
  const unsigned m_id;
};

}  // namespace CtrTraining
