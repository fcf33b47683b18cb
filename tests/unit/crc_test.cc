#include "crc.h"

#include <algorithm>
#include <random>

#include "model/text.h"
#include "test_util.h"

namespace {

uint16_t CRCOf(uint16_t initial_, const std::string& text_) {
  return CRC(initial_, reinterpret_cast<const uint8_t*>(text_.data()), text_.size());
}

std::string Bytes(size_t length_) {
  std::string bytes;
  for (size_t i = 0; i < length_; ++i) {
    bytes += static_cast<char>(i * 31 + i / 256);
  }
  return bytes;
}

TEST(CRCTest, HasTheCheckValuesOfTheCatalogue) {
  EXPECT_EQ(0x2189, CRCOf(0, "123456789"));
  EXPECT_EQ(0x6F91, CRCOf(0xFFFF, "123456789"));
}

TEST(CRCTest, YieldsTheTableEntryForOneByte) {
  EXPECT_EQ(0x0000, CRCOf(0, std::string(1, '\x00')));
  EXPECT_EQ(0x1189, CRCOf(0, "\x01"));
  EXPECT_EQ(0x2312, CRCOf(0, "\x02"));
  EXPECT_EQ(0x0F78, CRCOf(0, "\xFF"));
}

TEST(CRCTest, KeepsTheChecksumForNoBytes) {
  EXPECT_EQ(0, CRC(0, nullptr, 0));
  EXPECT_EQ(0x1234, CRC(0x1234, nullptr, 0));
}

TEST(CRCTest, YieldsTheSameForPiecesAsForTheWhole) {
  const std::string bytes = Bytes(100);
  for (size_t cut = 0; cut <= bytes.size(); ++cut) {
    EXPECT_EQ(CRCOf(0, bytes), CRCOf(CRCOf(0, bytes.substr(0, cut)), bytes.substr(cut))) << cut;
  }
}

TEST(FileCRCTest, YieldsZeroForAnEmptyOrMissingFile) {
  const TemporaryDirectory directory;
  EXPECT_EQ(0, FileCRC(directory.Write("empty", "")));
  EXPECT_EQ("", WholeLogOf([&] { EXPECT_EQ(0, FileCRC(directory / "missing")); }));
}

TEST(FileCRCTest, ReadsAllBytesUnchanged) {
  const TemporaryDirectory directory;
  const std::string bytes("\r\n\n\r\x1A\0\xFF\xFE z", 10);
  EXPECT_EQ(model::CRC(0, bytes), FileCRC(directory.Write("file", bytes)));
}

TEST(FileCRCTest, CoversTheWholeFile) {
  const TemporaryDirectory directory;
  for (const size_t length : {1U, 1023U, 1024U, 1025U, 16383U, 16384U, 16385U, 100000U}) {
    const std::string bytes = Bytes(length);
    EXPECT_EQ(CRCOf(0, bytes), FileCRC(directory.Write("file", bytes))) << length;
  }
}

// The fast version against the plain one of the model.

TEST(CRCTest, AgreesWithTheModelAtEveryLengthAndAlignment) {
  std::mt19937 random(1);
  std::vector<uint8_t> bytes(200);
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
  for (size_t start = 0; start < 16; ++start) {
    for (size_t length = 0; start + length <= bytes.size(); ++length) {
      const auto initial = static_cast<uint16_t>(random());
      EXPECT_EQ(model::CRC(initial, std::string(bytes.begin() + static_cast<long>(start),
                                                bytes.begin() + static_cast<long>(start + length))),
                CRC(initial, &bytes[start], length))
          << start << " " << length;
    }
  }
}

}  // namespace
