#include "crc.h"

#include <array>

#include "format.h"

namespace {

constexpr std::array<uint32_t, 256> MakeTable() {
  std::array<uint32_t, 256> table{};
  for (uint32_t i = 0; i < table.size(); ++i) {
    uint32_t entry = i;
    for (int step = 0; step < 8; ++step) {
      entry = (entry & 1) != 0 ? (entry >> 1) ^ 0x8408 : entry >> 1;
    }
    table[i] = entry;
  }
  return table;
}

constexpr std::array<uint32_t, 256> kTable = MakeTable();
static_assert(kTable[1] == 0x1189 && kTable[2] == 0x2312 && kTable[255] == 0x0F78);

}  // namespace

uint16_t CRC(uint16_t crc_, const uint8_t* data_, size_t length_) {
  uint32_t crc = crc_;
  for (size_t i = 0; i < length_; ++i) {
    crc = kTable[(crc ^ data_[i]) & 0xFF] ^ (crc >> 8);
  }
  return static_cast<uint16_t>(crc);
}

uint16_t FileCRC(const std::string& path_) {
  InputFile file(path_);
  uint16_t crc = 0;
  uint8_t chunk[1024];
  size_t length = 0;
  while ((length = file.Read(chunk, sizeof(chunk))) > 0) {
    crc = CRC(crc, chunk, length);
  }
  return crc;
}
