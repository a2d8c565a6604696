// Makes calls on the library and on the reference model, and compares all that a caller can see: status, outputs,
// outputs that must be left alone, value bytes and their addresses, exported entries, and whether lines were logged.
// Throws Mismatch at the first difference. One at a time in a process: the partition map and the log sink are shared.
#pragma once

#include <array>
#include <cstdarg>
#include <cstddef>
#include <vector>

#include "kavo.h"
#include "model/call.h"
#include "model/mismatch.h"
#include "model/reference_model.h"

namespace KavoTest {

struct CallStatistics {
  std::array<unsigned long, FUNCTION_COUNT> succeeded{};
  std::array<unsigned long, FUNCTION_COUNT> failed{};
  unsigned long growths = 0;    // generations that a table left
  unsigned long mapMisses = 0;  // lookups that ended in an overflow map, without finding their key

  void Add(const CallStatistics& other);
};

class CallRunner {
 public:
  CallRunner();
  CallRunner(const CallRunner&) = delete;
  CallRunner& operator=(const CallRunner&) = delete;
  ~CallRunner();

  void Run(const Call& call);

  // Looks at everything that the tables hold, by lookups and by exports in each mode, and removes it all.
  void Finish();

  const CallStatistics& Statistics() const { return m_statistics; }

 private:
  // `make` makes the call. Failures are told in the log, successes are not.
  template <class Make>
  void Compare(Function function, int wanted, Make make) {
    m_failureLines = 0;
    const int status = make();
    ExpectEqual(status, wanted, "status");
    Expect(status == KAVO_SUCCESS || m_failureLines > 0, "the call failed with ", status, " and logged nothing");
    Expect(status != KAVO_SUCCESS || m_failureLines == 0, "the call succeeded and logged ", m_failureLines, " lines");
    ++(status == KAVO_SUCCESS ? m_statistics.succeeded : m_statistics.failed)[static_cast<unsigned>(function)];
  }

  void RunOnce(const Call& call, unsigned repetition);
  void SetLogSink(const Call& call);
  void InitTable(const Call& call, unsigned id);
  void Lookup(const Call& call, unsigned id, long key);
  void LookupOrInsert(const Call& call, unsigned id, long key);
  void Write(const Call& call, unsigned id, long key, unsigned repetition);
  void PrepareMem(const Call& call, unsigned id);
  void GetMem(const Call& call, unsigned id, unsigned long long index);
  void SizeAndLength(const Call& call, unsigned id);
  void Walk(unsigned id, unsigned eleNum, unsigned mode);
  bool IsRefused(unsigned id, const std::vector<long>& keys, bool hasPointers);
  template <class Make>
  void CompareBatch(const Call& call, bool isRefused, Make make);
  void BatchLookup(const Call& call, unsigned id);
  void BatchGather(const Call& call, unsigned id);
  void BatchLookupOrInsert(const Call& call, unsigned id);
  void BatchInsertOrUpdate(const Call& call, unsigned id);
  void BatchGetNext(unsigned id, unsigned eleNum, unsigned mode, unsigned nulls, void*& cursor);
  void SpoilCursor(const Call& call);
  void InitPartitionMap(const Call& call);
  void QueryPsId(const Call& call, unsigned long long key);
  void BatchPsIds(const Call& call);

  const unsigned char* SourceOf(const Call& call, unsigned id, long key, unsigned repetition, const Bytes& buffer);
  void CheckValue(ModelTable& table, long key, ModelEntry& entry, unsigned char* given);
  void CheckAddress(ModelTable& table, long owner, unsigned char*& known, unsigned char* given);
  void VerifyTable(unsigned id, ModelTable& table);

  static int WantsLines(void* context, unsigned channel, int level);
  static void TakeLine(void* context, unsigned channel, int level, const char* format, va_list arguments);

  ReferenceModel m_model;
  CallStatistics m_statistics;
  std::array<void*, CURSOR_COUNT> m_cursors{};
  void* m_endedCursor = nullptr;
  unsigned m_failureLines = 0;  // of the call being made; a miss in an overflow map aside
};

}  // namespace KavoTest
