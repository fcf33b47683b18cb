// The check and repair of UTF-8, compared with utfcpp alone, and the conversion of extended ASCII.

#include <benchmark/benchmark.h>
#include <utf8.h>

#include <iterator>

#include "bench_util.h"
#include "charencoding.h"

namespace {

constexpr size_t kTextBytes = 65536;

constexpr char kGerman[] = "Der Zug nach Köln fährt heute von Gleis fünf, nicht von acht. ";
constexpr char kRussian[] = "Поезд отправляется с девятого пути, а не с шестого. ";
constexpr char kJapanese[] = "電車は六番線ではなく九番線から出発します。";
constexpr char kEmoji[] = "🚆🚉🕘🔔🚇🛤🎫🧳";

void SetBytes(benchmark::State& state_, const std::string& text_) {
  state_.SetBytesProcessed(state_.iterations() * static_cast<int64_t>(text_.size()));
}

void UTF8Check_Daemon(benchmark::State& state_, const char* words_) {
  const std::string text = Repeated(words_, kTextBytes);
  for (auto _ : state_) {
    benchmark::DoNotOptimize(Utf8IsValid(text));
  }
  SetBytes(state_, text);
}

void UTF8Check_Utfcpp(benchmark::State& state_, const char* words_) {
  const std::string text = Repeated(words_, kTextBytes);
  for (auto _ : state_) {
    benchmark::DoNotOptimize(utf8::find_invalid(text.begin(), text.end()) == text.end());
  }
  SetBytes(state_, text);
}

void UTF8Repair_Daemon(benchmark::State& state_) {
  const std::string text = Repeated(std::string(kGerman) + "\xFF", kTextBytes);
  for (auto _ : state_) {
    benchmark::DoNotOptimize(Utf8ReplaceInvalid(text));
  }
  SetBytes(state_, text);
}

void UTF8Repair_Utfcpp(benchmark::State& state_) {
  const std::string text = Repeated(std::string(kGerman) + "\xFF", kTextBytes);
  for (auto _ : state_) {
    std::string repaired;
    utf8::replace_invalid(text.begin(), text.end(), std::back_inserter(repaired), 0xFFFD);
    benchmark::DoNotOptimize(repaired);
  }
  SetBytes(state_, text);
}

// Bytes of which one in nine is not ASCII, as in Latin-1 German.
std::string ExtendedAscii() { return Repeated("f\xFCnf Uhr, ", kTextBytes); }

void ExtAscii_Daemon(benchmark::State& state_) {
  const std::string text = ExtendedAscii();
  for (auto _ : state_) {
    benchmark::DoNotOptimize(ExtAsciiToUtf8String(text));
  }
  SetBytes(state_, text);
}

// The yardstick converts plain ISO 8859-1.
void ExtAscii_ByteLoop(benchmark::State& state_) {
  const std::string text = ExtendedAscii();
  for (auto _ : state_) {
    std::string converted;
    for (const char c : text) {
      const unsigned int byte = static_cast<unsigned char>(c);
      if (byte < 0x80) {
        converted += c;
      } else {
        converted += static_cast<char>(0xC0 | byte >> 6);
        converted += static_cast<char>(0x80 | (byte & 0x3F));
      }
    }
    benchmark::DoNotOptimize(converted);
  }
  SetBytes(state_, text);
}

BENCHMARK_CAPTURE(UTF8Check_Daemon, ascii, kEnglish);
BENCHMARK_CAPTURE(UTF8Check_Utfcpp, ascii, kEnglish);
BENCHMARK_CAPTURE(UTF8Check_Daemon, german, kGerman);
BENCHMARK_CAPTURE(UTF8Check_Utfcpp, german, kGerman);
BENCHMARK_CAPTURE(UTF8Check_Daemon, russian, kRussian);
BENCHMARK_CAPTURE(UTF8Check_Utfcpp, russian, kRussian);
BENCHMARK_CAPTURE(UTF8Check_Daemon, japanese, kJapanese);
BENCHMARK_CAPTURE(UTF8Check_Utfcpp, japanese, kJapanese);
BENCHMARK_CAPTURE(UTF8Check_Daemon, emoji, kEmoji);
BENCHMARK_CAPTURE(UTF8Check_Utfcpp, emoji, kEmoji);
BENCHMARK(UTF8Repair_Daemon);
BENCHMARK(UTF8Repair_Utfcpp);
BENCHMARK(ExtAscii_Daemon);
BENCHMARK(ExtAscii_ByteLoop);

}  // namespace
