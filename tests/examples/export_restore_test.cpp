// Export, restore and comparison on the real library.
#include <sys/resource.h>

#include <csignal>
#include <functional>
#include <map>
#include <set>

#include "examples/export_test_support.h"
#include "incremental_export/compare.h"
#include "incremental_export/snapshot_writer.h"
#include "incremental_export/stream.h"
#include "incremental_export/table_cursor.h"
#include "incremental_export/table_export.h"
#include "incremental_export/table_restore.h"

namespace IncrementalExport {
namespace {

constexpr unsigned VALUE_LEN = 12;
constexpr std::uint64_t ENTRIES = 3000;

class ExportRestore : public ExportTest {
 protected:
  static Bytes Value(unsigned char byte) { return Bytes(VALUE_LEN, byte); }

  static void InsertKeys(const KavoTable& table, long from, long to, InsertState state) {
    for (long key = from; key < to; ++key) {
      ASSERT_TRUE(table.Insert(key, Value(static_cast<unsigned char>(key)).data(), 9, state));
    }
  }

  static std::set<long> KeysOf(const std::string& path) {
    SnapshotReader reader(path);
    std::set<long> keys;
    ForEachRecord(reader, [&keys](const SnapshotRecord& record) { EXPECT_TRUE(keys.insert(record.key).second); });
    return keys;
  }

  static void ExpectEqual(const KavoTable& first, const KavoTable& second) {
    const Comparison result = Compare(first, second);
    EXPECT_TRUE(result.Equal()) << result.differences << " differences, " << result.description.front();
  }

  // A file of its own size limit for the length of a scope: writes beyond it fail, as on a full disk.
  class FileSizeLimit {
   public:
    explicit FileSizeLimit(rlim_t bytes) : m_handler(std::signal(SIGXFSZ, SIG_IGN)) {
      getrlimit(RLIMIT_FSIZE, &m_before);
      const rlimit limit{bytes, m_before.rlim_max};
      setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
      setrlimit(RLIMIT_FSIZE, &m_before);
      std::signal(SIGXFSZ, m_handler);
    }

