/*
 * Kavo: large in-memory hash tables inside a host process.
 *
 * A table maps a signed 64-bit key to a value of fixed length. Many threads read and write one table at once, without
 * a table-wide lock, and the table grows while they do. Values stay where they are: a lookup gives the address of
 * the value bytes inside the table.
 *
 * This header is the manual of libkavo_base.so: what is not said here is not promised. It compiles as C11 and as C++.
 *
 * CONTENTS
 *
 *   CONVENTIONS            status, log lines, keys, ids, lengths, addresses
 *   THREADS                what the caller sees to, what concurrent calls may count on, which calls may run at once
 *   VERSION                KAVO_VERSION, KavoVersion
 *   STATUS CODES           KAVO_SUCCESS and the failures
 *   TABLES                 KavoInitHashTable, KavoUninitHashTable, KavoSetRehashMode
 *   KEYS AND VALUES        KavoLookup, KavoLookupForUpdate, KavoUpdate, KavoInsert, KavoInsertOrUpdate,
 *                          KavoLookupOrInsert
 *   FILTER TABLES          what they are, KavoSetFilterFreq
 *   MANY KEYS AT ONCE      KavoBatchLookup, KavoBatchGather, KavoBatchLookupOrInsert, KavoBatchOffer,
 *                          KavoBatchInsertOrUpdate
 *   VALUES BEFORE KEYS     KavoPrepareMemForValues, KavoGetMemForValue
 *   PARTITION MAP          InitPartitionMap, UninitPartitionMap, QueryPartitionMapPsId, GetBatchPsIds
 *   EXPORT                 KavoGetHtSizeAndVl, KavoBatchGetNext
 *   STATISTICS             KavoGetTableStats
 *   LOGGING                levels, bound, catalogue of log lines, KavoSetLogSink
 *
 * CONVENTIONS
 *
 *  1. Status. Every table function returns a status code (below): 0 on success, negative on failure. Only the codes
 *     listed with a function are returned by it. No function throws; no function ends the process.
 *  2. Failures are also logged (see LOGGING): the layer that fails writes a log line with the cause, then the function
 *     writes a summary. A failed argument check writes one log line. A key that is absent is a failure in this sense.
 *     A call that succeeds may have logged a failure as well: an insert that stored its key, and then could not make
 *     the larger table that further keys will need.
 *  3. Keys lie between 0 and 2^63 - 1. A negative key is refused with KAVO_INVALID. A key's bucket is given by the
 *     low bits of its lowest 32 bits, and keys are not mixed further: keys that agree in those bits share a bucket and
 *     are slow, so hash keys that are not already well spread.
 *  4. Tables are named by an id of the caller's choice, any 32-bit value. Ids below 1024, and the
 *     1024 highest, are found with one array access; others cost a shared lock and a hash lookup in every call. The
 *     tables of embeddings (kavo_embedding.h) take their ids from 4,294,967,295 downwards, passing over those in use.
 *  5. Lengths are in bytes. A value's length is fixed when its table is created.
 *  6. Addresses. The address of a key's value is aligned to 8 bytes and stays the key's address until the table is
 *     destroyed, through any number of growths: keys are never removed and values never move. The memory belongs to
 *     the table; the caller reads and writes the value bytes in place and never frees them.
 *  7. Output parameters are written only as each function says; on failure they keep what they held.
 *  8. Memory is taken through mappings of zero pages: a part of a table that was never touched costs address space
 *     only. A table asks the system for huge pages where there are any.
 *
 * THREADS
 *
 *  Any thread may call any function at any time, with two rules that the caller keeps:
 *
 *  - No call on a table id may be in progress while that id is uninitialised, and none may use an address that the
 *    table gave after that.
 *  - Value bytes are plain memory. The library orders no writer of a key's value against other readers or writers of
 *    the same value; callers that share a key's value between threads coordinate among themselves (for example with
 *    relaxed atomic accesses to its words). KavoInsert, KavoInsertOrUpdate and KavoUpdate write value bytes. A key
 *    that KavoInsert or KavoInsertOrUpdate creates becomes visible to other threads together with its whole value.
 *
 *  What concurrent calls may count on, growth included:
 *
 *  - However many threads offer one new key at once, exactly one creates it, and all get the same address. In a filter
 *    table every occurrence is counted, exactly one call admits the key, and all calls that get its value get the same
 *    address.
 *  - A lookup or update that starts after an insert of the key has returned finds the key.
 *  - A lookup that runs beside the first insert of its key finds it or answers KAVO_INVALID.
 *  - Lookups take no lock and wait for nobody, but for two reader-writer locks, both taken shared: that of the key's
 *    bucket, in the rare bucket whose keys outgrew its cells; and for an id that is neither below 1024 nor among the
 *    1024 highest, while the table is looked up, the registry's, which creations and destructions hold exclusively
 *    for a moment. Inserts wait only for another thread's insert or admission of the same key, for a bucket that is
 *    being moved to a larger table, or, when the table is full, for its growth, in which they help.
 *
 *  Which calls on one table id may run at once. Calls on different ids, and those of the partition map, always may.
 *
 *                 L  I  E  S  R  G  P  C  D
 *    L lookups    +  +  +  +  +  +  -  +  -   KavoLookup, KavoLookupForUpdate, KavoUpdate, KavoBatchLookup,
 *                                             KavoBatchGather
 *    I inserts    +  +  1  +  -  2  -  +  -   KavoInsert, KavoInsertOrUpdate, KavoLookupOrInsert,
 *                                             KavoBatchLookupOrInsert, KavoBatchOffer,
 *                                             KavoBatchInsertOrUpdate
 *    E export     +  1  3  +  +  +  -  +  -   KavoBatchGetNext, KavoGetHtSizeAndVl
 *    S settings   +  +  +  +  +  +  -  +  -   KavoSetFilterFreq, KavoGetTableStats
 *    R growth     +  -  +  +  +  +  -  +  -   KavoSetRehashMode
 *    G fetching   +  2  +  +  +  4  -  +  -   KavoGetMemForValue
 *    P preparing  -  -  -  -  -  -  -  +  -   KavoPrepareMemForValues
 *    C creation   +  +  +  +  +  +  +  +  -   KavoInitHashTable: the others get KAVO_INVALID until it is done
 *    D end        -  -  -  -  -  -  -  -  -   KavoUninitHashTable
 *
 *    1  Safe. While new keys are inserted an iteration gives each key that was there before at least once, see EXPORT,
 *       and the number of entries is approximate.
 *    2  Values are to be written before keys that might adopt them are inserted; see VALUES BEFORE KEYS.
 *    3  One thread a cursor. Marking exports compete for the entries that they mark.
 *    4  One thread an index.
 *
 *  The library starts no threads; growth is done by the inserting threads. It may be loaded with dlopen; after dlclose
 *  it stays in the process until every thread has ended that inserted into a table whose id is 1024 or above. A thread
 *  that is inside a function must not be cancelled or killed, nor leave by a non-local jump.
 */
