/* The public header and every function of it, from C. */
#include "kavo.h"

#include <stdio.h>
#include <string.h>

static int failures = 0;

#define CHECK(condition)                                                      \
  do {                                                                        \
    if (!(condition)) {                                                       \
      ++failures;                                                             \
      fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
    }                                                                         \
  } while (0)

typedef struct Lines {
  int count;
  char last[256];
} Lines;

static void WriteLine(void* context, unsigned int channel, int level, const char* format, va_list arguments) {
  Lines* lines = (Lines*)context;
  CHECK(channel == 0x100003DU);
  CHECK(level == KAVO_LOG_LEVEL_ERROR);
  ++lines->count;
  vsnprintf(lines->last, sizeof(lines->last), format, arguments);
}

int main(void) {
  enum { TABLE = 3, FILTER = 4, LEN = 8 };
  Lines lines = {0, ""};
  const KavoLogSink sink = {NULL, &WriteLine, &lines};
  unsigned char one[LEN] = {1, 2, 3, 4, 5, 6, 7, 8};
  unsigned char two[LEN] = {9, 9, 9, 9, 9, 9, 9, 9};
  unsigned char* address = NULL;
  unsigned char* again = NULL;
  unsigned int len = 0;
  unsigned int found = 7;
  KavoHtBatchElement elements[4];
  KavoHtBatchInfo batch = {elements, 4, KAVO_EXPORT_UNMARKED_MARK, 9};
  void* iter = NULL;
  unsigned int num = 0;
  unsigned long long size = 0;
  unsigned long long count = 0;
  const long keys[3] = {2, 1, 2};
  unsigned char* addresses[3];
  unsigned int finds[3];
  unsigned char rows[3 * LEN];
  KavoTableStats stats;

  CHECK(KavoSetLogSink(&sink) == KAVO_SUCCESS);
  CHECK(KavoInitHashTable(TABLE, 100, LEN, KAVO_TABLE_TYPE_BASIC) == KAVO_SUCCESS);
  CHECK(KavoInsert(TABLE, 1, one, LEN, 0, 2) == KAVO_SUCCESS);
  CHECK(KavoLookup(TABLE, 1, &address, &len) == KAVO_SUCCESS);
  CHECK(len == LEN && memcmp(address, one, LEN) == 0);
  CHECK(KavoUpdate(TABLE, 1, two, LEN) == KAVO_SUCCESS);
  CHECK(KavoLookupForUpdate(TABLE, 1, &again, &len) == KAVO_SUCCESS);
  CHECK(again == address && memcmp(address, two, LEN) == 0);
  CHECK(KavoInsertOrUpdate(TABLE, 1, one, LEN, 0) == KAVO_SUCCESS);
  CHECK(memcmp(address, one, LEN) == 0);
  CHECK(KavoLookupOrInsert(TABLE, 2, &again, &len, &found, 0) == KAVO_SUCCESS);
  CHECK(found == 0 && again != address);
  CHECK(KavoBatchLookupOrInsert(TABLE, keys, 3, addresses, finds, 0, &count) == KAVO_SUCCESS);
  CHECK(count == 3 && finds[0] == 1 && addresses[0] == again && addresses[1] == address && addresses[2] == again);
  CHECK(KavoBatchLookup(TABLE, keys, 3, addresses, &count) == KAVO_SUCCESS);
  CHECK(count == 3 && addresses[1] == address);
  CHECK(KavoBatchGather(TABLE, keys, 3, rows, LEN, NULL) == KAVO_SUCCESS);
  CHECK(memcmp(rows + LEN, one, LEN) == 0 && rows[0] == 0);
  CHECK(KavoBatchInsertOrUpdate(TABLE, keys, 3, rows, LEN, 0, &count) == KAVO_SUCCESS);
  CHECK(count == 3);
  stats.size = sizeof(stats);
  CHECK(KavoGetTableStats(TABLE, &stats) == KAVO_SUCCESS);
  CHECK(stats.size == sizeof(stats) && stats.valueBytes >= (unsigned long long)2 * LEN && stats.generations == 1);
  CHECK(KavoGetHtSizeAndVl(TABLE, &size, &len, true) == KAVO_SUCCESS);
  CHECK(size == 2 && len == LEN);
  CHECK(KavoBatchGetNext(TABLE, &batch, &num, &iter) == KAVO_SUCCESS);
  CHECK(num == 2 && iter == NULL && batch.tableType == KAVO_TABLE_TYPE_BASIC);
  CHECK(elements[0].key == 1 && elements[0].value == address && elements[1].value == again);

  CHECK(KavoInitHashTable(FILTER, 100, LEN, KAVO_TABLE_TYPE_FILTER) == KAVO_SUCCESS);
  CHECK(KavoSetFilterFreq(FILTER, 2) == KAVO_SUCCESS);
  CHECK(KavoPrepareMemForValues(FILTER, &count) == KAVO_SUCCESS);
  CHECK(count == 100);
  CHECK(KavoGetMemForValue(FILTER, 0, &address, &len) == KAVO_SUCCESS);
  CHECK(len == LEN);
  memcpy(address, two, LEN);
  CHECK(KavoLookupOrInsert(FILTER, 5, &again, &len, &found, 1) == KAVO_SUCCESS);
  CHECK(found == 1 && again == NULL);
  CHECK(KavoLookupOrInsert(FILTER, 5, &again, &len, &found, 1) == KAVO_SUCCESS);
  CHECK(found == 1 && again == address && memcmp(again, two, LEN) == 0);
  CHECK(KavoUninitHashTable(FILTER) == KAVO_SUCCESS);

  CHECK(lines.count == 0);
  CHECK(KavoLookup(TABLE, 4, &address, &len) == KAVO_INVALID);
  CHECK(lines.count == 1);
  CHECK(strstr(lines.last, "KavoLookup(") != NULL);
  CHECK(strstr(lines.last, " : LookUpWithValLen failed, ret[-4] != 0\r\n") != NULL);

  CHECK(KavoUninitHashTable(TABLE) == KAVO_SUCCESS);
  CHECK(KavoSetLogSink(NULL) == KAVO_SUCCESS);
  return failures == 0 ? 0 : 1;
}
