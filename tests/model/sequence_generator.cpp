#include "model/sequence_generator.h"

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <utility>

#include "kavo.h"

namespace KavoTest {
namespace {

class Dice {
 public:
  explicit Dice(const rc::Random& random) : m_random(random) {}

  unsigned Below(unsigned bound) { return static_cast<unsigned>(m_random.next() % bound); }
  unsigned Between(unsigned least, unsigned most) { return least + Below(most - least + 1); }
  bool OneIn(unsigned n) { return Below(n) == 0; }
  template <class T>
  T OneOf(std::initializer_list<T> choices) {
    return choices.begin()[Below(static_cast<unsigned>(choices.size()))];
  }

 private:
  rc::Random m_random;
};

// What the calls of one sequence have in common.
struct Profile {
  KeyFamily families[2];
  unsigned pool;      // so many keys of each family
  unsigned mostKeys;  // of one call
  bool filter;        // the first table's kind
  bool prepares;
};

constexpr std::initializer_list<unsigned> EXPORT_MODES{0, 0, 1, 2, 2, 3, 3, 4, 7, 4294967295U};
constexpr std::initializer_list<unsigned> STATES{0, 0, 1, 2, 2, 3, 7, 4294967295U};
constexpr std::initializer_list<unsigned> COUNTS{0, 0, 1, 1, 1, 2, 49, 50, 99, 100, 150, 4294967290U, 4294967295U};
constexpr std::initializer_list<KeyFamily> COMMON_FAMILIES{
    KeyFamily::DENSE,      KeyFamily::DENSE,        KeyFamily::TIMES_8,  KeyFamily::TIMES_16,
    KeyFamily::TIMES_1024, KeyFamily::EQUAL_LOW_32, KeyFamily::RANDOM_62};

Call TableOf(Dice& dice, unsigned table, unsigned size, bool filter) {
  Call call;
  call.function = Function::INIT_TABLE;
  call.table = table;
  call.number = size;
  call.kind = filter ? KAVO_TABLE_TYPE_FILTER : KAVO_TABLE_TYPE_BASIC;
  call.valueLen = dice.OneOf({1U, 3U, 4U, 7U, 8U, 12U, 16U, 40U});
  call.bytes = static_cast<unsigned char>(dice.Below(2));  // which way it grows
  return call;
}

Function FunctionOf(Dice& dice, const Profile& profile) {
  using enum Function;
  const unsigned roll = dice.Below(100);
  if (roll < 46) {
    return dice.OneOf({INSERT, INSERT, INSERT_OR_UPDATE, LOOKUP_OR_INSERT, LOOKUP_OR_INSERT, BATCH_LOOKUP_OR_INSERT,
                       BATCH_INSERT_OR_UPDATE});
  }
  if (roll < 66) {
    return dice.OneOf({LOOKUP, LOOKUP, LOOKUP_FOR_UPDATE, UPDATE, BATCH_LOOKUP, BATCH_GATHER});
  }
  if (roll < 82) {
    return dice.OneOf({BATCH_GET_NEXT, BATCH_GET_NEXT, WALK, SPOIL_CURSOR, SIZE_AND_LENGTH});
  }
  if (roll < 88) {
    return profile.filter ? SET_FILTER_FREQ : dice.OneOf({INSERT, LOOKUP_OR_INSERT, SET_FILTER_FREQ});
  }
  if (roll < 93) {
    return profile.prepares ? dice.OneOf({PREPARE_MEM, GET_MEM, GET_MEM}) : LOOKUP_OR_INSERT;
  }
  if (roll < 97) {
    return dice.OneOf({INIT_PARTITION_MAP, UNINIT_PARTITION_MAP, QUERY_PS_ID, BATCH_PS_IDS, SET_LOG_SINK});
  }
  return dice.OneOf({INIT_TABLE, UNINIT_TABLE, UNINIT_TABLE, PREPARE_MEM, GET_MEM});
}

Call CallOf(Dice& dice, const Profile& profile) {
  Call call;
  call.function = FunctionOf(dice, profile);
  call.table = dice.OneIn(4) ? 1 : dice.OneIn(60) ? dice.Between(2, 4) : 0;
  call.family =
      dice.OneIn(60) ? dice.OneOf({KeyFamily::EXTREME, KeyFamily::NEGATIVE}) : profile.families[dice.Below(2)];
  call.index = dice.Below(profile.pool);
  call.count = dice.OneIn(2) ? 1 : dice.Between(1, profile.mostKeys);
  call.source =
      dice.OneIn(8)
          ? dice.OneOf({Source::NOTHING, Source::NOTHING, Source::OWN_VALUE, Source::OVERLAPPING, Source::OTHER_VALUE})
          : Source::BUFFER;
  call.length = dice.OneIn(40) ? dice.OneOf({Length::ONE_LESS, Length::ONE_MORE, Length::ZERO, Length::HUGE_LENGTH})
                               : Length::RIGHT;
  call.number = dice.OneOf(COUNTS);
  call.kind = dice.OneOf(STATES);
  call.nulls = dice.OneIn(40) ? dice.Between(1, 15) : 0;
  call.cursor = dice.Below(CURSOR_COUNT);
  call.bytes = static_cast<unsigned char>(dice.Below(256));
  call.writes = dice.OneIn(2);
  switch (call.function) {
    case Function::INIT_TABLE: {
      const Call table = TableOf(dice, dice.Below(3), dice.Between(1, 60), dice.OneIn(2));
      call.table = table.table;
      call.count = 1;
      call.number = table.number;
      call.kind = dice.OneIn(6) ? dice.OneOf({2U, 3U, 4294967295U}) : table.kind;
      call.valueLen = dice.OneIn(6) ? dice.OneOf({0U, 4294967292U, 4294967295U}) : table.valueLen;
      if (dice.OneIn(12)) {  // more than any address space holds
        call.number = 4294967295U;
        call.valueLen = 4294967291U;
      }
      break;
    }
    case Function::UNINIT_TABLE:
    case Function::PREPARE_MEM:
    case Function::SPOIL_CURSOR:
    case Function::SIZE_AND_LENGTH:
    case Function::UNINIT_PARTITION_MAP:
      call.count = 1;
      break;
    case Function::SET_LOG_SINK:
      call.count = 1;
      call.nulls = dice.Below(2);
      break;
    case Function::SET_FILTER_FREQ:
      call.count = 1;
      call.number = dice.OneOf({0U, 1U, 2U, 3U, 51U, 100U, 4294967295U});
      break;
    case Function::GET_MEM:
      call.count = dice.Between(1, 5);
      call.wide = dice.OneIn(3) ? dice.Below(20) : 0;
      call.wide = dice.OneIn(20) ? ~call.wide : call.wide;
      break;
    case Function::BATCH_GET_NEXT:
      call.count = dice.Between(1, 4);
      call.number = dice.OneOf({0U, 1U, 2U, 3U, 7U, 20U, 64U, 100U, 1000U, 4294967295U});
      call.kind = dice.OneOf(EXPORT_MODES);
      break;
    case Function::WALK:
      call.count = 1;
      call.number = dice.OneOf({0U, 1U, 2U, 3U, 7U, 20U, 64U, 100U, 1000U, 4294967295U});
      call.kind = dice.OneOf(EXPORT_MODES);
      break;
    case Function::INIT_PARTITION_MAP:
      call.count = 1;
      call.number = dice.Below(4);
      call.kind = dice.Below(4);
      call.bytes = static_cast<unsigned char>(dice.Below(2));
      break;
    case Function::BATCH_PS_IDS:
    case Function::QUERY_PS_ID:
      call.count = dice.Between(1, 3);
      call.number = dice.Below(6);
      call.wide = dice.OneIn(2) ? dice.Below(10) : ~0ULL - dice.Below(4);
      break;
    default:
      break;
  }
  return call;
}

Call InsertOf(Dice& dice, KeyFamily family, unsigned index, unsigned count) {
  Call call;
  call.function = dice.OneOf({Function::INSERT, Function::INSERT_OR_UPDATE, Function::LOOKUP_OR_INSERT,
                              Function::BATCH_LOOKUP_OR_INSERT, Function::BATCH_INSERT_OR_UPDATE});
  call.family = family;
  call.index = index;
  call.count = count;
  call.number = dice.OneOf(COUNTS);
  call.kind = dice.OneOf(STATES);
  call.bytes = static_cast<unsigned char>(dice.Below(256));
  call.writes = dice.OneIn(2);
  return call;
}

// `size` grows from 0 to 100 as a test goes on, and then begins anew.
Sequence SequenceOf(const rc::Random& random, int size) {
  Dice dice(random);
  Sequence sequence;
  Profile profile{};
  profile.families[0] = dice.OneOf(COMMON_FAMILIES);
  profile.families[1] = dice.OneOf(COMMON_FAMILIES);
  profile.pool = dice.OneOf({4U, 20U, 200U, 400U});
  profile.mostKeys = dice.OneOf({3U, 40U, 120U});
  profile.filter = dice.OneIn(2);
  profile.prepares = dice.OneIn(3);
  enum { PLAIN, GROWING, CROWDED } const course = dice.OneOf({PLAIN, PLAIN, GROWING, GROWING, CROWDED});
  sequence.push_back(
      TableOf(dice, 0, course == CROWDED ? dice.Between(600, 1000) : dice.Between(1, 30), profile.filter));
  if (dice.OneIn(2)) {
    sequence.push_back(TableOf(dice, 1, dice.Between(1, 100), dice.OneIn(2)));
  }
  Call call;
  if (profile.filter && dice.OneIn(2)) {
    // Single occurrences soon admit.
    call.function = Function::SET_FILTER_FREQ;
    call.number = dice.Between(0, 4);
    sequence.push_back(call);
  }
  if (dice.OneIn(2)) {
    call.function = Function::INIT_PARTITION_MAP;
    call.number = dice.Between(1, 4);
    call.kind = dice.Between(1, 4);
    sequence.push_back(call);
  }
  if (profile.prepares) {
    call.function = Function::PREPARE_MEM;
    sequence.push_back(call);
    call.function = Function::GET_MEM;
    call.count = dice.Between(1, 12);
    call.writes = true;
    call.bytes = 77;
    sequence.push_back(call);
  }
  if (course == GROWING) {
    sequence.push_back(InsertOf(dice, profile.families[0], dice.Below(10), dice.Between(70, 400)));
    profile.mostKeys = 120;
  } else if (course == CROWDED) {
    // A run of keys that fills its part of the table, and then keys at home within it: they find no cell within reach.
    profile.families[0] = KeyFamily::DENSE;
    profile.families[1] = dice.OneOf({KeyFamily::EQUAL_LOW_32, KeyFamily::TIMES_1024});
    sequence.push_back(InsertOf(dice, profile.families[0], dice.Below(6), dice.Between(136, 220)));
    sequence.push_back(InsertOf(dice, profile.families[1], dice.Below(3), dice.Between(1, 6)));
  }
  const std::size_t built = sequence.size();
  for (unsigned left = dice.Below(static_cast<unsigned>(size) / 2 + 8); left > 0; --left) {
    sequence.push_back(CallOf(dice, profile));
  }
  if (course == CROWDED) {
    // Keys that are absent, some of them: a lookup must go through the bucket's map to say so.
    Call lookup;
    lookup.family = profile.families[1];
    lookup.index = dice.Below(20);
    lookup.count = dice.Between(1, 20);
    const auto behind = dice.Below(static_cast<unsigned>(sequence.size() - built) + 1);
    sequence.insert(sequence.begin() + static_cast<std::ptrdiff_t>(built + behind), lookup);
  }
  return sequence;
}

// Calls that are simpler than this one in one respect.
rc::Seq<Call> Simpler(const Call& call) {
  std::vector<Call> simpler;
  const auto with = [&](auto Call::*field, auto value) {
    if (call.*field != value) {
      simpler.push_back(call);
      simpler.back().*field = value;
    }
  };
  with(&Call::count, 1U);
  if (call.count > 2) {
    with(&Call::count, call.count / 2);
    with(&Call::count, call.count - 1);
  }
  if (call.count > 1) {  // its other end
    const unsigned left = call.count > 2 ? call.count / 2 : 1;
    with(&Call::count, left);
    simpler.back().index += call.count - left;
    simpler.back().wide += call.count - left;
  }
  with(&Call::nulls, 0U);
  with(&Call::source, Source::BUFFER);
  with(&Call::length, Length::RIGHT);
  with(&Call::writes, false);
  with(&Call::table, 0U);
  with(&Call::cursor, 0U);
  with(&Call::family, KeyFamily::DENSE);
  with(&Call::index, 0U);
  with(&Call::index, call.index / 2);
  if (call.function != Function::INIT_TABLE) {
    with(&Call::number, call.number / 2);
  } else if (call.number > 8) {
    // Not by halves: what no memory holds would become what some machine's does. Nor 0, the default size, whose cells
    // take long to walk.
    with(&Call::number, 8U);
    simpler.back().valueLen = std::min(call.valueLen, 8U);
  }
  with(&Call::kind, 0U);
  if (call.number <= 1000) {
    with(&Call::valueLen, 8U);
  }
  with(&Call::bytes, static_cast<unsigned char>(0));
  with(&Call::wide, 0ULL);
  return rc::seq::fromContainer(std::move(simpler));
}

// Without its first half, its second, then without each quarter, and so on to single calls.
rc::Seq<Sequence> Shorter(const Sequence& sequence) {
  std::vector<Sequence> shorter;
  for (std::size_t length = (sequence.size() + 1) / 2; length > 0; length = length == 1 ? 0 : (length + 1) / 2) {
    for (std::size_t at = 0; at < sequence.size(); at += length) {
      shorter.push_back(sequence);
      const auto first = shorter.back().begin() + static_cast<std::ptrdiff_t>(at);
      shorter.back().erase(first, first + static_cast<std::ptrdiff_t>(std::min(length, sequence.size() - at)));
    }
  }
  return rc::seq::fromContainer(std::move(shorter));
}

}  // namespace

rc::Gen<Sequence> Sequences() {
  return [](const rc::Random& random, int size) {
    return rc::shrinkable::shrinkRecur(SequenceOf(random, size), [](const Sequence& sequence) {
      return rc::seq::concat(Shorter(sequence), rc::shrink::eachElement(sequence, Simpler));
    });
  };
}

}  // namespace KavoTest