#ifndef KAVO_H
#define KAVO_H

#include <stdarg.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

#ifdef __cplusplus
static_assert(sizeof(long) == 8, "keys are 64-bit");
#else
_Static_assert(sizeof(long) == 8, "keys are 64-bit");
#endif

/* VERSION
 *
 * Of this header: KAVO_VERSION is MAJOR * 1,000,000 + MINOR * 1,000 + PATCH. MAJOR changes with what hosts relied on,
 * MINOR with what is added, PATCH with corrections; while MAJOR is 0, MINOR stands for both.
 */
#define KAVO_VERSION_MAJOR 0
#define KAVO_VERSION_MINOR 1
#define KAVO_VERSION_PATCH 0
#define KAVO_VERSION (KAVO_VERSION_MAJOR * 1000000 + KAVO_VERSION_MINOR * 1000 + KAVO_VERSION_PATCH)

/* The KAVO_VERSION of the header with which the library was built that is loaded. Cannot fail. */
int KavoVersion(void);

/* STATUS CODES */

#define KAVO_SUCCESS 0        /* Done. */
#define KAVO_FAILED (-1)      /* An internal step could not be completed (see below). */
#define KAVO_EXISTS (-2)      /* What was to be created exists already. */
#define KAVO_NO_MEMORY (-3)   /* Memory could not be obtained, or bytes could not be copied. */
#define KAVO_INVALID (-4)     /* The call cannot be served as asked (see below). */
#define KAVO_UNSUPPORTED (-6) /* A table of a kind that the call does not handle, or no partition map to remove. */

/*
 * The numbers are fixed, as hosts compare with them. -5 is none of them and is never returned: no failure of this
 * library is of a further sort, and the number that follows does not move up.
 *
 * KAVO_FAILED: a wait for another thread passed its limit, or a lock reported an error; or no partition map is
 * installed for a query, or another one than is offered.
 *
 * KAVO_INVALID: a bad argument, a table id that is not in use, a key that is absent (or, for KavoInsert, present), or a
 * table of the wrong kind for the call.
 */

/* TABLES */

#define KAVO_TABLE_TYPE_BASIC 0  /* Every inserted key gets a value at once. */
#define KAVO_TABLE_TYPE_FILTER 1 /* A key gets a value once it was offered often enough; see FILTER TABLES. */

/*
 * Creates a table under an id that is not in use.
 *
 *   tableId    the caller's name for the table.
 *   size       entries that the table is expected to hold; it grows beyond by itself. 0 means 2,097,152; 1 to 7 mean
 *              8. Cells for about twice as many entries and value memory for `size` entries are reserved at once, but
 *              cost no memory until they are used: a table for 10,000,000 entries is made in milliseconds. No table
 *              holds more than 4,294,967,294 entries; an insert beyond that answers KAVO_NO_MEMORY.
 *   valueLen   value bytes of each entry, 1 to 4,294,967,291.
 *   tableType  KAVO_TABLE_TYPE_BASIC or KAVO_TABLE_TYPE_FILTER.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_EXISTS     the id is in use, or was taken by another thread meanwhile; that table is untouched;
 *   KAVO_NO_MEMORY  the system refused the memory, or a single part of the table (its cells, or its value memory)
 *                   exceeds the machine's physical memory, or `size` what a table holds;
 *   KAVO_INVALID    `valueLen` or `tableType` is out of range;
 *   KAVO_FAILED     a lock reported an error.
 * On failure nothing of the new table remains.
 *
 * Threads: safe beside every other call. To use the table on another thread, hand the id over after this returned.
 */
int KavoInitHashTable(unsigned int tableId, unsigned int size, unsigned int valueLen, unsigned int tableType);

