// A number that tells one pool instance from every other that the process ever has. Table ids are used again, so what
// a thread remembers about a pool is remembered under the pool's serial.
#pragma once

namespace Qen {

// The serial of its owner, which is live as long as this object. Making and destroying one takes a process-wide lock,
// briefly, and allocates nothing.
class PoolSerial {
 public:
  PoolSerial();
  ~PoolSerial();
  PoolSerial(const PoolSerial&) = delete;
  PoolSerial& operator=(const PoolSerial&) = delete;

  // Never 0, never given twice.
  unsigned long long Value() const noexcept { return m_value; }

  // Takes the lock. Throws what the lock throws.
  static bool IsLive(unsigned long long serial);

 private:
  unsigned long long m_value = 0;
  PoolSerial* m_next = nullptr;  // guarded by the lock
};

}  // namespace Qen
