/*
 * Kavo embeddings: rows of floats that start somewhere, learn, are pooled, admitted, saved and brought back.
 *
 * This header is the manual of libkavo_embedding.so, which stands on libkavo_base.so (kavo.h) and uses its exported
 * functions only: what is not said here is not promised. It compiles as C11 and as C++.
 *
 * CONTENTS
 *
 *   CONVENTIONS, THREADS                what holds for every call
 *   STATUS CODES                        and the text of a failure
 *   OPTIONS                             what an embedding is made of
 *   CREATION                            KavoEmbeddingCreate, KavoEmbeddingDestroy, KavoEmbeddingGetOptions
 *   ROWS                                KavoEmbeddingLookup, KavoEmbeddingForward, KavoEmbeddingBackward
 *   BAGS                                KavoEmbeddingLookupBags, KavoEmbeddingForwardBags, KavoEmbeddingBackwardBags
 *   RATES, ROWS WITH STATE, ALL KEYS    KavoEmbeddingSetRates, KavoEmbeddingGetRows, KavoEmbeddingSetRows,
 *                                       KavoEmbeddingNextKeys
 *   STATISTICS                          KavoEmbeddingGetStats
 *   OWNERS                              KavoOwners
 *   SNAPSHOTS                           KavoSnapshotBegin, KavoSnapshotIdentity, KavoSnapshotJoin, KavoSnapshotPart,
 *                                       KavoSnapshotCommit, KavoSnapshotAbort, KavoSnapshotSave, KavoSnapshotFind,
 *                                       KavoSnapshotReadBlob, KavoSnapshotLoad, KavoSnapshotUpdate
 *
 * CONVENTIONS
 *
 *  1. Status. Every function returns 0 or a negative code, only those listed with it. A failure leaves a text for the
 *     thread that saw it (KavoEmbeddingLastError), which names what is wrong; it is not logged. No function throws.
 *  2. All arguments are checked first, keys, offsets and floats of options included: a call that is refused with
 *     KAVO_INVALID has done nothing. `num` 0 is fine, and an array of no elements may be null.
 *  3. Keys are any 64-bit integers, negative ones included; they need not be spread. Keys may repeat in an array. A
 *     call takes at most 4,294,967,295 keys.
 *  4. Rows are contiguous floats, row-major: row i of `dim` floats begins at float i * dim. Arrays are the caller's,
 *     are not kept, must not overlap each other, and need no alignment beyond their type's.
 *  5. Memory. What an embedding needs is had before the first row changes. A call that answers KAVO_NO_MEMORY has
 *     trained no row; forward may have created some, which stand with their starts. Working memory of forward and
 *     backward calls is kept for the next ones until the embedding is destroyed: 16 bytes for each key of the largest
 *     batch of each thread that calls forward (of 61 threads at most), and some 40 for each of as many backward calls,
 *     up to 8, as have been at work at once.
 *  6. Structs begin with their own size, sizeof as the caller knows it; fields will be added at the end only. A size
 *     smaller than the first version of the struct is refused. Fields that a caller does not know stand for their 0.
 *
 * THREADS
 *
 *  Every call may run beside every other, on one embedding and on several, but for the quiet ones: beside
 *  KavoEmbeddingDestroy, and beside KavoSnapshotLoad into the same embedding, no other call on it may be in progress.
 *  What concurrent calls may count on:
 *
 *  - A reader gets a whole row, the floats of one moment: never a mixture of two updates. Readers write to no line of
 *    memory that they share. An update of a row is never lost to another one.
 *  - A new row is seen with its start, never as zeros. A key exists once, weights and state together.
 *  - With one caller at a time the bytes of all rows depend on the calls only, not on the option `threads`, for one
 *    build of the library on one kind of processor.
 *  - A call that may use several threads uses those of the embedding, which are started when they are first needed.
 *    In a child of fork, calls work on the caller's thread; at the fork no call on the embedding is in progress.
 */
