// The registry from inside: elements, ids of the map, and what the exported functions make of its lock's errors.
#include <gtest/gtest.h>

#include "adapter/manager.h"
#include "kavo.h"
#include "platform/test_hooks.h"
#include "support/log_capture.h"

namespace Qen {
namespace {

TEST(Registry, UnusedIdsOfTheMapShareTheEmptyElement) {
  EXPECT_EQ(&g_manager->m_emptyEle, g_manager->GetManagerEle(1024));
  EXPECT_EQ(&g_manager->m_emptyEle, g_manager->GetManagerEle(-1));
  EXPECT_EQ(&g_manager->m_eleArray[0], g_manager->GetManagerEle(0));
  EXPECT_EQ(&g_manager->m_eleArray[1023], g_manager->GetManagerEle(1023));
  EXPECT_EQ(g_manager, (&Manager<int, ManagerEle>::GetInstance()));
}

TEST(Registry, IdOfTheMapCostsANodeWhileItIsRegistered) {
  // The map keeps its buckets once it has any.
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(5000, 8, 1, KAVO_TABLE_TYPE_BASIC));
  ASSERT_EQ(KAVO_SUCCESS, KavoUninitHashTable(5000));
  const long long heap = TestHooks::HeapBytesInUse();
  const long long mapped = TestHooks::MappedBytesInUse();
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(5000, 8, 1, KAVO_TABLE_TYPE_BASIC));
    EXPECT_EQ(1U, g_manager->m_eleMap.size());
    EXPECT_EQ(TABLE_TYPE_BASIC, g_manager->GetManagerEle(5000)->Load().type);
    ASSERT_EQ(KAVO_SUCCESS, KavoUninitHashTable(5000));
    EXPECT_EQ(0U, g_manager->m_eleMap.size());
    EXPECT_EQ(&g_manager->m_emptyEle, g_manager->GetManagerEle(5000));
  }
  EXPECT_EQ(heap, TestHooks::HeapBytesInUse());
  EXPECT_EQ(mapped, TestHooks::MappedBytesInUse());
}

TEST(Registry, MovedElementOwnsTheTableAlone) {
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(1, 8, 1, KAVO_TABLE_TYPE_BASIC));
  void* const table = g_manager->GetManagerEle(1)->Load().table;
  ManagerEle taken = g_manager->Take(1);
  EXPECT_EQ(table, taken.Load().table);
  EXPECT_EQ(KAVO_INVALID, KavoUninitHashTable(1)) << "the registry let go of the id";
  ManagerEle moved(std::move(taken));
  EXPECT_EQ(nullptr, taken.Load().table);
  EXPECT_TRUE(g_manager->Register(1, moved));
  EXPECT_EQ(nullptr, moved.Load().table);
  ManagerEle second;
  EXPECT_FALSE(g_manager->Register(1, second)) << "a registered id keeps its table";
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(1));
}

TEST(Registry, ElementIsEmptyAfterItsTableWasDestroyed) {
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(1, 8, 1, KAVO_TABLE_TYPE_BASIC));
  const long long mappedAndHeap = TestHooks::HeapBytesInUse() + TestHooks::MappedBytesInUse();
  ManagerEle* const ele = g_manager->GetManagerEle(1);
  ele->DeleHandle();
  EXPECT_LT(TestHooks::HeapBytesInUse() + TestHooks::MappedBytesInUse(), mappedAndHeap);
  EXPECT_EQ(TABLE_TYPE_EMPTY, ele->Load().type);
  EXPECT_EQ(nullptr, ele->Load().table);

  ManagerEle hollow(TABLE_TYPE_FILTER, nullptr);
  hollow.DeleHandle();
  EXPECT_EQ(TABLE_TYPE_FILTER, hollow.Load().type) << "without a table there is nothing to do";
}