   private:
    void (*m_handler)(int);
    rlimit m_before{};
  };
};

TEST_F(ExportRestore, RestoredTableEqualsAndTakesOver) {
  for (const TableType type : BOTH_TYPES) {
    const Stream stream({ENTRIES, 5, 2});
    const KavoTable live(NewTableId(), type, 8, VALUE_LEN);
    TableExport exports(live);
    std::vector<std::string> paths{Path("full")};
    stream.Base(live);
    exports.WriteFull(paths.back());
    SnapshotHeader last;
    for (unsigned round = 1; round <= 3; ++round) {
      stream.Round(live, round);
      paths.push_back(Path("increment" + std::to_string(round)));
      last = exports.WriteIncrement(paths.back());
    }

    // Made too small, so that a part of the values finds no prepared memory.
    SnapshotChain chain(paths);
    const KavoTable restored(NewTableId(), type, ENTRIES / 2, VALUE_LEN);
    const RestoreFacts facts = Restore(restored, chain);
    EXPECT_EQ(facts.adopted, type == TableType::BASIC ? ENTRIES / 2 : 0);
    EXPECT_GT(facts.inserted, 0U);
    ExpectEqual(live, restored);

    // The chain grows on from the restored table, and a third table gets all of it.
    stream.Round(live, 4);
    stream.Round(restored, 4);
    ExpectEqual(live, restored);
    paths.push_back(Path("increment4"));
    TableExport(restored, last).WriteIncrement(paths.back());
    SnapshotChain longer(paths);
    const KavoTable third(NewTableId(), type, 2 * ENTRIES, VALUE_LEN);
    Restore(third, longer);
    ExpectEqual(restored, third);
  }
}

TEST_F(ExportRestore, IncrementHoldsExactlyWhatChanged) {
  const KavoTable table(NewTableId(), TableType::BASIC, 8, VALUE_LEN);
  InsertKeys(table, 0, 100, InsertState::CHANGED);
  InsertKeys(table, 100, 200, InsertState::EXPORTED);
  InsertKeys(table, 200, 300, InsertState::FULL_ONLY);
  TableExport exports(table);
  EXPECT_THROW(exports.WriteIncrement(Path("early")), std::logic_error);
  exports.WriteFull(Path("full"));
  EXPECT_EQ(KeysOf(Path("full")).size(), 300U);

  exports.WriteIncrement(Path("nothing"));
  EXPECT_EQ(KeysOf(Path("nothing")), std::set<long>{});

  table.Lookup(1);
  table.LookupOrInsert(2, 0);
  table.LookupForUpdate(3)[0] = 99;
  table.LookupForUpdate(103)[0] = 99;
  table.LookupForUpdate(203)[0] = 99;
  table.InsertOrUpdate(4, Value(98).data());
  table.LookupOrInsert(1000, 0);
  InsertKeys(table, 2000, 2001, InsertState::FULL_ONLY);
  exports.WriteIncrement(Path("changes"));
  EXPECT_EQ(KeysOf(Path("changes")), (std::set<long>{3, 103, 203, 4, 1000}));
  exports.WriteIncrement(Path("nothing more"));
  EXPECT_EQ(KeysOf(Path("nothing more")), std::set<long>{});
}

TEST_F(ExportRestore, FailedExportLosesNoChange) {
  const KavoTable table(NewTableId(), TableType::BASIC, 8, VALUE_LEN);
  InsertKeys(table, 0, 1000, InsertState::CHANGED);
  TableExport exports(table);
  const auto failWithFullDisk = [](const auto& action) {
    const FileSizeLimit limit(1000);
    return ErrorOf(action);
  };
  EXPECT_NE(failWithFullDisk([&] { exports.WriteFull(Path("full")); }).find("cannot be written"), std::string::npos);
  EXPECT_TRUE(std::filesystem::is_empty(Path("")));
  exports.WriteFull(Path("full"));
  EXPECT_EQ(KeysOf(Path("full")).size(), 1000U);
  InsertKeys(table, 1000, 2000, InsertState::CHANGED);
  EXPECT_NE(failWithFullDisk([&] { exports.WriteIncrement(Path("one")); }).find("cannot be written"),
            std::string::npos);
  EXPECT_EQ(exports.WriteIncrement(Path("one")).Records(), 1000U);
  EXPECT_EQ(ErrorOfChain({Path("full"), Path("one")}), "no error");
}

// A full batch's last entry comes again with the next batch, in some modes and for some entries only.
TEST_F(ExportRestore, WalksGiveEachEntryOnceAtEveryBatchBoundary) {
  constexpr long BATCH = TableCursor::BATCH;
  for (const TableType type : BOTH_TYPES) {
    for (const long count : {0L, 1L, BATCH - 1, BATCH, BATCH + 1, 2 * BATCH - 1, 2 * BATCH, 2 * BATCH + 1}) {
      const KavoTable table(NewTableId(), type, 8, VALUE_LEN);
      InsertKeys(table, 0, count, InsertState::CHANGED);
      if (type == TableType::FILTER) {
        for (long key = count; key < 2 * count; ++key) {
          table.Insert(key, nullptr, 1, InsertState::CHANGED);
        }
      }
      const auto expectAll = [&](ExportMode mode, bool values) {
        std::map<long, bool> seen;
        ForEachEntry(table, mode, [&seen](const KavoHtBatchElement& element) {
          EXPECT_TRUE(seen.emplace(element.key, element.value != nullptr).second) << "key given twice: " << element.key;
        });
        const long expected = (values ? count : 0) + (type == TableType::FILTER ? count : 0);
        EXPECT_EQ(seen.size(), static_cast<std::size_t>(expected)) << "mode " << static_cast<unsigned>(mode);
      };
      expectAll(ExportMode::ALL, true);
      expectAll(ExportMode::CHANGED, true);
      expectAll(ExportMode::EXPORTED, false);
      expectAll(ExportMode::CHANGED_MARK, true);
      expectAll(ExportMode::CHANGED_MARK, false);
      expectAll(ExportMode::EXPORTED, true);
    }
  }
}

TEST_F(ExportRestore, ChainsOutOfOrderAreRefused) {
  const KavoTable table(NewTableId(), TableType::BASIC, 8, VALUE_LEN);
  const KavoTable other(NewTableId(), TableType::BASIC, 8, VALUE_LEN);
  const std::vector<std::string> p{Path("full"), Path("one"), Path("two"), Path("other full"), Path("other one")};
  TableExport exports(table);
  InsertKeys(table, 0, 10, InsertState::CHANGED);
  exports.WriteFull(p[0]);
  table.LookupForUpdate(1)[0] = 5;
  exports.WriteIncrement(p[1]);
  table.LookupForUpdate(2)[0] = 5;
  exports.WriteIncrement(p[2]);
  TableExport otherExports(other);
  otherExports.WriteFull(p[3]);
  otherExports.WriteIncrement(p[4]);

  EXPECT_EQ(ErrorOfChain({p[0], p[1], p[2]}), "no error");
  EXPECT_EQ(ErrorOfChain({p[1]}), p[1] + ": is increment 1; a restore begins with a full snapshot");
  EXPECT_EQ(ErrorOfChain({p[0], p[2]}), p[2] + ": is out of sequence: increment 2, but number 1 is due after " + p[0]);
  EXPECT_EQ(ErrorOfChain({p[0], p[2], p[1]}),
            p[2] + ": is out of sequence: increment 2, but number 1 is due after " + p[0]);
  EXPECT_EQ(ErrorOfChain({p[0], p[1], p[1]}),
            p[1] + ": is out of sequence: increment 1, but number 2 is due after " + p[1]);
  EXPECT_EQ(ErrorOfChain({p[0], p[4]}), p[4] + ": is increment 1 of another chain: it does not follow " + p[0]);
  EXPECT_EQ(ErrorOfChain({p[3], p[4], p[2]}), p[2] + ": is increment 2 of another chain: it does not follow " + p[4]);
  EXPECT_EQ(ErrorOfChain({p[0], p[3]}), p[3] + ": is a full snapshot; only the first file of a restore is one");
}

TEST_F(ExportRestore, BadFilesAndUnfitTablesLeaveTheTargetUntouched) {
  const KavoTable live(NewTableId(), TableType::BASIC, 8, VALUE_LEN);
  const std::vector<std::string> paths{Path("full"), Path("one")};
  TableExport exports(live);
  InsertKeys(live, 0, 100, InsertState::CHANGED);
  exports.WriteFull(paths[0]);
  live.LookupForUpdate(7)[0] = 99;
  exports.WriteIncrement(paths[1]);

  const KavoTable target(NewTableId(), TableType::BASIC, 100, VALUE_LEN);
  const auto restore = [&paths](const KavoTable& table) {
    SnapshotChain chain(paths);
    Restore(table, chain);
  };
  // The very last byte of the last file.
  const Bytes whole = ReadFile(paths[1]);
  Bytes damaged = whole;
  damaged.back() ^= 1;
  WriteFile(paths[1], damaged);
  EXPECT_EQ(ErrorOf([&] { restore(target); }), paths[1] + ": is damaged: the records do not match their checksum");
  EXPECT_EQ(target.CountEntries(false), 0U);
  WriteFile(paths[1], whole);

  const KavoTable filter(NewTableId(), TableType::FILTER, 100, VALUE_LEN);
  const KavoTable wide(NewTableId(), TableType::BASIC, 100, VALUE_LEN + 1);
  EXPECT_EQ(ErrorOf([&] { restore(filter); }),
            paths[0] + ": is of a basic table; table " + std::to_string(filter.Id()) + " is a filter table");
  EXPECT_EQ(filter.CountEntries(false), 0U);
  EXPECT_EQ(ErrorOf([&] { restore(wide); }),
            paths[0] + ": has values of 12 bytes; those of table " + std::to_string(wide.Id()) + " have 13");
  EXPECT_EQ(wide.CountEntries(false), 0U);

  // Untouched to the point that its memory is not prepared: that works once.
  restore(target);
  ExpectEqual(live, target);
  EXPECT_EQ(ErrorOf([&] { restore(target); }),
            paths[0] + ": can be restored into an empty table only; table " + std::to_string(target.Id()) + " is not");
  ExpectEqual(live, target);
}

// The comparison is what all the other answers rest on.
TEST_F(ExportRestore, ComparisonSeesEveryKindOfDifference) {
  const auto differenceOf = [](TableType type, const std::function<void(const KavoTable&)>& change) {
    const KavoTable first(NewTableId(), type, 8, VALUE_LEN);
    const KavoTable second(NewTableId(), type, 8, VALUE_LEN);
    for (const KavoTable* table : {&first, &second}) {
      InsertKeys(*table, 0, 50, InsertState::EXPORTED);
      if (type == TableType::FILTER) {
        table->Insert(60, nullptr, 3, InsertState::CHANGED);
      }
    }
    EXPECT_TRUE(Compare(first, second).Equal());
    change(second);
    const Comparison result = Compare(first, second);
    EXPECT_EQ(result.differences, 1U);
    return result.description.empty() ? "" : result.description.front();
  };
  for (const TableType type : BOTH_TYPES) {
    EXPECT_EQ(differenceOf(type, [](const KavoTable& t) { t.Lookup(7)[VALUE_LEN - 1] ^= 1; }),
              "key 7: other value bytes");
    EXPECT_EQ(differenceOf(type, [](const KavoTable& t) { t.LookupForUpdate(7); }),
              "key 7: exported in the first table, changed in the second");
    EXPECT_EQ(differenceOf(type, [](const KavoTable& t) { InsertKeys(t, 70, 71, InsertState::EXPORTED); }),
              "key 70: only in the second table");
  }
  EXPECT_EQ(differenceOf(TableType::FILTER, [](const KavoTable& t) { t.LookupOrInsert(7, 1); }),
            "key 7: count 9 in the first table, 10 in the second");
  EXPECT_EQ(differenceOf(TableType::FILTER, [](const KavoTable& t) { t.LookupOrInsert(60, 1); }),
            "key 60: count 3 in the first table, 4 in the second");
  EXPECT_EQ(differenceOf(TableType::FILTER,
                         [](const KavoTable& t) {
                           t.SetFilterFrequency(1);
                           t.LookupOrInsert(60, 1);
                         }),
            "key 60: without a value in the first table, changed in the second");
}

}  // namespace
}  // namespace IncrementalExport