#ifndef KAVO_EMBEDDING_H
#define KAVO_EMBEDDING_H

#include "kavo.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* STATUS CODES
 *
 * Those of kavo.h, and:
 */
#define KAVO_IO_ERROR (-16) /* A file or folder could not be read or written; the text ends with the system's. */
#define KAVO_REFUSED_FILE                                                                                       \
  (-17)                 /* A file is not what it should be: damaged, foreign, newer, incomplete, or it does not \
                           fit the embedding. The text names file and cause. */
#define KAVO_BUSY (-18) /* A save of that folder, or a save, load or update of the embedding, is under way. */

/*
 * The text of the last failure of a function of this header on the calling thread; empty when there was none. It stays
 * until the next failure on this thread, and ends with it.
 */
const char* KavoEmbeddingLastError(void);

/* OPTIONS */

/*
 * How a row learns. g is the summed gradient of the row in one call, times the call's scale, plus weightDecay times the
 * weights; w the weights; lr the learning rate; t the number of the call. All elementwise. Names and formulas are those
 * of PyTorch's optim.SGD, optim.Adagrad and optim.SparseAdam on sparse gradients, without momentum and without decay
 * of the rate.
 *
 *   NONE              serving: no state, backward is refused. Takes the weights of any snapshot.
 *   SGD               w -= lr g
 *   ADAGRAD           s += g g; w -= lr g / (sqrt(s) + eps)                  s starts at initialAccumulator
 *   ROWWISE_ADAGRAD   the same with one s a row: s += mean of g g
 *   ADAM              m = beta1 m + (1 - beta1) g; v = beta2 v + (1 - beta2) g g;
 *                     w -= lr sqrt(1 - beta2^t) / (1 - beta1^t) m / (sqrt(v) + eps)      rows without gradient: nothing
 *   FTRL              FTRL-proximal (McMahan et al., "Ad Click Prediction: a View from the Trenches", 2013):
 *                     d = (sqrt(n + g g) - sqrt(n)) / lr; z += g - d w; n += g g;
 *                     w = 0 if |z| <= l1, else (sign(z) l1 - z) / ((ftrlBeta + sqrt(n)) / lr + l2)
 *                     n starts at initialAccumulator, and z so that w is the start
 */
#define KAVO_OPTIMISER_NONE 0
#define KAVO_OPTIMISER_SGD 1
#define KAVO_OPTIMISER_ADAGRAD 2
#define KAVO_OPTIMISER_ROWWISE_ADAGRAD 3
#define KAVO_OPTIMISER_ADAM 4
#define KAVO_OPTIMISER_FTRL 5

/* Where a row starts. Each coordinate is a pure function of seed, key and coordinate: the same on every server, with
 * any number of threads, and known for a key that has no row. */
#define KAVO_START_ZEROS 0
#define KAVO_START_CONSTANT 1 /* startA */
#define KAVO_START_UNIFORM 2  /* from startA, included, to startB, excluded */
#define KAVO_START_NORMAL 3   /* mean startA, deviation startB, no further than two deviations from the mean */

typedef struct KavoRates {
  unsigned long long size; /* sizeof(KavoRates) */
  double learningRate;     /* above 0; FTRL: its alpha */
  double weightDecay;      /* 0 or above */
  double eps;              /* Adagrads: PyTorch's 1e-10; Adam: 1e-8; 0 or above */
  double beta1;            /* Adam: 0.9; from 0, below 1 */
  double beta2;            /* Adam: 0.999; from 0, below 1 */
  double ftrlBeta;         /* 0 or above */
  double l1;               /* FTRL: 0 or above */
  double l2;               /* FTRL: 0 or above */
} KavoRates;

