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

static int lines = 0;
static char last[256];

static void WriteLine(void* context, unsigned int channel, int level, const char* format, va_list arguments) {
  CHECK(context == &lines && channel == 0x100003DU && level == KAVO_LOG_LEVEL_ERROR);
  ++lines;
  vsnprintf(last, sizeof(last), format, arguments);
}

int main(void) {
  enum { TABLE = 3, FILTER = 4, LEN = 8 };
  const KavoLogSink sink = {NULL, &WriteLine, &lines};
  const long keys[3] = {2, 1, 2};
  const unsigned int psIds[2] = {70, 71};
  const unsigned long long hashes[2] = {3, 4};
  unsigned char one[LEN] = {1, 2, 3, 4, 5, 6, 7, 8};
  unsigned char two[LEN] = {9, 9, 9, 9, 9, 9, 9, 9};
  unsigned char *address = NULL, *again = NULL, *addresses[3], rows[3 * LEN];
  unsigned int len = 0, found = 7, num = 0, finds[3], owners[2], *owner = owners;
  unsigned long long size = 0, count = 0;
  KavoHtBatchElement elements[4];
  KavoHtBatchInfo batch = {elements, 4, KAVO_EXPORT_UNMARKED_MARK, 9};
  KavoTableStats stats;
  void* iter = NULL;

  CHECK(KavoVersion() == KAVO_VERSION);
  CHECK(KavoSetLogSink(&sink) == KAVO_SUCCESS);
  CHECK(KavoInitHashTable(TABLE, 100, LEN, KAVO_TABLE_TYPE_BASIC) == KAVO_SUCCESS);
  CHECK(KavoSetRehashMode(TABLE, KAVO_REHASH_GRADUAL) == KAVO_SUCCESS);
  CHECK(KavoInsert(TABLE, 1, one, LEN, 0, 2) == KAVO_SUCCESS);
  CHECK(KavoLookup(TABLE, 1, &address, &len) == KAVO_SUCCESS && len == LEN && memcmp(address, one, LEN) == 0);
  CHECK(KavoUpdate(TABLE, 1, two, LEN) == KAVO_SUCCESS && memcmp(address, two, LEN) == 0);
  CHECK(KavoLookupForUpdate(TABLE, 1, &again, &len) == KAVO_SUCCESS && again == address);
  CHECK(KavoInsertOrUpdate(TABLE, 1, one, LEN, 0) == KAVO_SUCCESS && memcmp(address, one, LEN) == 0);
  CHECK(KavoLookupOrInsert(TABLE, 2, &again, &len, &found, 0) == KAVO_SUCCESS && found == 0 && again != address);
  CHECK(KavoBatchLookupOrInsert(TABLE, keys, 3, addresses, finds, 0, &count) == KAVO_SUCCESS && count == 3);
  CHECK(finds[0] == 1 && addresses[0] == again && addresses[1] == address && addresses[2] == again);
  CHECK(KavoBatchLookup(TABLE, keys, 3, addresses, &count) == KAVO_SUCCESS && count == 3 && addresses[1] == address);
  CHECK(KavoBatchGather(TABLE, keys, 3, rows, LEN, NULL) == KAVO_SUCCESS && memcmp(rows + LEN, one, LEN) == 0);
  CHECK(KavoBatchInsertOrUpdate(TABLE, keys, 3, rows, LEN, 0, &count) == KAVO_SUCCESS && count == 3);
  stats.size = sizeof(stats);
  CHECK(KavoGetTableStats(TABLE, &stats) == KAVO_SUCCESS && stats.size == sizeof(stats) && stats.generations == 1);
  CHECK(KavoGetHtSizeAndVl(TABLE, &size, &len, true) == KAVO_SUCCESS && size == 2 && len == LEN);
  CHECK(KavoBatchGetNext(TABLE, &batch, &num, &iter) == KAVO_SUCCESS && num == 2 && iter == NULL);
  CHECK(batch.tableType == KAVO_TABLE_TYPE_BASIC && elements[0].key == 1 && elements[0].value == address);

  CHECK(KavoInitHashTable(FILTER, 100, LEN, KAVO_TABLE_TYPE_FILTER) == KAVO_SUCCESS);
  CHECK(KavoSetFilterFreq(FILTER, 2) == KAVO_SUCCESS);
  CHECK(KavoPrepareMemForValues(FILTER, &count) == KAVO_SUCCESS && count == 100);
  CHECK(KavoGetMemForValue(FILTER, 0, &address, &len) == KAVO_SUCCESS && len == LEN);
  CHECK(KavoLookupOrInsert(FILTER, 5, &again, &len, &found, 1) == KAVO_SUCCESS && found == 1 && again == NULL);
  CHECK(KavoLookupOrInsert(FILTER, 5, &again, &len, &found, 1) == KAVO_SUCCESS && found == 1 && again == address);
  CHECK(KavoUninitHashTable(FILTER) == KAVO_SUCCESS);

  CHECK(lines == 0);
  CHECK(KavoLookup(TABLE, 4, &address, &len) == KAVO_INVALID && lines == 1);
  CHECK(strstr(last, "KavoLookup(") != NULL && strstr(last, " : LookUpWithValLen failed, ret[-4] != 0\r\n") != NULL);
  CHECK(KavoUninitHashTable(TABLE) == KAVO_SUCCESS);
  CHECK(KavoSetLogSink(NULL) == KAVO_SUCCESS);
  CHECK(InitPartitionMap(1, 2, psIds) == KAVO_SUCCESS);
  CHECK(QueryPartitionMapPsId(2, &num) == KAVO_SUCCESS && num == 70);
  CHECK(GetBatchPsIds(hashes, &owner, 2) == KAVO_SUCCESS && owners[0] == 71 && owners[1] == 70);
  CHECK(UninitPartitionMap() == KAVO_SUCCESS);
  return failures == 0 ? 0 : 1;
}
