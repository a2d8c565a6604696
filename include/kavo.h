/*
 * Kavo: large in-memory hash tables inside a host process.
 *
 * A table maps a signed 64-bit key to a value of fixed length. Many threads read and write one table at once, without
 * a table-wide lock, and the table grows while they do. Values are never copied out: a lookup gives the address of
 * the value bytes inside the table.
 *
 * This header is the manual of libkavo_base.so: what is not said here is not promised. It compiles as C11 and as C++.
 *
 * CONVENTIONS
 *
 *  1. Status. Every table function returns a status code (below): 0 on success, negative on failure. Only the codes
 *     listed with a function are returned by it. No function throws; no function ends the process.
 *  2. Failures are also logged (see LOGGING): the layer that fails writes the cause, then the function writes one
 *     summary line. A failed argument check writes one line. A key that is absent is a failure in this sense.
 *  3. Keys lie between 0 and 2^63 - 1. A negative key is refused with KAVO_INVALID. A key's bucket is given by the
 *     low bits of its lowest 32 bits, and keys are not mixed further: keys that agree in those bits share a bucket and
 *     are slow, so hash keys that are not already well spread.
 *  4. Tables are named by an id of the caller's choice, any 32-bit value. Ids below 1024 are found with one array
 *     access; larger ids cost a shared lock and a hash lookup in every call.
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
 *    that is new becomes visible to other threads before KavoInsert or KavoInsertOrUpdate has copied its bytes: until
 *    then its value reads as zeros, or as partly copied.
 *
 *  What concurrent calls may count on, growth included:
 *
 *  - However many threads offer one new key at once, exactly one creates it, and all get the same address.
 *  - A lookup or update that starts after an insert of the key has returned finds the key.
 *  - A lookup that runs beside the first insert of its key finds it or answers KAVO_INVALID.
 *  - Lookups take no lock and wait for nobody, except for a reader-writer lock of the key's bucket in the rare bucket
 *    whose keys outgrew its cells. Inserts wait only for another thread's insert of the same key, for a bucket that
 *    is being moved to a larger table, or, when the table is full, for its growth, in which they help.
 *
 *  The library starts no threads; growth is done by the inserting threads. It may be loaded with dlopen; after dlclose
 *  it stays in the process until every thread has ended that inserted into a table whose id is 1024 or above. A thread
 *  that is inside a function must not be cancelled or killed, nor leave by a non-local jump.
 */
#ifndef KAVO_H
#define KAVO_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* STATUS CODES */

#define KAVO_SUCCESS 0       /* Done. */
#define KAVO_FAILED (-1)     /* An internal step could not be completed: a wait passed its limit, or a lock failed. */
#define KAVO_EXISTS (-2)     /* What was to be created exists already. */
#define KAVO_NO_MEMORY (-3)  /* Memory could not be obtained, or bytes could not be copied. */
#define KAVO_INVALID (-4)    /* A bad argument, a table id that is not in use, a key that is absent (or, for KavoInsert,
                                present), or a table of the wrong kind for the call. */
#define KAVO_UNSUPPORTED (-6) /* The table is of a kind that the call does not handle. */

/* TABLES */

#define KAVO_TABLE_TYPE_BASIC 0  /* Every inserted key gets a value at once. */
#define KAVO_TABLE_TYPE_FILTER 1 /* A key gets a value once it was offered often enough. Not available yet. */

/*
 * Creates a table under an id that is not in use.
 *
 *   tableId    the caller's name for the table.
 *   size       entries that the table is expected to hold; it grows beyond by itself. 0 means 2,097,152; 1 to 7 mean
 *              8. Cells for about twice as many entries and value memory for `size` entries are reserved at once, but
 *              cost no memory until they are used: a table for 10,000,000 entries is made in milliseconds.
 *   valueLen   value bytes of each entry, 1 to 4,294,967,291.
 *   tableType  KAVO_TABLE_TYPE_BASIC.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_EXISTS     the id is in use, or was taken by another thread meanwhile; that table is untouched;
 *   KAVO_NO_MEMORY  the system refused the memory, or a single part of the table (its cells, or its value memory)
 *                   exceeds the machine's physical memory;
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

/* KEYS AND VALUES
 *
 * Each entry has, beside its value, an export state, a 32-bit word that the caller never sees. The functions below say
 * what they write there. State 0 means changed since the last marking export, 1 exported, 2 exported only in full
 * exports.
 */