typedef struct KavoEmbeddingOptions {
  unsigned long long size;     /* sizeof(KavoEmbeddingOptions) */
  unsigned int dim;            /* floats a row, 1 to 65,536 */
  unsigned int optimiser;      /* KAVO_OPTIMISER_... */
  unsigned int initialiser;    /* KAVO_START_... */
  float startA;                /* see there */
  float startB;                /* see there */
  float initialAccumulator;    /* Adagrads and FTRL: 0 or above */
  unsigned long long seed;     /* of the starts */
  unsigned long long expected; /* rows to make room for; it grows beyond by itself; at most 4,294,967,294 */
  unsigned int admission;      /* a key gets a row at its N-th occurrence; 0 and 1: at its first */
  unsigned int counts;         /* 1: rows keep how often they were offered, 4 bytes a row; 0: not */
  unsigned int growth;         /* KAVO_REHASH_WHOLE_TABLE, for training, or KAVO_REHASH_GRADUAL, for serving */
  unsigned int threads; /* most threads that one call may use: 1 the caller's only, 0 as many as cores; <= 1024 */
  KavoRates rates;
} KavoEmbeddingOptions;

/*
 * Fills options with what PyTorch's optimiser of that name has by default (FTRL: learning rate 0.1, ftrlBeta 1), starts
 * uniform in [-1/sqrt(dim), 1/sqrt(dim)), seed 1, room for 1,000,000 rows, no admission, no counts, whole-table growth,
 * as many threads as cores. `options->size` is set to `size`, which the caller gives as sizeof(KavoEmbeddingOptions).
 *
 * Returns KAVO_SUCCESS; KAVO_INVALID when a pointer is null, or size, dim or optimiser is none that is described here.
 */
int KavoEmbeddingDefaults(KavoEmbeddingOptions* options, unsigned long long size, unsigned int dim,
                          unsigned int optimiser);

/* CREATION */

typedef struct KavoEmbedding KavoEmbedding;

/*
 * Makes an embedding. Its rows are in a table of the base, and in a second one once the first negative key comes: ids
 * are taken from 4,294,967,295 downwards, past those in use.
 *
 *   options    in: copied.
 *   embedding  out: the handle; not written on failure.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID    a pointer is null, or an option is out of range; the text says which;
 *   KAVO_NO_MEMORY  as KavoInitHashTable;
 *   KAVO_FAILED     a lock reported an error.
 */
int KavoEmbeddingCreate(const KavoEmbeddingOptions* options, KavoEmbedding** embedding);

/* Destroys an embedding and its tables, and ends its threads. Null is fine. Quiet. Returns KAVO_SUCCESS, or KAVO_FAILED
 * when a lock reported an error. */
int KavoEmbeddingDestroy(KavoEmbedding* embedding);

/* Gives the options as they are now: those of the creation, rates as set last, and seed and initialiser of a snapshot
 * that was loaded. In: `options->size`. Returns KAVO_SUCCESS; KAVO_INVALID; KAVO_FAILED when a lock reported an error.
 */
int KavoEmbeddingGetOptions(const KavoEmbedding* embedding, KavoEmbeddingOptions* options);

/* ROWS
 *
 * A key is absent, or counted (admission above 1: it has been offered, but not often enough), or has a row.
 */

/* What lookup gives for a key without a row. */
#define KAVO_ABSENT_ZEROS 0
#define KAVO_ABSENT_ROW 1   /* `absentRow` */
#define KAVO_ABSENT_START 2 /* where the key's row would start */

/*
 * Copies rows out, for serving: creates and counts nothing.
 *
 *   keys       in: `num` keys.
 *   absent     KAVO_ABSENT_...
 *   absentRow  in: `dim` floats with KAVO_ABSENT_ROW; not looked at otherwise.
 *   rows       out: `num` rows of `dim` floats.
 *   found      out: `num` bytes, 1 for a key that has a row, else 0; or null.
 *
 * Returns KAVO_SUCCESS; KAVO_INVALID; KAVO_NO_MEMORY (for the call's own work); KAVO_FAILED when a lock reported an
 * error, `rows` and `found` may have been written in part then.
 */
