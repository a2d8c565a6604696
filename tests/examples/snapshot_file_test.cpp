// The snapshot file by itself: nothing but a whole, unaltered file is accepted, and the caller is told what is wrong.
#include <functional>
#include <optional>

#include "examples/export_test_support.h"
#include "incremental_export/snapshot_reader.h"
#include "incremental_export/snapshot_writer.h"

namespace IncrementalExport {
namespace {

constexpr unsigned VALUE_LEN = 5;

class SnapshotFile : public ExportTest {
 protected:
  // A header for `type`, with the records of a small file: both export states, and for filter tables keys without
  // value.
  void WriteSmallFile(const std::string& path, TableType type) const {
    SnapshotHeader header;
    header.tableType = type;
    header.valueLen = VALUE_LEN;
    SnapshotWriter writer(path, header);
    for (const SnapshotRecord& record : SmallRecords(type)) {
      writer.Append(record);
    }
    writer.Commit();
  }

  static std::vector<SnapshotRecord> SmallRecords(TableType type) {
    static Bytes value{1, 2, 3, 4, 255};
    const bool filter = type == TableType::FILTER;
    std::vector<SnapshotRecord> records{
        {0, filter ? 7U : 0U, ExportState::EXPORTED, true, value.data()},
        {0x7FFF'FFFF'FFFF'FFFF, filter ? 0xFFFF'FFFFU : 0U, ExportState::FULL_ONLY, true, value.data()}};
    if (filter) {
      records.push_back({42, 3, ExportState::NONE, false, nullptr});
    }
    return records;
  }
};

TEST_F(SnapshotFile, RecordsReadBackAsWritten) {
  for (const TableType type : BOTH_TYPES) {
    const std::string path = Path("snapshot");
    WriteSmallFile(path, type);
    SnapshotReader reader(path);
    reader.Verify();
    for (const SnapshotRecord& expected : SmallRecords(type)) {
      const std::optional<SnapshotRecord> record = reader.Next();
      ASSERT_TRUE(record);
      EXPECT_EQ(record->key, expected.key);
      EXPECT_EQ(record->count, expected.count);
      EXPECT_EQ(record->state, expected.state);
      ASSERT_EQ(record->admitted, expected.admitted);
      if (record->admitted) {
        EXPECT_TRUE(std::equal(record->value, record->value + VALUE_LEN, expected.value));
      }
    }
    EXPECT_FALSE(reader.Next());
  }
}

// Other programs read the file by the description, not by this code.
TEST_F(SnapshotFile, BytesAreThoseOfTheDescription) {
  const std::string path = Path("snapshot");
  WriteSmallFile(path, TableType::FILTER);
  const Bytes bytes = ReadFile(path);
  ASSERT_EQ(bytes.size(), 72U + 3 * 16 + 2 * VALUE_LEN);
  const Bytes start{'K', 'A', 'V', 'O', 'S', 'N', 'A', 'P', 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, VALUE_LEN, 0, 0, 0};
  EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 24), start);
  EXPECT_EQ(Bytes(bytes.begin() + 40, bytes.begin() + 56), (Bytes{2, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
  const Bytes second{255, 255, 255, 255, 255, 255, 255, 127, 255, 255, 255, 255, 2, 1, 0, 0, 1, 2, 3, 4, 255};
  EXPECT_EQ(Bytes(bytes.begin() + 93, bytes.begin() + 114), second);
  const Bytes third{42, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(Bytes(bytes.begin() + 114, bytes.end()), third);
}

TEST_F(SnapshotFile, EveryFlippedByteIsRefused) {
  for (const TableType type : BOTH_TYPES) {
    const std::string path = Path("snapshot");
    WriteSmallFile(path, type);
    const Bytes whole = ReadFile(path);
    ASSERT_EQ(ErrorOfChain({path}), "no error");
    for (std::size_t i = 0; i < whole.size(); ++i) {
      for (const unsigned flip : {0x01U, 0x80U, 0xFFU}) {
        Bytes damaged = whole;
        damaged[i] = static_cast<unsigned char>(damaged[i] ^ flip);
        WriteFile(path, damaged);
        EXPECT_EQ(ErrorOfChain({path}).find(path + ": "), 0U) << "byte " << i << " flipped by " << flip;
      }
    }
  }
}

TEST_F(SnapshotFile, EveryOtherLengthIsRefused) {
  const std::string path = Path("snapshot");
  WriteSmallFile(path, TableType::FILTER);
  const Bytes whole = ReadFile(path);
  for (std::size_t length = 0; length < whole.size() + 40; ++length) {
    Bytes other = whole;
    other.resize(length);
    WriteFile(path, other);
    EXPECT_EQ(ErrorOfChain({path}).find(path + ": is truncated") == 0, length != whole.size()) << length;
  }
}

// Checksums right, contents wrong: what a faulty or hostile writer would make.
TEST_F(SnapshotFile, ForgedHeadersAreRefusedWithTheirCause) {
  const std::string path = Path("snapshot");
  WriteSmallFile(path, TableType::FILTER);
  const Bytes whole = ReadFile(path);
  const SnapshotHeader good = SnapshotReader(path).Header();
  const auto errorOf = [&](const std::function<void(SnapshotHeader&)>& forge) {
    SnapshotHeader header = good;
    forge(header);
    const HeaderBytes forged = EncodeHeader(header);
    Bytes bytes = whole;
    std::copy(forged.begin(), forged.end(), bytes.begin());
    WriteFile(path, bytes);
    const std::string error = ErrorOfChain({path});
    EXPECT_EQ(error.find(path + ": "), 0U) << error;
    return error.substr(path.size() + 2);
  };
  EXPECT_EQ(errorOf([](SnapshotHeader& h) { h.kind = static_cast<SnapshotKind>(2); }), "unknown kind 2");
  EXPECT_EQ(errorOf([](SnapshotHeader& h) { h.tableType = static_cast<TableType>(2); }), "unknown table type 2");
  EXPECT_EQ(errorOf([](SnapshotHeader& h) { h.sequence = 1; }), "sequence number 1 does not fit its kind");
  EXPECT_EQ(errorOf([](SnapshotHeader& h) { h.kind = SnapshotKind::INCREMENT; }),
            "sequence number 0 does not fit its kind");
  // Two values more than fit, and counts whose products pass 64 bits to come out right.
  const std::string truncated = "is truncated or has bytes too many: 130 bytes do not hold ";
  EXPECT_EQ(errorOf([](SnapshotHeader& h) { h.admitted = 4; }).find(truncated), 0U);
  EXPECT_EQ(errorOf([](SnapshotHeader& h) { h.counted += std::uint64_t{1} << 60; }).find(truncated), 0U);
  EXPECT_EQ(errorOf([](SnapshotHeader& h) { h.valueLen = 4; }).find(truncated), 0U);
  // The same length, otherwise divided.
  EXPECT_NE(errorOf([](SnapshotHeader& h) {
              h.valueLen = 10;
              h.admitted = 1;
              h.counted = 2;
            }),
            "no error");
  // A basic table's file has no keys without a value, and no counts.
  EXPECT_NE(errorOf([](SnapshotHeader& h) { h.tableType = TableType::BASIC; }).find("is damaged: no record can have"),
            std::string::npos);

  Bytes other = whole;
  other[8] = 2;
  WriteFile(path, other);
  EXPECT_EQ(ErrorOfChain({path}), path + ": is of format version 2; this program reads version 1");
  other = whole;
  other[0] = 'k';
  WriteFile(path, other);
  EXPECT_EQ(ErrorOfChain({path}), path + ": is not a snapshot: it does not begin with KAVOSNAP");
  EXPECT_NE(ErrorOfChain({Path("absent")}).find(": cannot be opened: "), std::string::npos);
  EXPECT_NE(ErrorOfChain({testing::TempDir()}).find(": "), std::string::npos);
}

TEST_F(SnapshotFile, UncommittedFileLeavesTheOldOneAndIsItselfNoSnapshot) {
  const std::string path = Path("snapshot");
  WriteSmallFile(path, TableType::BASIC);
  const Bytes old = ReadFile(path);
  {
    SnapshotHeader header;
    header.valueLen = VALUE_LEN;
    SnapshotWriter writer(path, header);
    // Enough for several buffers.
    for (int i = 0; i < 200'000; ++i) {
      writer.Append(SmallRecords(TableType::BASIC).front());
    }
    // What a crash would leave.
    EXPECT_EQ(ReadFile(path), old);
    EXPECT_EQ(ErrorOfChain({path + ".partial"}), path + ".partial: is not a snapshot: it does not begin with KAVOSNAP");
  }
  EXPECT_EQ(ReadFile(path), old);
  EXPECT_FALSE(std::filesystem::exists(path + ".partial"));
}

}  // namespace
}  // namespace IncrementalExport
