#include "crc.h"

#include <array>

#include "format.h"

namespace {

// The number of bytes that one step takes, each by its own table. The look-ups of a step do not
// wait for one another, so this is 11 times as fast as a step for each byte on x86-64. The tables
// take 8 KiB: small ARM cores have 16 or 32 KiB of data cache.
constexpr size_t kSlices = 16;  // NOMUTATE(constant): any number of slices gives the same checksum.

using Table = std::array<uint16_t, 256>;

// Table 0 takes the checksum over one byte; table k takes it over k zero bytes more.
constexpr std::array<Table, kSlices> MakeTables() {
  std::array<Table, kSlices> tables{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t entry = i;
    for (int step = 0; step < 8; ++step) {
      entry = (entry & 1) != 0 ? (entry >> 1) ^ 0x8408 : entry >> 1;
    }
    tables[0][i] = static_cast<uint16_t>(entry);
  }
  for (size_t k = 1; k < kSlices; ++k) {
    for (size_t i = 0; i < 256; ++i) {
      const uint32_t before = tables[k - 1][i];
      tables[k][i] = static_cast<uint16_t>(tables[0][before & 0xFF] ^ (before >> 8));
    }
  }
  return tables;
}

constexpr std::array<Table, kSlices> kTables = MakeTables();
static_assert(kTables[0][1] == 0x1189 && kTables[0][2] == 0x2312 && kTables[0][255] == 0x0F78);

// The checksum over kSlices bytes. The old one affects only the first two bytes.
uint32_t Step(uint32_t crc_, const uint8_t* data_) {
  uint32_t next =
      kTables[kSlices - 1][(crc_ ^ data_[0]) & 0xFF] ^ kTables[kSlices - 2][(crc_ >> 8) ^ data_[1]];
#pragma GCC unroll 16  // At -O2 it would stay a loop.
  for (size_t i = 2; i < kSlices; ++i) {
    next ^= kTables[kSlices - 1 - i][data_[i]];
  }
  return next;
}

}  // namespace

uint16_t CRC(uint16_t crc_, const uint8_t* data_, size_t length_) {
  uint32_t crc = crc_;
  size_t i = 0;
  // NOMUTATE(operator): the last bytes may also be taken one by one.
  for (; length_ - i >= kSlices; i += kSlices) {
    crc = Step(crc, data_ + i);
  }
  for (; i < length_; ++i) {
    crc = kTables[0][(crc ^ data_[i]) & 0xFF] ^ (crc >> 8);
  }
  return static_cast<uint16_t>(crc);
}

uint16_t FileCRC(const std::string& path_) {
  InputFile file(path_);
  uint16_t crc = 0;
  // NOMUTATE(constant): any size gives the same checksum.
  uint8_t block[16384];  // Fits into a small data cache between reading and summing.
  size_t length = 0;     // NOMUTATE(constant): the loop sets it.
  do {
    length = file.Read(block, sizeof(block));
    crc = CRC(crc, block, length);
  } while (length == sizeof(block));
  return crc;
}