int KavoEmbeddingLookup(const KavoEmbedding* embedding, const long* keys, unsigned long long num, unsigned int absent,
                        const float* absentRow, float* rows, unsigned char* found);

/*
 * Creates what is absent, and copies rows out, for training. A key below its admission has its occurrences counted, and
 * gets its start and no row. Occurrences count in the order of the array, so a key that stands in it often enough has a
 * row from there on; what is copied is the same, since a new row is its start.
 *
 *   keys         in: `num` keys.
 *   occurrences  in: `num` counts, each 1 or above: how often the key stands for; null: once each. For callers that
 *                fold equal keys before the call.
 *   rows         out: `num` rows of `dim` floats.
 *   withoutRow   out: how many of the `num` were served their start, because the key had no row at its turn; or null.
 *
 * Returns KAVO_SUCCESS; KAVO_INVALID; KAVO_NO_MEMORY, KAVO_FAILED as KavoBatchLookupOrInsert: some of the keys may have
 * been created or counted, and `rows` is not complete.
 */
int KavoEmbeddingForward(KavoEmbedding* embedding, const long* keys, unsigned long long num,
                         const unsigned int* occurrences, float* rows, unsigned long long* withoutRow);

/*
 * Trains the rows of a batch. Gradients of equal keys are added in the order of the array, then the optimiser takes one
 * step for each distinct key. Keys without a row are passed over. The call is one step: it takes its number when it
 * begins, from 1 on, also with `num` 0; one that is refused takes none. A logical batch is one call.
 *
 *   keys        in: `num` keys.
 *   gradients   in: `num` rows of `dim` floats.
 *   scale       the sums are multiplied by it first; 1 for none.
 *   passedOver  out: how many of the `num` keys had no row; or null.
 *
 * Returns KAVO_SUCCESS; KAVO_INVALID (also for the optimiser none); KAVO_NO_MEMORY, and then no row has changed;
 * KAVO_FAILED when a lock reported an error.
 */
int KavoEmbeddingBackward(KavoEmbedding* embedding, const long* keys, unsigned long long num, const float* gradients,
                          float scale, unsigned long long* passedOver);

/* BAGS
 *
 * Sums or means of rows, with the meaning of PyTorch's nn.EmbeddingBag: bag b has the keys from offsets[b] to
 * offsets[b + 1]. An empty bag is zeros.
 */
#define KAVO_POOL_SUM 0
#define KAVO_POOL_MEAN 1

typedef struct KavoBags {
  unsigned long long size;           /* sizeof(KavoBags) */
  unsigned long long num;            /* of bags */
  const unsigned long long* offsets; /* num + 1 of them: the first 0, the last the number of keys, never falling */
  const float* weights;              /* one for each key, with KAVO_POOL_SUM only; or null */
  unsigned int pool;                 /* KAVO_POOL_... */
  unsigned int hasPadding;           /* 1: `padding` is a key that has no row, count, gradient or share in a mean */
  long padding;
} KavoBags;

/* As KavoEmbeddingLookup. `pooled`: out, a row of `dim` floats for each bag. */
int KavoEmbeddingLookupBags(const KavoEmbedding* embedding, const long* keys, unsigned long long num,
                            const KavoBags* bags, unsigned int absent, const float* absentRow, float* pooled);

/* As KavoEmbeddingForward, each key counted once. */
int KavoEmbeddingForwardBags(KavoEmbedding* embedding, const long* keys, unsigned long long num, const KavoBags* bags,
                             float* pooled, unsigned long long* withoutRow);

/*
 * As KavoEmbeddingBackward.
 *
 *   gradients        in: a row of `dim` floats for each bag.
 *   weightGradients  out: `num` floats, the gradients of `bags->weights`, from the rows as they are before the call's
 *                    own step (a key without a row counts as its start); times `scale`. Null when not wanted; must be
 *                    null without weights.
 */
