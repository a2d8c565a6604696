// The registry from inside: elements, and what ids of the map cost.
#include <gtest/gtest.h>

#include <utility>

#include "adapter/manager.h"
#include "kavo.h"
#include "support/held.h"

namespace Qen {
namespace {

TEST(Registry, IdOfTheMapCostsANodeWhileItIsRegistered) {
  EXPECT_EQ(&g_manager->m_eleArray[1023], g_manager->GetManagerEle(1023));
  // The map keeps its buckets once it has any.
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(5000, 8, 1, KAVO_TABLE_TYPE_BASIC));
  ASSERT_EQ(KAVO_SUCCESS, KavoUninitHashTable(5000));
  const KavoTest::Held before;
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(5000, 8, 1, KAVO_TABLE_TYPE_BASIC));
    EXPECT_EQ(1U, g_manager->m_eleMap.size());
    EXPECT_EQ(TABLE_TYPE_BASIC, g_manager->GetManagerEle(5000)->Load().type);
    ASSERT_EQ(KAVO_SUCCESS, KavoUninitHashTable(5000));
    EXPECT_EQ(0U, g_manager->m_eleMap.size());
    EXPECT_EQ(&g_manager->m_emptyEle, g_manager->GetManagerEle(5000));
  }
  EXPECT_EQ(before, KavoTest::Held());
}

TEST(Registry, MovedElementOwnsTheTableAlone) {
  const KavoTest::Held before;
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
  g_manager->GetManagerEle(1)->DeleHandle();
  EXPECT_EQ(TABLE_TYPE_EMPTY, g_manager->GetManagerEle(1)->Load().type);
  EXPECT_EQ(before, KavoTest::Held());
}

}  // namespace
}  // namespace Qen
