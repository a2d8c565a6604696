// A named point at which a test may park the calling thread. Only the testing build has them (KAVO_TESTING); in
// production the macro is nothing.
#pragma once

#ifdef KAVO_TESTING

namespace Qen::TestHooks {

// Called with the point's name on every passage; null when no test has installed one. Set while no other thread is
// inside the library.
using PointHandler = void (*)(const char* point);
void SetPointHandler(PointHandler handler) noexcept;
void Reach(const char* point);

// Fault injection: of the allocations and mappings that the calling thread asks for from now on, the n-th (1 = the
// next) fails; with `stay` every later one fails too. 0 disarms. The two counts are the calling thread's since it last
// armed, and can be read after disarming.
void FailAllocation(unsigned long long nth, bool stay = false) noexcept;
unsigned long long AllocationsSeen() noexcept;
unsigned long long AllocationFailures() noexcept;
bool ShouldFailAllocation() noexcept;

// Bytes now held from the heap and from the system through the library's allocation functions, by all threads.
// Mappings count in whole pages.
long long HeapBytesInUse() noexcept;
long long MappedBytesInUse() noexcept;
void CountHeapBytes(long long change) noexcept;
void CountMappedBytes(long long change) noexcept;

// Shortens every bounded wait, those under way included, to at most this many sleeps; 0 restores the real limits.
void SetWaitLimit(unsigned long long sleeps) noexcept;
unsigned long long WaitLimit() noexcept;

}  // namespace Qen::TestHooks

#define KAVO_TEST_POINT(name) ::Qen::TestHooks::Reach(name)

#else

#define KAVO_TEST_POINT(name) static_cast<void>(0)

#endif