int KavoEmbeddingBackwardBags(KavoEmbedding* embedding, const long* keys, unsigned long long num, const KavoBags* bags,
                              const float* gradients, float scale, float* weightGradients,
                              unsigned long long* passedOver);

/* RATES, ROWS WITH STATE, ALL KEYS */

/* Rates from the next step on: steps that have begun keep theirs. Ranges are those of the options, of the rates as
 * floats. Returns KAVO_SUCCESS; KAVO_INVALID; KAVO_FAILED when a lock reported an error. */
int KavoEmbeddingSetRates(KavoEmbedding* embedding, const KavoRates* rates);

/*
 * Floats a row with its state: the weights, then the state: ADAGRAD s (dim); ROWWISE_ADAGRAD s (1); ADAM m, v (dim
 * each); FTRL z, n (dim each). 0 for a null handle.
 */
unsigned long long KavoEmbeddingRowFloats(const KavoEmbedding* embedding);

/*
 * Copies rows with their state out. Of a key without a row nothing is written.
 *
 *   rows   out: `num` rows of KavoEmbeddingRowFloats floats.
 *   steps  out: `num` numbers of the step that trained the row last (created or set it, if that came later); or null.
 *   found  out: `num` bytes, 1 for a key that has a row, else 0; or null.
 *
 * Statuses of KavoEmbeddingLookup.
 */
int KavoEmbeddingGetRows(const KavoEmbedding* embedding, const long* keys, unsigned long long num, float* rows,
                         unsigned long long* steps, unsigned char* found);

/*
 * Creates or overwrites rows with their state, whatever the admission. Of a key that repeats the last row stays.
 *
 * Returns KAVO_SUCCESS; KAVO_INVALID; KAVO_NO_MEMORY, KAVO_FAILED: some of the rows may have been set, each whole.
 */
int KavoEmbeddingSetRows(KavoEmbedding* embedding, const long* keys, unsigned long long num, const float* rows);

/*
 * The keys that have rows, in batches, in no particular order. A walk begins with a null `*cursor`; a call that leaves
 * it null has reached the end. Each key that has its row before the first call, and keeps it, is given at least once;
 * beside calls that create rows some keys may be given twice. A walk may be given up at any time: its cursor is freed
 * with the embedding, and until then the memory of cells that growth has passed is not given back. A failure, but for
 * a refusal, ends it, and leaves `*cursor` null.
 *
 *   keys  out: room for `capacity` keys, at least 1.
 *   num   out: how many were given.
 *
 * Returns KAVO_SUCCESS; KAVO_INVALID (also for a cursor that is no walk of this embedding); KAVO_NO_MEMORY;
 * KAVO_FAILED when a lock reported an error.
 */
int KavoEmbeddingNextKeys(KavoEmbedding* embedding, void** cursor, long* keys, unsigned long long capacity,
                          unsigned long long* num);

/* STATISTICS */

typedef struct KavoEmbeddingStats {
  unsigned long long size;      /* in: sizeof(KavoEmbeddingStats); out: bytes filled */
  unsigned long long rows;      /* keys that have a row */
  unsigned long long counted;   /* keys that are only counted */
  unsigned long long forgotten; /* rows that were forgotten and not yet reclaimed */
  unsigned long long steps;     /* steps taken */
  unsigned long long rowBytes;  /* value bytes of a row: floats with state, head and count */
  KavoTableStats table;         /* the base's ledger, summed over the embedding's tables; its `size` stays 0 */
} KavoEmbeddingStats;

/* Beside other calls approximate. With admission, `counted` costs a walk over the keys. Returns KAVO_SUCCESS;
 * KAVO_INVALID; KAVO_FAILED when a lock reported an error. */
int KavoEmbeddingGetStats(const KavoEmbedding* embedding, KavoEmbeddingStats* stats);

