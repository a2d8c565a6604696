// Every lock is declared through these aliases, for the same reason as Atomic. A lock that reports an error throws
// std::system_error; the exported functions turn it into KAVO_FAILED with a log line.
#pragma once

#include <mutex>
#include <shared_mutex>

namespace Qen {

using Mutex = std::mutex;
using SharedMutex = std::shared_mutex;

}  // namespace Qen