/*
 * Destroys a table and frees everything that it holds, values included: all of it is back when this returns. No lock is
 * held while a table is freed, so calls on other ids, creation and destruction included, do not wait for it.
 *
 * Returns KAVO_SUCCESS; KAVO_INVALID when the id is not in use; KAVO_FAILED when a lock reported an error.
 *
 * Threads: no other call on this id may be in progress. The id can be used again once this has returned. Tables that
 * are alive when the library is unloaded are destroyed then; no thread may be inside the library by that time.
 */
int KavoUninitHashTable(unsigned int tableId);

/* How a table moves its entries into a larger one when it is full. */
#define KAVO_REHASH_GRADUAL 1     /* A few entries with each insert: no insert pays for a whole table. For serving. */
#define KAVO_REHASH_WHOLE_TABLE 2 /* All at once, by every thread that inserts. The mode of a new table. */

/*
 * Chooses how a table grows. Nothing is moved by the call itself.
 *
 * With whole-table growth the inserts that meet a full table stop until everything was copied, which takes seconds for
 * tens of millions of entries; when it is over, every entry is found in one place again. With gradual growth an insert
 * of a new key copies a few entries more while a growth is under way, some microseconds; lookups may have to look into
 * two tables then. What concurrent calls may count on is the same.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID      `mode` is neither of the two, or the table id is not in use;
 *   KAVO_UNSUPPORTED  the table is of an unknown kind;
 *   KAVO_FAILED       a lock reported an error.
 *
 * Threads: before the first insert, or while no call that inserts is in progress on this id.
 */
int KavoSetRehashMode(unsigned int tableId, unsigned int mode);

/* KEYS AND VALUES
 *
 * Each entry has, beside its value, an export state, a 32-bit word that the caller never sees. The functions below say
 * what they write there. State 0 means changed since the last marking export, 1 exported, 2 exported only in full
 * exports.
 */

/*
 * Finds a key.
 *
 *   valuePtr  out: the address of the value bytes; null for a key that a filter table only counts.
 *   valueLen  out: the table's value length; keeps what it held when the address is null.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID      a pointer is null, the key is negative, the table id is not in use, or the key is absent (or is
 *                     only just being inserted);
 *   KAVO_UNSUPPORTED  the table is of an unknown kind;
 *   KAVO_FAILED       a lock reported an error.
 */
int KavoLookup(unsigned int tableId, long key, unsigned char** valuePtr, unsigned int* valueLen);

/*
 * Finds a key whose value the caller is about to change in place: as KavoLookup, and sets the entry's export state to
 * 0, so that the next export of changed entries includes it. Same arguments, same status codes.
 */
int KavoLookupForUpdate(unsigned int tableId, long key, unsigned char** valuePtr, unsigned int* valueLen);

/*
 * Overwrites the value of a key that is present, and sets its export state to 0.
 *
 *   valuePtr  in: the new value bytes. May be the key's own value address (then only the export state changes); must
 *             not overlap it otherwise.
 *   valueLen  must be the table's value length.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID      `valuePtr` is null, the key is negative, the table id is not in use, the length is not the
 *                     table's, or the key is absent or, in a filter table, only counted;
 *   KAVO_NO_MEMORY    the bytes could not be copied (the ranges overlap; the value is zeroed then);
 *   KAVO_UNSUPPORTED  the table is of an unknown kind;
 *   KAVO_FAILED       a lock reported an error.
 */
int KavoUpdate(unsigned int tableId, long key, unsigned char* valuePtr, unsigned int valueLen);

/*
 * Inserts a key that is absent. A key that is present keeps its value.
 *
 *   valuePtr     in: the value bytes, copied into the table. Null for a filter table's key that is only to be counted.
 *   valueLen     must be the table's value length; not looked at where `valuePtr` may be null and is.
 *   filterCount  filter tables: the count that a new key starts with. Not used by basic tables.
 *   state        the entry's export state, written as the caller names it: 2 stores state 0, 0 stores state 2, any
 *                other number is stored as it is.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID    the key is negative, the table id is not in use, `valuePtr` is null (basic tables), the length is
 *                   not the table's, or the key is present already, be it only counted;
 *   KAVO_NO_MEMORY  no memory for the entry or for the growth that it needed (the key is absent then, and may be
 *                   offered again at once), or the bytes could not be copied (the key is present with zero bytes);
 *   KAVO_FAILED     a wait for another thread passed its limit, no memory for a bucket's overflow map, or a lock
 *                   reported an error; the key is absent then, unless another thread inserted it;
 *   KAVO_UNSUPPORTED  the table is of an unknown kind.
 */
int KavoInsert(unsigned int tableId, long key, unsigned char* valuePtr, unsigned int valueLen, unsigned int filterCount,
               unsigned int state);

/*
 * Inserts a key, or overwrites its value if it is present; sets its export state to 0. Nothing is written to a key that
 * a filter table only counts, nor with a null `valuePtr`.
 *
 * Arguments as for KavoInsert; bytes that overlap the value they are to replace cannot be copied, as in KavoUpdate.
 * Returns KAVO_SUCCESS; KAVO_INVALID, KAVO_NO_MEMORY, KAVO_FAILED and KAVO_UNSUPPORTED as KavoInsert, but that a key
 * that is present is no failure.
 */
int KavoInsertOrUpdate(unsigned int tableId, long key, unsigned char* valuePtr, unsigned int valueLen,
                       unsigned int filterCount);