// No exported function creates a table of another kind; an element that holds one is answered, not trusted.
TEST(Registry, UnknownKindIsUnsupported) {
  KavoTest::LogCapture capture(KavoSetLogSink);
  int notATable = 0;
  ManagerEle strange(77, &notATable);
  ASSERT_TRUE(g_manager->Register(1, strange));
  unsigned char value[1] = {};
  unsigned char* address = nullptr;
  unsigned len = 0;
  unsigned found = 0;
  EXPECT_EQ(KAVO_UNSUPPORTED, KavoLookup(1, 1, &address, &len));
  EXPECT_EQ(KAVO_UNSUPPORTED, KavoLookupForUpdate(1, 1, &address, &len));
  EXPECT_EQ(KAVO_UNSUPPORTED, KavoUpdate(1, 1, value, 1));
  EXPECT_EQ(KAVO_UNSUPPORTED, KavoInsert(1, 1, value, 1, 0, 0));
  EXPECT_EQ(KAVO_UNSUPPORTED, KavoInsertOrUpdate(1, 1, value, 1, 0));
  EXPECT_EQ(KAVO_UNSUPPORTED, KavoLookupOrInsert(1, 1, &address, &len, &found, 0));
  unsigned long long count = 0;
  EXPECT_EQ(KAVO_UNSUPPORTED, KavoPrepareMemForValues(1, &count));
  EXPECT_EQ(KAVO_UNSUPPORTED, KavoGetMemForValue(1, 0, &address, &len));
  EXPECT_EQ(KAVO_INVALID, KavoSetFilterFreq(1, 1));
  EXPECT_EQ(KAVO_UNSUPPORTED, KavoSetRehashMode(1, KAVO_REHASH_GRADUAL));
  EXPECT_EQ(10U, capture.Lines().size());
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(1));
}

// A lock reports a deadlock to a thread that holds it already. Calls that need the lock fail with one line; ids of the
// array need none.
TEST(Registry, LockErrorIsAStatusAndALine) {
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(1, 8, 1, KAVO_TABLE_TYPE_BASIC));
  unsigned char value[1] = {5};
  unsigned char* address = nullptr;
  unsigned len = 0;
  unsigned found = 0;
  const long long heap = TestHooks::HeapBytesInUse();
  {
    KavoTest::LogCapture capture(KavoSetLogSink);
    const std::lock_guard lock(g_manager->m_lock);
    EXPECT_EQ(KAVO_SUCCESS, KavoInsert(1, 1, value, 1, 0, 0));
    EXPECT_EQ(KAVO_SUCCESS, KavoLookup(1, 1, &address, &len));
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_EQ(KAVO_FAILED, KavoInitHashTable(2, 8, 1, KAVO_TABLE_TYPE_BASIC)) << "fails at registration";
    EXPECT_EQ(KAVO_FAILED, KavoUninitHashTable(1));
    EXPECT_EQ(KAVO_FAILED, KavoLookup(5000, 1, &address, &len));
    EXPECT_EQ(KAVO_FAILED, KavoLookupForUpdate(5000, 1, &address, &len));
    EXPECT_EQ(KAVO_FAILED, KavoUpdate(5000, 1, value, 1));
    EXPECT_EQ(KAVO_FAILED, KavoInsert(5000, 1, value, 1, 0, 0));
    EXPECT_EQ(KAVO_FAILED, KavoInsertOrUpdate(5000, 1, value, 1, 0));
    EXPECT_EQ(KAVO_FAILED, KavoLookupOrInsert(5000, 1, &address, &len, &found, 0));
    EXPECT_EQ(8U, capture.Lines().size());
    for (const auto& line : capture.Lines()) {
      EXPECT_EQ(0U, line.message.find("lock failed, exception caught:")) << line.message;
    }
  }
  EXPECT_EQ(heap, TestHooks::HeapBytesInUse()) << "the table that could not be registered is gone";
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(1));
}

}  // namespace
}  // namespace Qen
