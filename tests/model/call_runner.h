// Makes calls on the library and on the reference model, and compares all that a caller can see: status, outputs,
// outputs that must be left alone, value bytes and their addresses, exported entries, and whether lines were logged.
// Throws Mismatch at the first difference.
//
// A runner either has the library to itself (one at a time in a process: the log sink is shared), or is one of several
// at once, each on a thread of its own, that have adopted a table. Each then has keys of its own, so that it knows
// every answer, and makes only such calls as concern keys.
#pragma once

#include <array>
#include <cstdarg>
#include <cstddef>
#include <utility>
#include <vector>

#include "kavo.h"
#include "model/call.h"
#include "model/expect.h"
#include "model/reference_model.h"

namespace KavoTest {

// How the calling thread's calls have ended.
struct CallStatistics {
  std::array<unsigned long, FUNCTION_COUNT> succeeded{};
  std::array<unsigned long, FUNCTION_COUNT> failed{};
};
inline thread_local CallStatistics t_statistics;

// The log lines that the calling thread has caused.
struct LineCounts {
  unsigned long failures = 0;
  unsigned long growths = 0;    // generations that a table has emptied and passed
  unsigned long mapMisses = 0;  // lookups that ended in an overflow map, without finding their key
};
LineCounts& CountedLines();
void CountLine(int level, const char* format);

class CallRunner {
 public:
  CallRunner();  // alone
  // On a table that is there, with `share` of so many `shares` of all keys. The log sink calls CountLine.
  CallRunner(unsigned id, ModelTable table, unsigned share, unsigned shares);
  CallRunner(const CallRunner&) = delete;
  CallRunner& operator=(const CallRunner&) = delete;
  ~CallRunner();

  void Run(const Call& call);

  // Looks at everything that the tables hold, by lookups and by exports in each mode, and removes it all.
  void Finish();

  ReferenceModel& Model() { return m_model; }

 private:
  // A call that is made: for the so-many-th time, on a table that there may be.
  struct Step : Call {
    unsigned id = 0;
    long key = 0;
    unsigned repetition = 0;
    ModelTable* model = nullptr;  // of the table

    unsigned RightLen() const { return model == nullptr ? 8 : model->valueLen; }
  };

  // `make` makes the call. Failures are logged, successes are not.
  template <class Make>
  void Compare(Function function, int wanted, Make make) {
    const unsigned long before = CountedLines().failures;
    const int status = make();
    ExpectEqual(status, wanted, "status");
    const unsigned long lines = CountedLines().failures - before;
    Expect(status == KAVO_SUCCESS || lines > 0, "the call failed with ", status, " and logged nothing");
    Expect(status != KAVO_SUCCESS || lines == 0, "the call succeeded and logged ", lines, " lines");
    ++(status == KAVO_SUCCESS ? t_statistics.succeeded : t_statistics.failed)[static_cast<unsigned>(function)];
  }
  template <class Make>
  void CompareBatch(const Step& step, bool isRefused, Make make);

  long KeyFor(const Call& call, unsigned offset) const;
  std::vector<long> KeysFor(const Call& call) const;
  static bool IsRefused(const Step& step, const std::vector<long>& keys);
  const unsigned char* SourceOf(const Step& step, const Bytes& buffer) const;
  static void CheckAnswer(const Step& step, ModelEntry* entry, unsigned char* value, unsigned length);
  static void CheckValue(ModelTable& table, long key, ModelEntry& entry, unsigned char* given);
  void ExportBatch(const Step& step, void*& cursor);
  void VerifyTable(unsigned id, ModelTable& table);

  // One for each kind of call.
  void Lookup(const Step& step);
  void Write(const Step& step);
  void LookupOrInsert(const Step& step);
  void InitTable(const Step& step);
  void UninitTable(const Step& step);
  void SetFilterFreq(const Step& step);
  void PrepareMem(const Step& step);
  void GetMem(const Step& step);
  void SizeAndLength(const Step& step);
  void BatchGetNext(const Step& step);
  void BatchLookup(const Step& step);
  void BatchGather(const Step& step);
  void BatchLookupOrInsert(const Step& step);
  void BatchInsertOrUpdate(const Step& step);
  void Walk(const Step& step);
  void SpoilCursor(const Step& step);

  ReferenceModel m_model;
  std::array<void*, CURSOR_COUNT> m_cursors{};
  void* m_endedCursor = nullptr;
  std::array<unsigned, TABLE_IDS.size()> m_ids = TABLE_IDS;
  unsigned m_share = 0;
  unsigned m_shares = 0;  // 0: alone, with all keys
};

}  // namespace KavoTest