/* OWNERS */

/*
 * Which of n servers owns a key: (m >> 32) mod n, m being the mixed key. The base's partition map over the ids 0 to
 * n - 1 answers the same when it is asked with m >> 32.
 *
 *   n       servers, at least 1.
 *   owners  out: `num` numbers from 0 to n - 1.
 *
 * Returns KAVO_SUCCESS or KAVO_INVALID.
 */
int KavoOwners(const long* keys, unsigned long long num, unsigned int n, unsigned int* owners);

/* SNAPSHOTS
 *
 * A snapshot is what a model was at one moment: any number of named embeddings and tables of the base, and one blob of
 * the caller's (its position in a log, say, or dense weights). Snapshots stand in a folder, each as one manifest and
 * one file for each part; how they look is in docs/snapshot-format.md.
 *
 *  - A CHAIN is a full snapshot and the increments that follow it. An increment holds the rows created, trained or set
 *    since the snapshot before it was begun, and the keys that were forgotten; full plus increments is the embedding.
 *  - A save is begin, part, commit, or the one call over them. Each part is written by one process, the shard of its
 *    own rows; commit makes all of them visible at once. A crash at any moment of a save leaves the snapshots that were
 *    there before, or those and the new one, whole. A failed save loses nothing: the next one has what it would have.
 *  - EMBEDDINGS are saved beside every call on them. A row is whole in the file, and every key whose creation had
 *    completed before its part was begun is in it, once. An increment may hold rows again that the snapshot before it
 *    has as they are: those created or set after the last step before that one was begun.
 *  - TABLES of the base are saved while nobody inserts or writes values, from the part until commit has returned. An
 *    increment takes the entries whose export state is 0; commit marks them. The states are those of the table: saved
 *    to two folders, its entries go to the increments of one or the other. Save a table to one folder.
 *  - Any number of shards: a snapshot of n parts is loaded into shard r of m, for any n and m; an increment of m parts
 *    may follow a full of n. Owners of keys are those of KavoOwners. (Tables of the base: their keys stand for mixed
 *    ones.)
 *
 *  Increments have no count of a row that was offered since, but neither trained nor set: after loading it is the count
 *  of the last snapshot that has the row.
 *
 *  A host that sets a limit on the size of files ignores SIGXFSZ, or the system ends it where a file would pass the
 *  limit.
 *
 * Threads: a KavoSave is used by one thread at a time. One save is under way in a folder at a time, whoever makes it.
 * What a part was written of is not destroyed before the save is committed or given up. A save is that of the process
 * that made it: in a child of fork, calls on it answer KAVO_INVALID and touch no file; commit or abort frees its memory
 * there. A child that was forked during a save keeps the folder busy if its parent dies, until it ends or calls exec.
 */
#define KAVO_SNAPSHOT_FULL 0
#define KAVO_SNAPSHOT_INCREMENT 1

/* Something to save or to load into: an embedding, or, where that is null, a table of the base. */
typedef struct KavoSnapshotItem {
  unsigned long long size; /* sizeof(KavoSnapshotItem) */
  const char* name;        /* 1 to 255 bytes; no two of a snapshot are the same */
  KavoEmbedding* embedding;
  unsigned int tableId;
} KavoSnapshotItem;

typedef struct KavoSaveOptions {
  unsigned long long size; /* sizeof(KavoSaveOptions) */
  unsigned int kind;       /* KAVO_SNAPSHOT_... */
  unsigned int parts;      /* n, 1 to 65,536 */
  unsigned int keep;       /* chains kept after a commit, the new one counted; 0: all. 2 is a good number */
  unsigned int compress;   /* 0: no; 1 to 19: zstd at that level */
} KavoSaveOptions;

/* How far a call is, in bytes, and in all as far as is known. Called on the caller's thread or on one of the
 * embedding's, one at a time; must not call into the library. Any answer but 0 ends the call with KAVO_FAILED,
 * and is the last. */