/*
 * Finds a key.
 *
 *   valuePtr  out: the address of the value bytes.
 *   valueLen  out: the table's value length.
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
 *                     table's, or the key is absent;
 *   KAVO_NO_MEMORY    the bytes could not be copied (the ranges overlap; the value is zeroed then);
 *   KAVO_UNSUPPORTED  the table is of an unknown kind;
 *   KAVO_FAILED       a lock reported an error.
 */
int KavoUpdate(unsigned int tableId, long key, unsigned char* valuePtr, unsigned int valueLen);

/*
 * Inserts a key that is absent. A key that is present keeps its value.
 *
 *   valuePtr     in: the value bytes, copied into the table.
 *   valueLen     must be the table's value length.
 *   filterCount  not used by basic tables.
 *   state        the entry's export state, written as the caller names it: 2 stores state 0, 0 stores state 2, any
 *                other number is stored as it is.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID    the key is negative, the table id is not in use, `valuePtr` is null, the length is not the table's,
 *                   or the key is present already;
 *   KAVO_NO_MEMORY  no memory for the entry or for the growth that it needed (the key is absent then, and may be
 *                   offered again at once), or the bytes could not be copied (the key is present with zero bytes);
 *   KAVO_FAILED     a wait for another thread passed its limit, no memory for a bucket's overflow map, or a lock
 *                   reported an error; the key is absent then, unless another thread inserted it;
 *   KAVO_UNSUPPORTED  the table is of an unknown kind.
 */
int KavoInsert(unsigned int tableId, long key, unsigned char* valuePtr, unsigned int valueLen, unsigned int filterCount,
               unsigned int state);

/*
 * Inserts a key, or overwrites its value if it is present; sets its export state to 0.
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
 *   valuePtr     out: the address of the value bytes.
 *   valueLen     out: the table's value length.
 *   isFind       out: 1 when the key was present, 0 when this call created it (its value bytes are zero).
 *   filterCount  not used by basic tables.
 *
 * Exactly one of the threads that offer one new key at once gets `isFind` 0.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID    a pointer is null, the key is negative, or the table id is not in use;
 *   KAVO_NO_MEMORY  no memory for the entry or for the growth that it needed; the key is absent then;
 *   KAVO_FAILED, KAVO_UNSUPPORTED  as for KavoInsert.
 */
int KavoLookupOrInsert(unsigned int tableId, long key, unsigned char** valuePtr, unsigned int* valueLen,
                       unsigned int* isFind, unsigned int filterCount);

/* LOGGING
 *
 * By default lines go to standard error, each in one write. Two environment variables are read once, at load:
 *
 *   KAVO_LOG_LEVEL  the least severe level written: debug, info, warn (the default) or error, which shows error and
 *                   event lines; off shows nothing.
 *   KAVO_LOG_RATE   the bound on each log statement of the code, because a serving host may miss a million keys a
 *                   second: N allows N lines a second (and 10 N at once); 0 lifts the bound. The default is 100 (1,000
 *                   at once). Lines beyond the bound are counted, and one line says how many were held back.
 *
 * Every line reads "[file:line]tid:thread,function(line) : message" and ends in "\r\n".
 */

#define KAVO_LOG_LEVEL_DEBUG 0
#define KAVO_LOG_LEVEL_INFO 1
#define KAVO_LOG_LEVEL_WARN 2
#define KAVO_LOG_LEVEL_ERROR 3
#define KAVO_LOG_LEVEL_EVENT 4 /* Allocation failures. */

/* A host's own logger. Error, event, warning and info lines come on channel 0x100003D, debug lines on 0x1003D. */
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
 * Sends all further lines to the host's own logger, without any bound; null brings back the default. The struct is
 * copied. When this returns, no thread is inside the previous sink any more, and its context may be freed.
 *
 * The two functions are called on whatever thread has something to log, several at a time, at times with a lock of the
 * library held: they must not call into the library, nor throw, nor leave by a non-local jump.
 *
 * Returns KAVO_SUCCESS; KAVO_INVALID when `write` is null, and then logs a line and changes nothing.
 *
 * Threads: safe beside every other call.
 */
int KavoSetLogSink(const KavoLogSink* sink);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* KAVO_H */