/*
 * Finds a key, or inserts it with a value of zero bytes: the call for training, where the caller then works on the
 * value in place. Neither value bytes nor export state are written.
 *
 *   valuePtr     out: the address of the value bytes; null for a key that a filter table only counts.
 *   valueLen     out: the table's value length; keeps what it held when the address is null.
 *   isFind       out: 0 when this call created the key with a value of zero bytes. 1 otherwise: the key was present, or
 *                its value was written beforehand (see VALUES BEFORE KEYS), or it is new and only counted.
 *   filterCount  filter tables: the occurrences that this call counts; 0 counts none and admits a new key at once. Not
 *                used by basic tables.
 *
 * Exactly one of the threads that offer one new key at once gets `isFind` 0; in a filter table at most one.
 *
 * CARE with `isFind` in filter tables: 1 does not mean that there is a value, nor that anybody has written it.
 *   - A key that this call created and only counted answers 1, with a null address.
 *   - A key that was counted before and is admitted by this call answers 1 as well, and its value bytes are zero.
 *     Nothing tells this call from later ones: a caller whose values do not start as zeros needs a mark of its own in
 *     them.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID    a pointer is null, the key is negative, or the table id is not in use;
 *   KAVO_NO_MEMORY  no memory for the entry or for the growth that it needed; the key is absent then. Or no memory for
 *                   the value of a counted key that was to be admitted: the occurrences are counted, and the next call
 *                   that counts tries again;
 *   KAVO_FAILED, KAVO_UNSUPPORTED  as for KavoInsert.
 */
int KavoLookupOrInsert(unsigned int tableId, long key, unsigned char** valuePtr, unsigned int* valueLen,
                       unsigned int* isFind, unsigned int filterCount);

/* FILTER TABLES
 *
 * A filter table gives a key a value only once the key was offered often enough. Until then it costs a small record
 * that counts its occurrences, and no value memory. A key is
 *
 *   absent    or
 *   counted   it has a count and no value: its address is null; or
 *   admitted  it has a value, and is treated as a basic table's key from then on, for the life of the table.
 *
 * How the functions on keys treat them, where that is not as in a basic table:
 *
 *                        absent                                counted
 *   KavoLookup           KAVO_INVALID                          KAVO_SUCCESS, null address
 *   KavoLookupForUpdate  KAVO_INVALID                          KAVO_SUCCESS, null address
 *   KavoUpdate           KAVO_INVALID                          KAVO_INVALID
 *   KavoInsert           with a value: admitted at once;       KAVO_INVALID
 *                        without: counted, whatever the count
 *   KavoInsertOrUpdate   as KavoInsert                         KAVO_SUCCESS; nothing is written or counted
 *   KavoLookupOrInsert,  admitted at once, with count 0        KAVO_SUCCESS, null address; nothing is counted
 *     filterCount 0
 *   KavoLookupOrInsert,  counted; admitted at once if n        n is added to the count; admitted, with zero bytes,
 *     filterCount n      occurrences are enough                once the count is enough
 *
 * A count is enough when it has reached the table's frequency, 100 unless set otherwise: at one occurrence a call, the
 * hundredth call admits. Counts end at 4,294,967,295 and never wrap. See KavoLookupOrInsert for what its `isFind` does
 * not say.
 */

/*
 * Sets the frequency of a filter table: the count at which a key is admitted. 0 and 1 both admit a key at its first
 * occurrence. A counted key is judged anew by the next call that counts an occurrence of it: lowering the frequency
 * admits no key by itself, and raising it takes no value away.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID  the table id is not in use, or the table is not a filter table;
 *   KAVO_FAILED   a lock reported an error.
 *
 * Threads: safe beside every other call; calls that run at the same time go by the old frequency or the new one.
 */
int KavoSetFilterFreq(unsigned int tableId, unsigned int freq);

/* MANY KEYS AT ONCE
 *
 * A key's cell and value lie anywhere in a large table, so a loop of single calls spends most of its time waiting for
 * memory, one key after the other. The functions below take an array of keys and ask for the memory of several of them
 * at once. Apart from the time, a batch is the loop of single calls in the order of the array:
 *
 *  - Keys may repeat. `num` may be 0: the call does nothing and succeeds. Arrays must not be null even then.
 *  - A batch is not atomic: other threads may see a part of it done, and their calls may take effect between its keys.
 *    What concurrent calls may count on (see THREADS) holds for each key by itself.
 *  - Before anything else all arguments are checked, all keys included: a call that is refused with KAVO_INVALID has
 *    done nothing. The log line for a negative key names the index of the first.
 *  - An absent key is no failure in a batch, and writes no log line.
 *  - Arrays are the caller's, are not kept, and must not overlap each other nor the values of the table. What is said
 *    to have `num` elements must have room for all of them.
 */

/*
 * Finds many keys.
 *
 *   keys       in: `num` keys.
 *   valuePtrs  out: `num` addresses: of the key's value bytes, or null for a key that is absent (or is only just being
 *              inserted) and for a key that a filter table only counts. Single calls tell the two apart.
 *   found      out: how many of the addresses are not null.
 *
 * The export states do not change. Takes no lock that KavoLookup does not take, and allocates nothing.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID      a pointer is null, a key is negative, or the table id is not in use; nothing was written;
 *   KAVO_UNSUPPORTED  the table is of an unknown kind; nothing was written;
 *   KAVO_FAILED       a lock reported an error; some of `valuePtrs` may have been written, `found` has not.
 */
int KavoBatchLookup(unsigned int tableId, const long* keys, unsigned long long num, unsigned char** valuePtrs,
                    unsigned long long* found);