typedef int (*KavoProgress)(void* context, unsigned long long done, unsigned long long total);

typedef struct KavoSave KavoSave;

/*
 * Begins a save: takes the folder's lock (released by commit, abort, or the end of the process) and the next number,
 * and clears away what saves left that were never committed. The folder is made if it is not there; its parent must be.
 *
 * Returns KAVO_SUCCESS; KAVO_INVALID (also for an increment in a folder without a snapshot); KAVO_BUSY;
 * KAVO_IO_ERROR, also when the system cannot lock the folder; KAVO_REFUSED_FILE when the manifest that an increment
 * would follow is damaged; KAVO_NO_MEMORY.
 */
int KavoSnapshotBegin(const char* directory, const KavoSaveOptions* options, KavoSave** save);

/*
 * What another process needs to write a part of this save: it calls KavoSnapshotJoin with these. `number` counts a
 * folder's snapshots from 1 on; `id` is no other save's. A part that is written after the save was given up harms no
 * other save; the next save deletes it.
 *
 * Identity returns KAVO_SUCCESS or KAVO_INVALID; Join the statuses of KavoSnapshotBegin but KAVO_BUSY.
 */
int KavoSnapshotIdentity(const KavoSave* save, unsigned long long* number, unsigned long long* id);
int KavoSnapshotJoin(const char* directory, const KavoSaveOptions* options, unsigned long long number,
                     unsigned long long id, KavoSave** save);

/*
 * Writes one part, from 0 to n - 1, and brings it to the disk.
 *
 *   items     in: what to save: the same names, kinds and options in every part.
 *   progress  or null; `context` is handed to it.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID    an argument; or an increment of an embedding that was not in the snapshot before it (by this
 *                   handle, or loaded into it): save a full one;
 *   KAVO_BUSY       the embedding is in another save, or part of one, or is being loaded;
 *   KAVO_IO_ERROR, KAVO_NO_MEMORY, KAVO_FAILED (a lock reported an error, or `progress` ended the call).
 * After a failure the part can be written again, or the save given up.
 */
int KavoSnapshotPart(KavoSave* save, unsigned int part, const KavoSnapshotItem* items, unsigned int num,
                     KavoProgress progress, void* context);

/*
 * Makes the snapshot visible: checks that all n parts are there and agree, brings manifest and folder to the disk, and
 * deletes chains that are not kept. Ends the save: `save` is no handle any more, whatever the call returns. In a
 * process that joined: after the process that began has committed; `blob` is not looked at there.
 *
 *   blob, blobBytes  in: the caller's bytes; null and 0 for none.
 *
 * Returns KAVO_SUCCESS (also when old files could not be deleted); KAVO_INVALID; KAVO_REFUSED_FILE when a part is
 * missing or is not of this save; KAVO_IO_ERROR; KAVO_NO_MEMORY. On failure the snapshot does not exist; but where the
 * disk lets it be neither completed nor taken back, it may, whole.
 */
int KavoSnapshotCommit(KavoSave* save, const void* blob, unsigned long long blobBytes);

/* Gives a save up: `save` is no handle any more. Null is fine. Returns KAVO_SUCCESS, or KAVO_INVALID in a child of the
 * process that made it. */
int KavoSnapshotAbort(KavoSave* save);

/* Begin, one part, commit. `number`: out, of the snapshot, or null. Statuses of all three. */
int KavoSnapshotSave(const char* directory, const KavoSaveOptions* options, const KavoSnapshotItem* items,
                     unsigned int num, const void* blob, unsigned long long blobBytes, KavoProgress progress,
                     void* context, unsigned long long* number);

