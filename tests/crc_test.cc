#include "crc.h"

#include "test_util.h"

namespace {

uint16_t CRCOf(uint16_t initial, const std::string& text) {
  return CRC(initial, reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

// One bit at a time, as the polynomial says.
uint16_t BitwiseCRC(uint16_t crc, const std::string& text) {
  for (const char c : text) {
    crc = static_cast<uint16_t>(crc ^ static_cast<unsigned char>(c));
    for (int bit = 0; bit < 8; ++bit) {
      crc = static_cast<uint16_t>((crc & 1) != 0 ? (crc >> 1) ^ 0x8408 : crc >> 1);
    }
  }
  return crc;
}

std::string Bytes(size_t length) {
  std::string bytes;
  for (size_t i = 0; i < length; ++i) {
    bytes += static_cast<char>(i * 31 + i / 256);
  }
  return bytes;
}

TEST(CRCTest, HasTheCataloguedCheckValues) {
  EXPECT_EQ(0x2189, CRCOf(0, "123456789"));
  EXPECT_EQ(0x6F91, CRCOf(0xFFFF, "123456789"));
}

TEST(CRCTest, OfOneByteIsItsTableEntry) {
  EXPECT_EQ(0x0000, CRCOf(0, std::string(1, '\x00')));
  EXPECT_EQ(0x1189, CRCOf(0, "\x01"));
  EXPECT_EQ(0x2312, CRCOf(0, "\x02"));
  EXPECT_EQ(0x0F78, CRCOf(0, "\xFF"));
}

TEST(CRCTest, LeavesTheChecksumAloneForNoBytes) {
  EXPECT_EQ(0, CRC(0, nullptr, 0));
  EXPECT_EQ(0x1234, CRC(0x1234, nullptr, 0));
}

TEST(CRCTest, AgreesWithTheBitwiseReference) {
  for (size_t length = 0; length < 300; ++length) {
    for (const uint16_t initial : {uint16_t{0}, uint16_t{0xFFFF}, uint16_t{0xA55A}}) {
      const std::string bytes = Bytes(length);
      EXPECT_EQ(BitwiseCRC(initial, bytes), CRCOf(initial, bytes)) << length;
    }
  }
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text(1, static_cast<char>(byte));
    EXPECT_EQ(BitwiseCRC(0, text), CRCOf(0, text)) << byte;
  }
}

TEST(CRCTest, PiecesGiveTheSameAsTheWhole) {
  const std::string bytes = Bytes(100);
  for (size_t cut = 0; cut <= bytes.size(); ++cut) {
    EXPECT_EQ(CRCOf(0, bytes), CRCOf(CRCOf(0, bytes.substr(0, cut)), bytes.substr(cut))) << cut;
  }
}

// char is signed on x86 and unsigned on ARM; with its sign extended, a byte would spoil the rest.
TEST(CRCTest, DoesNotCareWhetherCharIsSigned) {
  const unsigned char bytes[] = {0x80, 0xFF, 0x7F, 0xC3, 0xA9, 0x00, 0xFE};
  const std::string text(reinterpret_cast<const char*>(bytes), sizeof(bytes));
  uint16_t crc = 0;
  for (const unsigned char byte : bytes) {
    crc = static_cast<uint16_t>(crc ^ byte);
    for (int bit = 0; bit < 8; ++bit) {
      crc = static_cast<uint16_t>((crc >> 1) ^ ((crc & 1) != 0 ? 0x8408 : 0));
    }
  }
  EXPECT_EQ(crc, CRCOf(0, text));
}

TEST(FileCRCTest, IsZeroForAnEmptyAndForAMissingFile) {
  const TemporaryDirectory directory;
  EXPECT_EQ(0, FileCRC(directory.Write("empty", "")));
  EXPECT_EQ("", LogOf([&] { EXPECT_EQ(0, FileCRC(directory / "missing")); }, kDebugAvailable));
}

TEST(FileCRCTest, IsZeroForWhatIsNoRegularFile) {
  const TemporaryDirectory directory;
  const std::string fifo = directory / "fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  for (const std::string& path : {directory.path(), fifo, std::string("/dev/zero")}) {
    EXPECT_EQ("", LogOf([&] { EXPECT_EQ(0, FileCRC(path)); }, kDebugAvailable)) << path;
  }
}

TEST(FileCRCTest, TakesTheBytesAsTheyAre) {
  const TemporaryDirectory directory;
  const std::string bytes("\r\n\n\r\x1A\0\xFF\xFE z", 10);
  EXPECT_EQ(BitwiseCRC(0, bytes), FileCRC(directory.Write("file", bytes)));
}

TEST(FileCRCTest, ClosesTheFile) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("file", "text");
  FileCRC(path);
  EXPECT_THAT(DescriptorsOf(path), testing::IsEmpty());
}

TEST(FileCRCTest, CoversTheWholeFile) {
  const TemporaryDirectory directory;
  for (const size_t length : {1U, 1023U, 1024U, 1025U, 16383U, 16384U, 16385U, 100000U}) {
    const std::string bytes = Bytes(length);
    EXPECT_EQ(CRCOf(0, bytes), FileCRC(directory.Write("file", bytes))) << length;
  }
}

}  // namespace