/*
 * Copies the values of many keys out of the table: for callers that need them in one piece of memory.
 *
 *   keys        in: `num` keys.
 *   rows        out: `num` times `valueLen` bytes; row i, the value of `keys`[i], begins at byte i * `valueLen`.
 *   valueLen    must be the table's value length.
 *   defaultRow  in: `valueLen` bytes, the row of every key that is absent (or is only just being inserted) or that a
 *               filter table only counts. Null stands for zero bytes.
 *
 * Value bytes are read as by the caller itself: who writes a value meanwhile must be coordinated with (see THREADS).
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID      `keys` or `rows` is null, a key is negative, the table id is not in use, or the length is not the
 *                     table's; nothing was written;
 *   KAVO_UNSUPPORTED  the table is of an unknown kind; nothing was written;
 *   KAVO_FAILED       a lock reported an error; some of the rows may have been written.
 */
int KavoBatchGather(unsigned int tableId, const long* keys, unsigned long long num, unsigned char* rows,
                    unsigned int valueLen, const unsigned char* defaultRow);

/*
 * Finds or inserts many keys: as KavoLookupOrInsert for each. A key that stands in the array several times gets one
 * address; at most the first of them answers `isFind` 0, and in a filter table each counts.
 *
 *   keys         in: `num` keys.
 *   valuePtrs    out: `num` addresses; null for a key that a filter table only counts.
 *   isFind       out: `num` numbers, as KavoLookupOrInsert says.
 *   filterCount  filter tables: the occurrences that each element counts, as there. Not used by basic tables.
 *   done         out: how many keys, from the first on, were served. Written whatever the call returns, unless it is
 *                null: `num` after a success, 0 when the call was refused.
 *
 * A failure ends the call at the key at which it occurred, whose index is `*done`. The keys before it are served, and
 * their outputs written; this key is left as KavoLookupOrInsert leaves it with the same status; nothing has happened to
 * the keys behind it. A call with the rest of the arrays goes on from there.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID    a pointer is null, a key is negative, or the table id is not in use; nothing was inserted;
 *   KAVO_NO_MEMORY, KAVO_FAILED, KAVO_UNSUPPORTED  as KavoLookupOrInsert, for the key at index `*done`.
 */
int KavoBatchLookupOrInsert(unsigned int tableId, const long* keys, unsigned long long num, unsigned char** valuePtrs,
                            unsigned int* isFind, unsigned int filterCount, unsigned long long* done);

/*
 * As KavoBatchLookupOrInsert, with a number of occurrences for each key: for callers that have added up equal keys.
 *
 *   counts  in: `num` numbers, what `filterCount` is there: 0 counts none and admits a new key at once. Not used by
 *           basic tables, but not null.
 *
 * Same arguments otherwise, same status codes.
 */
int KavoBatchOffer(unsigned int tableId, const long* keys, unsigned long long num, unsigned char** valuePtrs,
                   unsigned int* isFind, const unsigned int* counts, unsigned long long* done);

/*
 * Inserts many keys, or overwrites their values; sets their export states to 0: as KavoInsertOrUpdate for each, with a
 * value. Of a key that stands in the array several times the last row stays.
 *
 *   keys         in: `num` keys.
 *   rows         in: `num` times `valueLen` bytes; row i, the value for `keys`[i], begins at byte i * `valueLen`.
 *   valueLen     must be the table's value length.
 *   filterCount  filter tables: the count that a new key starts with. Not used by basic tables.
 *   done         out: as in KavoBatchLookupOrInsert.
 *
 * Nothing is written to a key that a filter table only counts; it is served all the same. Failures are as in
 * KavoBatchLookupOrInsert.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID    `keys`, `rows` or `done` is null, a key is negative, the table id is not in use, or the length is
 *                   not the table's; nothing was inserted;
 *   KAVO_NO_MEMORY, KAVO_FAILED, KAVO_UNSUPPORTED  as KavoInsertOrUpdate, for the key at index `*done`.
 */
int KavoBatchInsertOrUpdate(unsigned int tableId, const long* keys, unsigned long long num, const unsigned char* rows,
                            unsigned int valueLen, unsigned int filterCount, unsigned long long* done);

/* VALUES BEFORE KEYS
 *
 * A table can be loaded without copying any value: the caller writes the values into the table's own value memory, and
 * then inserts the keys, which adopt them. For each table, in this order:
 *
 *   1. KavoInitHashTable, with `size` at least the number of values.
 *   2. KavoPrepareMemForValues, once, before any key is inserted.
 *   3. KavoGetMemForValue for the indexes 0, 1, 2 and so on, and write a value at each address.
 *   4. KavoLookupOrInsert for each key, with `filterCount` 0 in a filter table. A key that adopts a value answers
 *      `isFind` 1, as if it had been there.
 *
 * When one thread does step 4, the first to insert into this table, its i-th new key gets the value of index i. Of
 * several threads each starts at an index of its own, and no one can say which key gets which value.
 *
 * Rules
 *  - An index is handed to inserting threads from the moment that it is fetched. Finish writing all values, and let the
 *    inserting threads start after that.
 *  - A thread goes through the indexes once, around the end, and does not come back to one that it found not fetched
 *    yet, or taken. So fetch without gaps and before the first insert.
 *  - Only keys that KavoLookupOrInsert creates or admits adopt values. KavoInsert and KavoInsertOrUpdate copy theirs
 *    into other memory. A key for which no fetched value is left gets zero bytes, and `isFind` 0 if it is new.
 *  - A table may be converted after keys were inserted. They keep their values; the indexes whose memory they have (0,
 *    1, 2 and so on when one thread called KavoInsert or KavoInsertOrUpdate) are refused, and the next index is the
 *    first that a key adopts.
 */