/* What a snapshot is. */
typedef struct KavoSnapshotInfo {
  unsigned long long size;   /* in: sizeof(KavoSnapshotInfo); out: bytes filled */
  unsigned long long number; /* of the snapshot */
  unsigned long long full;   /* of the full one that its chain begins with */
  unsigned long long bytes;  /* of its files, the chain before it not counted */
  unsigned long long blobBytes;
  unsigned int kind;
  unsigned int parts;
  unsigned int items;
} KavoSnapshotInfo;

/* Describes snapshot `number` of a folder, 0 for the newest. Returns KAVO_SUCCESS; KAVO_INVALID, also when there is
 * none; KAVO_IO_ERROR; KAVO_REFUSED_FILE; KAVO_NO_MEMORY. */
int KavoSnapshotFind(const char* directory, unsigned long long number, KavoSnapshotInfo* info);

/* Copies the blob of snapshot `number` (0: the newest) out; `capacity` is at least its `blobBytes`. Statuses as above.
 */
int KavoSnapshotReadBlob(const char* directory, unsigned long long number, void* blob, unsigned long long capacity);

/*
 * Loads snapshot `number` (0: the newest) into embeddings and tables that are empty: the full one of its chain and the
 * increments up to it. Every file is verified before the first row is made. Quiet (see THREADS). Whoever wants to know
 * which one it was, or its blob, asks KavoSnapshotFind for the newest and loads that number. A chain that a commit
 * deletes meanwhile is refused for its missing files: saves beside which others load keep 2 or more.
 *
 *   items          in: what to load into, by name; what the snapshot has beside these is passed over.
 *   shard, shards  the part of the keys to take: those whose owner among `shards` is `shard`; 0 and 1 for all.
 *
 * An embedding must have the snapshot's dim, and its optimiser or none; admission and counts are the handle's. Seed and
 * initialiser come from the snapshot, rates stay the handle's. A table must have the snapshot's type and value length.
 *
 * Returns KAVO_SUCCESS;
 *   KAVO_INVALID       an argument; an item is not empty, or not in the snapshot; there is no such snapshot;
 *   KAVO_BUSY          an embedding is being saved;
 *   KAVO_REFUSED_FILE  a file is damaged, foreign, newer or missing, or does not fit an item; nothing was loaded;
 *   KAVO_IO_ERROR      a file could not be read; nothing was loaded, unless it happened after all were verified;
 *   KAVO_NO_MEMORY, KAVO_FAILED  (also when `progress` ended the call) embeddings are empty again; a table of the base
 *                      may be part loaded: destroy it.
 */
int KavoSnapshotLoad(const char* directory, unsigned long long number, const KavoSnapshotItem* items, unsigned int num,
                     unsigned int shard, unsigned int shards, KavoProgress progress, void* context);

/*
 * Brings embeddings that were loaded (all from one snapshot, with the same shards) up to snapshot `number` of the same
 * chain (0: the newest), by the increments between. Beside every other call; readers get whole rows, old or new. Keys
 * that the embedding only counts keep their counts, and get a row where an increment has one. Where both have trained
 * a row, the increment's stays. Steps taken become the snapshot's, if those are more. An embedding that was brought up
 * is in no chain: its next save must be a full one.
 *
 *   number  in and out: the snapshot that the embeddings stand at afterwards; the same as before when there is no newer
 *           one in their chain.
 *
 * A newer full snapshot begins another chain, which is never gone over to: KavoSnapshotFind tells it by its `full`;
 * load it into new embeddings.
 *
 * Returns KAVO_SUCCESS; KAVO_INVALID; KAVO_BUSY when an embedding is being saved, loaded or brought up;
 * KAVO_REFUSED_FILE, also when the chain is not there any more; KAVO_IO_ERROR, KAVO_NO_MEMORY, KAVO_FAILED: an
 * increment may be part applied; applying it again is right.
 */
int KavoSnapshotUpdate(const char* directory, unsigned long long* number, const KavoSnapshotItem* items,
                       unsigned int num, KavoProgress progress, void* context);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* KAVO_EMBEDDING_H */
