// Nothing but a whole, unaltered chain of snapshot files is accepted, and what is wrong is said; a failed export loses
// nothing; the comparison, on which the program's verdict rests, sees what differs.
#include <sys/resource.h>

#include <csignal>
#include <functional>
#include <kavo.hpp>

#include "incremental_export/compare.h"
#include "incremental_export/snapshot_chain.h"
#include "incremental_export/snapshot_writer.h"
#include "incremental_export/table_export.h"
#include "incremental_export/table_restore.h"
#include "support/own_folder.h"

namespace IncrementalExport {
namespace {

using kavo::NewState;
using kavo::TableType;

constexpr unsigned VALUE_LEN = 5;
const std::array<unsigned char, VALUE_LEN> VALUE{1, 2, 3, 4, 255};

std::string ErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const SnapshotError& error) {
    return error.what();
  }
  return "no error";
}
std::string ErrorOfChain(const std::vector<std::string>& paths) {
  return ErrorOf([&paths] { SnapshotChain chain(paths); });
}

// A file with both export states, and for filter tables a key without a value. Returns its header.
SnapshotHeader WriteSmallFile(const std::string& path, TableType type) {
  auto value = VALUE;
  SnapshotHeader header;
  header.tableType = type;
  header.valueLen = VALUE_LEN;
  SnapshotWriter writer(path, header);
  const bool filter = type == TableType::FILTER;
  writer.Append({0, filter ? 7U : 0U, ExportState::EXPORTED, true, value.data()});
  writer.Append({0x7FFF'FFFF'FFFF'FFFF, filter ? 0xFFFF'FFFFU : 0U, ExportState::FULL_ONLY, true, value.data()});
  if (filter) {
    writer.Append({42, 3, ExportState::NONE, false, nullptr});
  }
  return writer.Commit();
}

void InsertKeys(const kavo::Table& table, long from, long to, NewState state = NewState::CHANGED) {
  for (long key = from; key < to; ++key) {
    table.Insert(key, VALUE, 9, state);
  }
}

// Other programs read the file by the description, not by this code.
TEST(Snapshot, BytesAreThoseOfTheDescription) {
  const OwnFolder folder;
  WriteSmallFile(folder.Path("file"), TableType::FILTER);
  const std::string bytes = folder.Read("file");
  ASSERT_EQ(bytes.size(), 72U + 3 * 16 + 2 * VALUE_LEN);
  EXPECT_EQ(bytes.substr(0, 24), std::string("KAVOSNAP\1\0\0\0\0\0\0\0\1\0\0\0\5\0\0\0", 24));
  EXPECT_EQ(bytes.substr(40, 16), std::string("\2\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0", 16));
  EXPECT_EQ(bytes.substr(93, 21),
            std::string("\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x7F\xFF\xFF\xFF\xFF\2\1\0\0\1\2\3\4\xFF", 21));
  EXPECT_EQ(bytes.substr(114), std::string("\x2A\0\0\0\0\0\0\0\3\0\0\0\0\0\0\0", 16));
}

TEST(Snapshot, EveryFlippedByteAndEveryOtherLengthIsRefused) {
  const OwnFolder folder;
  for (const TableType type : {TableType::BASIC, TableType::FILTER}) {
    const std::string path = folder.Path("file");
    WriteSmallFile(path, type);
    const std::string whole = folder.Read("file");
    ASSERT_EQ(ErrorOfChain({path}), "no error");
    for (std::size_t i = 0; i < whole.size(); ++i) {
      for (const int flip : {0x01, 0x80, 0xFF}) {
        std::string damaged = whole;
        damaged[i] = static_cast<char>(damaged[i] ^ flip);
        EXPECT_EQ(ErrorOfChain({folder.Write("file", damaged)}).find(path + ": "), 0U) << "byte " << i;
      }
    }
    for (std::size_t length = 0; length < whole.size() + 40; ++length) {
      std::string other = whole;
      other.resize(length);
      EXPECT_EQ(ErrorOfChain({folder.Write("file", other)}).find(path + ": is truncated") == 0, length != whole.size());
    }
  }
}

// Checksums right, contents wrong: what a faulty or hostile writer would make.
TEST(Snapshot, ForgedHeadersAreRefusedWithTheirCause) {
  const OwnFolder folder;
  const std::string path = folder.Path("file");
  const SnapshotHeader good = WriteSmallFile(path, TableType::FILTER);
  const std::string whole = folder.Read("file");
  const std::string truncated = "is truncated or has bytes too many: 130 bytes do not hold ";
  const std::string damaged = "is damaged: ";
  const struct {
    void (*forge)(SnapshotHeader&);
    std::string cause;
  } cases[] = {
      {[](SnapshotHeader& h) { h.kind = static_cast<SnapshotKind>(2); }, "unknown kind 2"},
      {[](SnapshotHeader& h) { h.tableType = static_cast<TableType>(2); }, "unknown table type 2"},
      {[](SnapshotHeader& h) { h.sequence = 1; }, "sequence number 1 does not fit its kind"},
      {[](SnapshotHeader& h) { h.kind = SnapshotKind::INCREMENT; }, "sequence number 0 does not fit its kind"},
      // Values more than fit, and counts whose products pass 64 bits to come out right.
      {[](SnapshotHeader& h) { h.admitted = 4; }, truncated},
      {[](SnapshotHeader& h) { h.counted += std::uint64_t{1} << 60; }, truncated},
      {[](SnapshotHeader& h) { h.valueLen = 4; }, truncated},
      // The same length, otherwise divided.
      {[](SnapshotHeader& h) { h.valueLen = 10, h.admitted = 1, h.counted = 2; }, damaged},
      // A basic table's file has no keys without a value, and no counts.
      {[](SnapshotHeader& h) { h.tableType = TableType::BASIC; }, damaged + "no record can have"},
  };
  for (const auto& [forge, cause] : cases) {
    SnapshotHeader header = good;
    forge(header);
    const HeaderBytes forged = EncodeHeader(header);
    folder.Write("file", std::string(forged.begin(), forged.end()) + whole.substr(forged.size()));
    EXPECT_EQ(ErrorOfChain({path}).find(path + ": " + cause), 0U) << cause;
  }
  std::string other = whole;
  other[8] = 2;
  EXPECT_EQ(ErrorOfChain({folder.Write("file", other)}),
            path + ": is of format version 2; this program reads version 1");
  EXPECT_NE(ErrorOfChain({folder.Path("absent")}).find(": cannot be opened: "), std::string::npos);
}