/*
 * Converts a table's value memory, once and for ever.
 *
 *   count  out: the number of indexes: the `size` that the table was created with, or what it stood for. Also written
 *          when the table was converted before.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID      `count` is null, the table id is not in use, or the table was converted before;
 *   KAVO_NO_MEMORY    the table has no value memory to convert;
 *   KAVO_UNSUPPORTED  the table is of an unknown kind;
 *   KAVO_FAILED       a lock reported an error.
 *
 * Threads: no other call on this id may be in progress.
 */
int KavoPrepareMemForValues(unsigned int tableId, unsigned long long* count);

/*
 * Gives the memory of one value, zero-filled, and hands it to the keys that are inserted from now on.
 *
 *   index     0 to the count that KavoPrepareMemForValues gave, less one.
 *   valuePtr  out: the address for the value bytes, which becomes the address of the key that adopts them.
 *   valueLen  out: the table's value length.
 *
 * An index whose value no key has adopted yet gives the same memory again, as the caller left it.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID      a pointer is null, the table id is not in use, the index is out of range, or its value belongs to
 *                     a key already;
 *   KAVO_NO_MEMORY    the table was not converted;
 *   KAVO_UNSUPPORTED  the table is of an unknown kind;
 *   KAVO_FAILED       a lock reported an error.
 *
 * Threads: several may fetch at once, an index on one thread at a time.
 */
int KavoGetMemForValue(unsigned int tableId, unsigned long long index, unsigned char** valuePtr,
                       unsigned int* valueLen);

/* PARTITION MAP
 *
 * Which parameter server owns a key. A process installs one map, a list of n server ids (psIds) of its own choice, and
 * asks it for single keys or batches. Key k belongs to entry k mod n of the list. The map knows nothing of the tables.
 *
 * Keys are unsigned here, and any 64-bit value is one. They are not mixed: keys that agree modulo n all go to one
 * server, and what one server gets agrees modulo n, which for an even n crowds its table into a part of the buckets.
 * Hash keys that are not already well spread, with a one-to-one function, and use the hash as the key everywhere.
 *
 * Threads: every function is safe beside every other call. A query, a whole batch included, is answered by one map and
 * never sees one half installed or half removed. InitPartitionMap and UninitPartitionMap wait for the queries that have
 * begun, and later queries wait for them, so constant queries do not hold them up.
 */

/*
 * Installs the map.
 *
 *   partitionNum  a number by which the caller tells maps apart; not 0. It takes no part in the mapping.
 *   psNum         entries of the list, at least 1.
 *   psId          in: the `psNum` ids, in order; copied, so the array need not outlive the call. An id that stands in
 *                 the list several times gets as many shares of the keys.
 *
 * A map that is installed never changes; another one can be installed once UninitPartitionMap has removed it.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID    `partitionNum` or `psNum` is 0, or `psId` is null;
 *   KAVO_EXISTS     exactly this map is installed already: same number, same ids, same order (logged as a warning);
 *   KAVO_FAILED     another map is installed, or a lock reported an error;
 *   KAVO_NO_MEMORY  no memory for the list.
 * On failure the installed map, if there is one, is untouched.
 */
int InitPartitionMap(unsigned int partitionNum, unsigned int psNum, const unsigned int* psId);

/*
 * Removes the map. Queries that begin after that fail, until the next InitPartitionMap.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_UNSUPPORTED  no map is installed (logged as a warning);
 *   KAVO_FAILED       a lock reported an error.
 */
int UninitPartitionMap(void);

/*
 * Finds the server of one key. Takes the map's lock shared once and allocates nothing.
 *
 *   psId  out: the id of the key's server.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID  `psId` is null;
 *   KAVO_FAILED   no map is installed, or a lock reported an error.
 */
int QueryPartitionMapPsId(unsigned long long key, unsigned int* psId);

/*
 * Finds the servers of many keys: as QueryPartitionMapPsId for each, but the lock is taken once and all answers come
 * from one map.
 *
 *   keys   in: `num` keys.
 *   psIds  in: the address of a pointer to the caller's array for `num` ids; the pointer is not changed. Out: entry i
 *          of the array is the id of the server of `keys`[i].
 *   num    at least 1.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID  `keys`, `psIds` or the pointer that it points to is null, or `num` is 0;
 *   KAVO_FAILED   no map is installed, or a lock reported an error.
 */
int GetBatchPsIds(const unsigned long long* keys, unsigned int** psIds, unsigned int num);

