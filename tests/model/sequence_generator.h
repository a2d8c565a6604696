// Random sequences of calls, and how to make a failing one simpler.
#pragma once

#include <rapidcheck.h>

#include "model/call.h"

namespace KavoTest {

// Sequences that work on one or two tables and few families of keys, so that calls meet. Weighted so that many grow a
// table several times, and many fill the reach of a bucket, which then gets an overflow map.
rc::Gen<Sequence> Sequences();

}  // namespace KavoTest