TEST(Snapshot, ChainsOutOfOrderAndUnfitTablesAreRefused) {
  const OwnFolder folder;
  const kavo::Table table(1, 8, VALUE_LEN);
  const kavo::Table other(2, 8, VALUE_LEN);
  const std::vector<std::string> p{folder.Path("full"), folder.Path("one"), folder.Path("two"), folder.Path("full 2"),
                                   folder.Path("one 2")};
  TableExport exports(table);
  InsertKeys(table, 0, 10);
  EXPECT_THROW(exports.WriteIncrement(p[1]), std::logic_error);
  exports.WriteFull(p[0]);
  table.LookupForUpdate(1)[0] = 5;
  EXPECT_EQ(exports.WriteIncrement(p[1]).Records(), 1U);
  EXPECT_EQ(exports.WriteIncrement(p[2]).Records(), 0U);
  TableExport otherExports(other);
  otherExports.WriteFull(p[3]);
  otherExports.WriteIncrement(p[4]);

  EXPECT_EQ(ErrorOfChain({p[0], p[1], p[2]}), "no error");
  EXPECT_EQ(ErrorOfChain({p[1]}), p[1] + ": is increment 1; a restore begins with a full snapshot");
  EXPECT_EQ(ErrorOfChain({p[0], p[2]}), p[2] + ": is out of sequence: increment 2, but number 1 is due after " + p[0]);
  EXPECT_EQ(ErrorOfChain({p[0], p[4]}), p[4] + ": is increment 1 of another chain: it does not follow " + p[0]);
  EXPECT_EQ(ErrorOfChain({p[0], p[3]}), p[3] + ": is a full snapshot; only the first file of a restore is one");

  SnapshotChain chain({p[0], p[1]});
  const kavo::Table wide(3, 8, VALUE_LEN + 1);
  const kavo::Table filter(4, 8, VALUE_LEN, TableType::FILTER);
  EXPECT_EQ(ErrorOf([&] { Restore(wide, chain); }), p[0] + ": has values of 5 bytes; those of table 3 have 6");
  EXPECT_EQ(ErrorOf([&] { Restore(filter, chain); }), p[0] + ": is of a basic table; table 4 is a filter table");
  EXPECT_EQ(ErrorOf([&] { Restore(table, chain); }),
            p[0] + ": can be restored into an empty table only; table 1 is not");
  EXPECT_TRUE(Compare(table, table).Equal());
}

// Writes beyond a limit fail as on a full disk.
TEST(Snapshot, AFailedExportLeavesFileAndMarksAsTheyWere) {
  const OwnFolder folder;
  const kavo::Table table(1, 8, VALUE_LEN);
  TableExport exports(table);
  InsertKeys(table, 0, 100);
  exports.WriteFull(folder.Path("full"));
  InsertKeys(table, 100, 200);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit limit{1000, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &limit);
  const std::string error = ErrorOf([&] { exports.WriteIncrement(folder.Path("full")); });
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, handler);
  EXPECT_NE(error.find("cannot be written"), std::string::npos) << error;
  EXPECT_FALSE(std::filesystem::exists(folder.Path("full.partial")));
  EXPECT_EQ(ErrorOfChain({folder.Path("full")}), "no error");
  EXPECT_EQ(exports.WriteIncrement(folder.Path("one")).Records(), 100U);
}

TEST(Snapshot, ComparisonSeesEveryKindOfDifference) {
  const struct {
    std::function<void(const kavo::Table&)> change;
    std::string difference;
  } cases[] = {
      {[](const kavo::Table& t) { t.Lookup(7)[VALUE_LEN - 1] ^= 1; }, "key 7: other value bytes"},
      {[](const kavo::Table& t) { t.LookupForUpdate(7); }, "key 7: exported in the first table, changed in the second"},
      {[](const kavo::Table& t) { InsertKeys(t, 70, 71); }, "key 70: only in the second table"},
      {[](const kavo::Table& t) { t.LookupOrInsert(7); }, "key 7: count 9 in the first table, 10 in the second"},
      {[](const kavo::Table& t) { t.LookupOrInsert(60); }, "key 60: count 3 in the first table, 4 in the second"},
      {[](const kavo::Table& t) { t.SetFilterFrequency(1), t.LookupOrInsert(60); },
       "key 60: without a value in the first table, changed in the second"},
  };
  for (const auto& [change, difference] : cases) {
    const kavo::Table first(1, 8, VALUE_LEN, TableType::FILTER);
    const kavo::Table second(2, 8, VALUE_LEN, TableType::FILTER);
    for (const kavo::Table* table : {&first, &second}) {
      InsertKeys(*table, 0, 50, NewState::EXPORTED);
      table->TryInsertCounted(60, 3);
    }
    EXPECT_TRUE(Compare(first, second).Equal());
    change(second);
    EXPECT_EQ(Compare(first, second).description, std::vector<std::string>{difference});
  }
}

}  // namespace
}  // namespace IncrementalExport
