// What the calls of a scenario were told about its keys, held against the promises: one creator and one address a key,
// and a key that is there stays there. Used by whoever has the baton, and when the threads have ended.
//
// That one call was over before another began is a promise's business, so it must count among what steps depend on:
// both take a step at the key's entry here.
#pragma once

#include <map>
#include <set>
#include <string>

#include "explorer/scheduled_types.h"

namespace KavoExplorer {

class Ledger {
 public:
  // An offer ended with 1 (created) or 0 (found), and this block.
  void Offered(long key, int status, const void* block) {
    Key& known = m_keys[key];
    known.calls.fetch_add(1);
    if (status < 0 || block == nullptr) {
      Fail(key, "an offer failed");
      return;
    }
    known.creators += status == 1 ? 1U : 0U;
    if (known.creators > 1) {
      Fail(key, "two creators");
    }
    Seen(key, block);
    known.completed = block;
  }

  // The block of a key whose insert has completed, or null. To be asked before a lookup begins.
  const void* Completed(long key) {
    Key& known = m_keys[key];
    known.calls.load();
    return known.completed;
  }

  // The keys whose inserts have completed. To be asked before a walk begins.
  std::set<long> CompletedKeys() {
    std::set<long> keys;
    for (auto& [key, known] : m_keys) {
      known.calls.load();
      if (known.completed != nullptr) {
        keys.insert(key);
      }
    }
    return keys;
  }

  // A walk that began when CompletedKeys was `before` has reported `walked`.
  void Walked(const std::set<long>& before, const std::multiset<long>& walked) {
    for (const long key : before) {
      if (walked.count(key) == 0) {
        Fail(key, "a walk missed a key whose insert had completed");
      }
    }
  }

  // A lookup that began when Completed was `before` has found `block`, or null.
  void LookedUp(long key, const void* before, const void* block) {
    if (block != nullptr) {
      Seen(key, block);
    } else if (before != nullptr) {
      Fail(key, "a lookup missed a key whose insert had completed");
    }
  }

  // Says what is wrong; what was said first stays.
  void Fail(long key, const char* what) {
    if (m_failure.empty()) {
      m_failure = std::string(what) + ", key " + std::to_string(key);
    }
  }

  // At rest: `find` looks a key up, `walked` is what a walk has reported.
  template <class Find>
  void CheckAtRest(const Find& find, const std::multiset<long>& walked) {
    for (const auto& [key, known] : m_keys) {
      if (known.completed != nullptr) {
        LookedUp(key, known.completed, find(key));
        if (known.creators != 1) {
          Fail(key, "found, and nobody created it");
        }
      } else if (find(key) != nullptr) {
        Fail(key, "there, and nobody was told so");
      }
      if (walked.count(key) != (known.completed != nullptr ? 1U : 0U)) {
        Fail(key, "a walk reports it too often, or not at all");
      }
    }
  }

  const std::string& Failure() const noexcept { return m_failure; }

 private:
  struct Key {
    const void* seen = nullptr;
    const void* completed = nullptr;
    unsigned creators = 0;
    Atomic<unsigned> calls;
  };

  void Seen(long key, const void* block) {
    const void*& seen = m_keys[key].seen;
    if (seen != nullptr && seen != block) {
      Fail(key, "two addresses");
    }
    seen = block;
  }

  std::map<long, Key> m_keys;
  std::string m_failure;
};

}  // namespace KavoExplorer