/* EXPORT
 *
 * A table's entries are handed out in batches, each into an array of the caller's. Values are not copied: an element
 * points to the value bytes inside the table. Where an iteration stands is kept in a cursor, which the caller knows by
 * a pointer that points to nothing:
 *
 *   KavoHtBatchElement elements[1024];
 *   KavoHtBatchInfo batch = {elements, 1024, KAVO_EXPORT_ALL, 0};
 *   void* iter = NULL;
 *   long last = -1;
 *   do {
 *     unsigned int num = 0;
 *     if (KavoBatchGetNext(tableId, &batch, &num, &iter) != KAVO_SUCCESS) {
 *       break;
 *     }
 *     for (unsigned int i = num > 0 && elements[0].key == last; i < num; ++i) {
 *       Save(elements[i].key, elements[i].value, valueLen);
 *     }
 *     if (num > 0) {
 *       last = elements[num - 1].key;
 *     }
 *   } while (iter != NULL);
 *
 *  - An iteration begins with a null `iter`. A call that leaves it non-null has filled all of the elements, and there
 *    may be more; pass it back unchanged. A call that leaves it null has reached the end; its elements are the last.
 *    The array, its capacity and the mode may differ from call to call.
 *  - The last entry of a full batch is looked at again by the next call, and reported a second time, as its first
 *    element, if it still meets the mode. The example leaves the repeated element out. A marking export must not: an
 *    entry that it reports again was changed meanwhile, or has no value. With `eleNum` 1 there is no repetition, but
 * for the first batch of one after a full batch of several: it looks at that one's last entry again.
 *  - Apart from that each entry is reported once, in no particular order, and every key whose insert has completed is,
 *    if it meets the mode. Iterations between which nothing was inserted go over the entries in the same order.
 *  - That is while no new key is inserted, from the iteration's first call to its last. Beside inserts an iteration
 *    gives at least once: every key whose insert had completed when it began is reported, if it meets the mode, and
 *    again if a growth has moved it meanwhile; a key whose insert had not is reported or not. Lookups and updates may
 *    run at any time.
 *  - A cursor belongs to the table. It is freed when its iteration ends, and otherwise with the table: an iteration
 *    may be given up at any time without a call, and leaves some hundred bytes until then; and the table, should it
 *    grow, keeps the memory of its smaller forms while any cursor is open. What is not a cursor of the table, or not
 *    any more, is refused: no cursor of the process ever has the pointer of another.
 *  - One cursor is used by one thread at a time. Cursors do not affect each other, except that marking exports compete
 *    for the entries that they mark.
 *
 * Which entries an export takes depends on its mode and on the entry's export state (see KEYS AND VALUES). In a filter
 * table every mode takes all keys that have no value yet; for keys with a value, and in basic tables:
 *
 *   mode                           takes export state
 *   0  KAVO_EXPORT_ALL             any
 *   1  KAVO_EXPORT_MARKED          1
 *   2  KAVO_EXPORT_UNMARKED_MARK   0, and sets it to 1
 *   3  KAVO_EXPORT_UNMARKED        0
 *   any other number m             none in basic tables; m in filter tables
 *
 * So after a full export that marked (2), a further one finds what was changed since: KavoUpdate, KavoInsertOrUpdate
 * and KavoLookupForUpdate set the state back to 0. An entry is marked when it is put into the batch, so a caller that
 * fails to save a batch marked by 2 finds its entries with 1. Marking and the writing of values are not ordered: a
 * value whose writer is at work when the entry is marked counts as exported, so let writers finish first, or repeat
 * KavoLookupForUpdate after writing.
 */

#define KAVO_EXPORT_ALL 0
#define KAVO_EXPORT_MARKED 1
#define KAVO_EXPORT_UNMARKED_MARK 2
#define KAVO_EXPORT_UNMARKED 3

/* One exported entry. Padding is neither read nor written. */
typedef struct KavoHtBatchElement {
  long key;
  unsigned char* value; /* The value bytes, valid until the table is destroyed; null while a filter table's key has
                           none. */
  unsigned int count;   /* Filter tables: the key's occurrences. Not written for basic tables. */
} KavoHtBatchElement;

typedef struct KavoHtBatchInfo {
  KavoHtBatchElement* elements; /* In: where the batch goes. Not null. */
  unsigned int eleNum;          /* In: how many elements there are, and so the most entries that one call gives. */
  unsigned int exportMode;      /* In: KAVO_EXPORT_... */
  unsigned int tableType;       /* Out: KAVO_TABLE_TYPE_..., of the table. */
} KavoHtBatchInfo;

/*
 * Gives the number of a table's entries and its value length. The entries are counted by a walk over the table, which
 * takes as long as an export.
 *
 *   size          out: the number of entries.
 *   valueLen      out: the table's value length.
 *   admittedOnly  filter tables: count only keys that have a value. Not used by basic tables.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID      a pointer is null, or the table id is not in use;
 *   KAVO_UNSUPPORTED  the table is of an unknown kind;
 *   KAVO_FAILED       a lock reported an error.
 *
 * Threads: no insert of a new key may run meanwhile, or the number is approximate.
 */
int KavoGetHtSizeAndVl(unsigned int tableId, unsigned long long* size, unsigned int* valueLen, bool admittedOnly);

/*
 * Gives the next batch of an iteration, as said above.
 *
 *   batchInfo  in and out: the batch.
 *   realNum    out: how many elements were filled.
 *   iter       in and out: the cursor; null on input begins an iteration, null on output ends it.
 *
 * With `eleNum` 0 the call sets `*realNum` to 0, touches neither the table nor the cursor, and succeeds, whatever
 * `tableId` and `iter` are.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID      `batchInfo`, its `elements`, `realNum` or `iter` is null, the table id is not in use, or `*iter`
 *                     is not a cursor of this table;
 *   KAVO_NO_MEMORY    no memory for a cursor; `*iter` stays null;
 *   KAVO_UNSUPPORTED  the table is of an unknown kind;
 *   KAVO_FAILED       a lock reported an error; the elements that `*realNum` counts are valid, and the iteration can go
 *                     on with `*iter`.
 * On failure `tableType` and `*realNum` may have been written; nothing else has changed.
 */
