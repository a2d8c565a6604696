// What output parameters hold before a call, to see afterwards whether it wrote them.
#pragma once

namespace KavoTest {

inline unsigned char g_noValue;
inline constexpr unsigned NO_NUMBER = 0xA5A5A5A5U;
inline constexpr unsigned long long NO_COUNT = 0xA5A5A5A5A5A5A5A5ULL;

template <class T>
T* Unless(bool null, T* pointer) {
  return null ? nullptr : pointer;
}

}  // namespace KavoTest
