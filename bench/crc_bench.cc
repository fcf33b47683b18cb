// The CRC, compared with a plain byte table and Boost.CRC.

#include <benchmark/benchmark.h>

#include <array>
#include <vector>

#include "crc.h"
#ifdef HAVE_BOOST_CRC
#include <boost/crc.hpp>
#endif

namespace {

constexpr int kPolynomial = 0x8408;

std::vector<uint8_t> Bytes(size_t length_) {
  std::vector<uint8_t> bytes(length_);
  for (size_t i = 0; i < length_; ++i) {
    bytes[i] = static_cast<uint8_t>(i * 31 + i / 256);
  }
  return bytes;
}

size_t Length(const benchmark::State& state_) { return static_cast<size_t>(state_.range(0)); }

void SetBytes(benchmark::State& state_) {
  state_.SetBytesProcessed(state_.iterations() * state_.range(0));
}

void CRC_Daemon(benchmark::State& state_) {
  const std::vector<uint8_t> bytes = Bytes(Length(state_));
  for (auto _ : state_) {
    benchmark::DoNotOptimize(CRC(0, bytes.data(), bytes.size()));
  }
  SetBytes(state_);
}

void CRC_ByteTable(benchmark::State& state_) {
  std::array<uint32_t, 256> table{};
  for (uint32_t i = 0; i < table.size(); ++i) {
    uint32_t entry = i;
    for (int step = 0; step < 8; ++step) {
      entry = (entry & 1) != 0 ? (entry >> 1) ^ kPolynomial : entry >> 1;
    }
    table[i] = entry;
  }
  benchmark::DoNotOptimize(table);
  const std::vector<uint8_t> bytes = Bytes(Length(state_));
  for (auto _ : state_) {
    uint32_t crc = 0;
    for (const uint8_t byte : bytes) {
      crc = table[(crc ^ byte) & 0xFF] ^ (crc >> 8);
    }
    benchmark::DoNotOptimize(crc);
  }
  SetBytes(state_);
}

BENCHMARK(CRC_Daemon)->Arg(200)->Arg(65536);
BENCHMARK(CRC_ByteTable)->Arg(200)->Arg(65536);

#ifdef HAVE_BOOST_CRC
void CRC_Boost(benchmark::State& state_) {
  const std::vector<uint8_t> bytes = Bytes(Length(state_));
  for (auto _ : state_) {
    boost::crc_optimal<16, 0x1021, 0, 0, true, true> crc;
    crc.process_bytes(bytes.data(), bytes.size());
    benchmark::DoNotOptimize(crc.checksum());
  }
  SetBytes(state_);
}

BENCHMARK(CRC_Boost)->Arg(200)->Arg(65536);
#endif

}  // namespace