int KavoBatchGetNext(unsigned int tableId, KavoHtBatchInfo* batchInfo, unsigned int* realNum, void** iter);

/* STATISTICS
 *
 * What a table holds and has done, for a host that watches its memory. Cheap enough to ask for every second beside full
 * load: no entry is looked at, and an insert waits for it at most while it needs further value memory, for a moment.
 *
 * The numbers are read one after the other while others change them: beside inserts they are approximate, and need not
 * agree with each other.
 */

/*
 * Bytes are those of the address space that is taken for the purpose; a part that was never touched costs no memory.
 * What is not listed is small. Fields will be added at the end only.
 *
 *   size                 in: sizeof(KavoTableStats), as the caller knows it. Out: how many bytes were filled.
 *   cellBytes            cells of the generations in use.
 *   leftCellBytes        cells of retired generations, those that growth has emptied and passed, which are not yet
 *                        given back to the system; further inserts of new keys do that bit by bit.
 *   valueBytes           values that keys have, with export state and padding. Of the memory that was reserved at
 *                        creation the used part is found by a search, which is exact unless more than 256 threads have
 *                        inserted, or prepared values were fetched with gaps.
 *   stockBytes           memory for values, and for the records of filter tables, that no key has yet.
 *   mapBytes             overflow maps of buckets whose keys outgrew their cells. Those of retired generations stay
 *                        until the table is destroyed.
 *   filterRecordBytes    filter tables: the records of all keys.
 *   generations          generations in use: the arrays of cells, each twice as large as the one before, in which
 *                        entries may lie. 1, or more while the table grows.
 *   growths              larger generations that were added since the table was created.
 *   maps                 overflow maps, as in mapBytes.
 *   movedEntries         entries that growths have copied since then; one that moved twice counts twice.
 *   backstopCompletions  how often, since then, gradual growth fell back on moving the whole rest of a generation in
 *                        one insert, because the steps of all others had not finished it in time.
 *   linesHeldBack        log lines that the bound has held back (see LOGGING), of the whole process, since load.
 */
typedef struct KavoTableStats {
  unsigned long long size;
  unsigned long long cellBytes;
  unsigned long long leftCellBytes;
  unsigned long long valueBytes;
  unsigned long long stockBytes;
  unsigned long long mapBytes;
  unsigned long long filterRecordBytes;
  unsigned long long generations;
  unsigned long long growths;
  unsigned long long maps;
  unsigned long long movedEntries;
  unsigned long long backstopCompletions;
  unsigned long long linesHeldBack;
} KavoTableStats;

/*
 * Gives a table's statistics.
 *
 *   stats  in: its `size`. Out: all fields that both sides know, the first `size` bytes; what lies behind them keeps
 *          what it held.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID      `stats` is null, its `size` is less than 104, or the table id is not in use;
 *   KAVO_UNSUPPORTED  the table is of an unknown kind;
 *   KAVO_FAILED       a lock reported an error.
 */
int KavoGetTableStats(unsigned int tableId, KavoTableStats* stats);

/* LOGGING
 *
 * By default log lines go to standard error, each in one write. Two environment variables are read once, at load:
 *
 *   KAVO_LOG_LEVEL  the least severe level written: debug, info, warn (the default) or error, which shows error and
 *                   event lines; off shows nothing.
 *   KAVO_LOG_RATE   the bound on each log statement of the code, because a serving host may miss a million keys a
 *                   second: N allows N lines a second (and 10 N at once); 0 lifts the bound. The default is 100 (1,000
 *                   at once). Log lines beyond the bound are counted. How many a statement has held back is
 *                   reported under its name: with the next log line of any statement, ten times a second at most;
 *                   when a sink is installed; and at unload.
 *
 * Every log line reads "[file:line]tid:thread,function(line) : message" and ends in "\r\n". Hosts may match on the
 * function and the message: they stay as they are. The numbers of lines change with the source. The catalogue of log
 * lines, call by call, is tests/interface/refusals.txt of the source.
 */

#define KAVO_LOG_LEVEL_DEBUG 0
#define KAVO_LOG_LEVEL_INFO 1
#define KAVO_LOG_LEVEL_WARN 2
#define KAVO_LOG_LEVEL_ERROR 3
#define KAVO_LOG_LEVEL_EVENT 4 /* Allocation failures. */

/* A host's own logger. Debug lines come on channel 0x1003D, all others on 0x100003D. */
typedef struct KavoLogSink {
  /* Whether lines of this level are wanted: 1 yes, anything else no. Asked before debug, info and warning lines only;
     error and event lines are always written. Null means yes for info and warning lines and no for debug lines. */
  int (*enabled)(void* context, unsigned int channel, int level);
  /* Takes one line: `format` with `arguments`, as for vprintf, line end included. Must not be null. */
  void (*write)(void* context, unsigned int channel, int level, const char* format, va_list arguments);
  /* Handed to both functions. */
  void* context;
} KavoLogSink;

/*
 * Sends all further log lines to the host's own logger, without any bound; null brings back the default. The struct is
 * copied. When this returns, no thread is inside the previous sink any more, and its context may be freed.
 *
 * The two functions are called on whatever thread has something to log, several at a time, at times with a lock of the
 * library held: they must not call into the library, nor throw, nor leave by a non-local jump.
 *
 * Returns KAVO_SUCCESS; KAVO_INVALID when `write` is null, which is logged and changes nothing.
 *
 * Threads: safe beside every other call.
 */
int KavoSetLogSink(const KavoLogSink* sink);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* KAVO_H */
