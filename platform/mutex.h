// Every lock is declared through these aliases, for the same reason as Atomic. A lock that reports an error throws
// std::system_error.
#pragma once

#include <mutex>
#include <shared_mutex>

#ifdef KAVO_EXPLORER
#include "explorer/scheduled_types.h"
#endif

namespace Qen {

#ifdef KAVO_EXPLORER
using Mutex = KavoExplorer::Mutex;
using SharedMutex = KavoExplorer::SharedMutex;
#else
using Mutex = std::mutex;
using SharedMutex = std::shared_mutex;
#endif

}  // namespace Qen
