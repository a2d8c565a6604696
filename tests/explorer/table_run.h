// Scenarios on one hash table: what each thread does, as a list of calls, and the promises held against it.
#pragma once

#include <functional>
#include <vector>

namespace KavoExplorer {

// Once for the process: no log lines, which scenarios with failing calls are full of, and no long waits outside of
// them.
void Silence();

class TableRun;

using Call = std::function<void(TableRun&)>;

Call Offer(long key);
Call OfferFailing(long key);                          // the insert callback can have no block
Call OfferWithout(long key, unsigned long long nth);  // the n-th allocation and all later ones fail
Call Claim(long key);                                 // an offer without any growth; tells nothing if the key is there
Call Look(long key);
Call Walk();
Call Fill(std::vector<long> keys);                   // no growth, whatever the threshold says
Call FillGeneration(unsigned generation, long key);  // with keys from `key` on, until it must grow
Call Grow();                                         // moves the current generation
Call MoveGeneration(unsigned generation);
Call MoveBucket(unsigned generation, unsigned long long bucket);
// The first move of a bucket in the call, which is thread `thread`'s, is given up when all is copied.
Call WithFailingMove(unsigned thread, Call call);
// Of the oldest of three generations, into the third.
Call MoveBucketOverMiddle(unsigned long long bucket);
Call BuildGenerations(unsigned count);
Call GradualGrowth();
Call InOrder(std::vector<Call> calls);

// Keys that fill 8 cells, and with one that goes to the map of bucket 0.
inline const std::vector<long> FULL = {0, 1, 2, 3, 4, 5, 6, 7};
inline const std::vector<long> FULL_WITH_MAP = {0, 1, 2, 3, 4, 5, 6, 7, 8};

// Every order of the threads' steps that the budget reaches keeps the promises, if `before` has happened first.
void ExpectHolds(const Call& before, const std::vector<Call>& threads, unsigned long long cells = 8);

}  // namespace KavoExplorer
