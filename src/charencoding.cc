#include "charencoding.h"

#include <string.h>
#include <utf8.h>

#include <array>
#include <iterator>

#include "debug.h"

namespace {

constexpr uint64_t kNotAscii = 0x8080808080808080;  // The bits that no ASCII byte has.

bool IsContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// The number of ASCII bytes before the first other one in memory. REQUIRES: there is another one.
size_t LeadingAscii(uint64_t word) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  return static_cast<size_t>(__builtin_ctzll(word & kNotAscii)) / 8;
#else
  return static_cast<size_t>(__builtin_clzll(word & kNotAscii)) / 8;
#endif
}

// Where the ASCII bytes from p on end. In words: message texts are mostly ASCII, and at a step a
// byte the check would cost more than the reading.
const unsigned char* SkipAscii(const unsigned char* p, const unsigned char* end) {
  uint64_t words[2];
  while (static_cast<size_t>(end - p) >= sizeof(words)) {
    memcpy(words, p, sizeof(words));
    if (((words[0] | words[1]) & kNotAscii) != 0) {
      return (words[0] & kNotAscii) != 0 ? p + LeadingAscii(words[0])
                                         : p + sizeof(words[0]) + LeadingAscii(words[1]);
    }
    p += sizeof(words);
  }
  while (p < end && *p < 0x80) {
    ++p;
  }
  return p;
}

// Steps over one valid sequence of three or four bytes. False if there is none at p. Overlong
// forms, surrogates and code points above U+10FFFF show in the second byte at the latest.
//
// Each length has its own way out, so that the processor foresees where the next one starts.
bool SkipLongSequence(const unsigned char*& p, const unsigned char* end) {
  const unsigned char lead = p[0];
  const auto available = end - p;
  if (lead < 0xE0) {
    return false;
  }
  if (lead < 0xF0) {
    const unsigned char lowest = lead == 0xE0 ? 0xA0 : 0x80;
    const unsigned char highest = lead == 0xED ? 0x9F : 0xBF;
    if (available < 3 || p[1] < lowest || p[1] > highest || !IsContinuation(p[2])) {
      return false;
    }
    p += 3;
    return true;
  }
  const unsigned char lowest = lead == 0xF0 ? 0x90 : 0x80;
  const unsigned char highest = lead == 0xF4 ? 0x8F : 0xBF;
  if (lead > 0xF4 || available < 4 || p[1] < lowest || p[1] > highest || !IsContinuation(p[2]) ||
      !IsContinuation(p[3])) {
    return false;
  }
  p += 4;
  return true;
}

void AppendExtAscii(std::string& text, char c) {
  const unsigned char byte = static_cast<unsigned char>(c);
  if (byte < 0x80) {
    if (byte != 0x00) {
      text += c;
    }
    return;
  }
  if (byte >= 0xC0) {
    text += '\xC3';
    text += static_cast<char>(byte - 0x40);
    return;
  }
  switch (byte) {
    case 0xA0:
      text += "\xC3\xA1";  // a with acute
      break;
    case 0xA1:
      text += "\xC3\xAD";  // i with acute
      break;
    case 0xA2:
      text += "\xC3\xB3";  // o with acute
      break;
    case 0xA3:
      text += "\xC3\xBA";  // u with acute
      break;
    case 0xA4:
      text += "\xC3\xB1";  // n with tilde
      break;
    case 0xA5:
      text += "\xC3\x91";  // N with tilde
      break;
    case 0xA8:
      text += "\xC2\xBF";  // inverted question mark
      break;
    case 0xAD:
      text += "\xC2\xA1";  // inverted exclamation mark
      break;
    default:
      text += '\xC2';
      text += static_cast<char>(byte - 0x20);
  }
}

// What a character is to the word that is being read.
enum class Kind : unsigned char {
  kLetter,       // Belongs to it.
  kPunctuation,  // Belongs to it and ends it.
  kGap,          // A space or control character: ends it.
};

constexpr bool IsGap(uint32_t cp) { return Utf8IsSpace(cp) || Utf8IsControl(cp); }

constexpr Kind KindOf(uint32_t cp) {
  if (IsGap(cp)) {
    return Kind::kGap;
  }
  return Utf8IsBreak(cp) ? Kind::kPunctuation : Kind::kLetter;
}

// The first byte of U+0080 to U+00BF, the only characters beyond ASCII that may be no letters.
constexpr unsigned char kMixedLead = 0xC2;

// The kinds of the bytes of UTF-8. What is not ASCII is a letter or part of one, but kMixedLead may
// begin a gap, and so counts as one.
constexpr std::array<Kind, 256> MakeKinds() {
  std::array<Kind, 256> kinds{};
  for (uint32_t byte = 0; byte < 0x80; ++byte) {
    kinds[byte] = KindOf(byte);
  }
  kinds[kMixedLead] = Kind::kGap;
  return kinds;
}

constexpr std::array<Kind, 256> kKinds = MakeKinds();

unsigned char ByteAt(const char* p) { return static_cast<unsigned char>(*p); }

constexpr size_t kBlockBytes = 512;  // Looked at as one. Its ends take 1 KiB of stack.

// Finds the characters of the block at which a word may end: stores their places in ends and
// returns how many there are.
//
// No processor foresees the ends of words, and branches on them took most of the time of the
// splitting. So each place is stored, and the next one is stored over it unless it is an end.
size_t FindEnds(std::string_view block, uint16_t (&ends)[kBlockBytes]) {
  size_t count = 0;
  for (size_t i = 0; i < block.size(); ++i) {
    ends[count] = static_cast<uint16_t>(i);
    count += kKinds[ByteAt(&block[i])] != Kind::kLetter ? 1 : 0;
  }
  return count;
}

// Reads the words of a text, from each place where one may end to the next such place.
struct WordReader {
  // Stores the word that ends with the character at end, or before it, and returns true. False if
  // there is no such word: what was stored is to be stored over then, as above.
  bool Read(const char* end, std::string_view& word) {
    const char* next = end + 1;
    if (ByteAt(end) == kMixedLead) {
      if (!IsGap(ByteAt(next))) {
        return false;
      }
      ++next;
    }
    const bool is_punctuation = kKinds[ByteAt(end)] == Kind::kPunctuation;
    const bool is_word = (end > start) | (is_punctuation & !last_was_punctuation);
    word = {start, static_cast<size_t>(end - start) + (is_punctuation ? 1 : 0)};
    start = next;
    last_was_punctuation = is_punctuation;
    return is_word;
  }

  const char* start;  // Of the next word.
  bool last_was_punctuation = true;
};

}  // namespace

std::string ExtAsciiToUtf8Char(char c) {
  std::string text;
  AppendExtAscii(text, c);
  return text;
}

std::string ExtAsciiToUtf8String(const std::string& orig) {
  std::string text;
  text.reserve(orig.size());
  for (const char c : orig) {
    AppendExtAscii(text, c);
  }
  return text;
}

bool Utf8IsValid(const std::string& text_) {
  const auto* p = reinterpret_cast<const unsigned char*>(text_.data());
  const unsigned char* const end = p + text_.size();
  while ((p = SkipAscii(p, end)) < end) {
    // Other scripts come in runs of words with a single space between them, which is not worth a
    // look at 16 bytes. Most of their words are of sequences of two bytes.
    bool is_run = true;
    while (is_run) {
      while (end - p >= 2 && p[0] >= 0xC2 && p[0] < 0xE0 && IsContinuation(p[1])) {
        p += 2;
      }
      if (end - p >= 2 && p[0] < 0x80 && p[1] >= 0x80) {
        ++p;
      } else if (p < end && *p >= 0x80) {
        if (!SkipLongSequence(p, end)) {
          return false;
        }
      } else {
        is_run = false;
      }
    }
  }
  return true;
}

std::string Utf8ReplaceInvalid(const std::string& text_) {
  std::string valid;
  utf8::replace_invalid(text_.begin(), text_.end(), std::back_inserter(valid), 0xFFFD);
  return valid;
}

std::string ToValidUtf8(std::string text_, unsigned int mask_, const char* reencoding_,
                        void (*inspect_)(const std::string&)) {
  try {
    if (Utf8IsValid(text_)) {
      Debug(mask_, "Original is valid UTF-8");
      return text_;
    }
    Debug(mask_, "%s", reencoding_);
    text_ = Utf8ReplaceInvalid(text_);
    if (inspect_ != nullptr) {
      inspect_(text_);
    }
    if (Utf8IsValid(text_)) {
      return text_;
    }
    Debug(kDebugNormal, "Unable to re-encode as UTF-8");
  } catch (const utf8::exception& e) {
    Debug(kDebugNormal, "Error checking encoding: %s", e.what());
  }
  return "";
}

std::vector<std::string_view> Utf8FindWords(std::string_view text_) {
  std::vector<std::string_view> words;
  words.reserve(text_.size() / 4);  // Mostly enough. What is too much is never touched.
  WordReader reader{text_.data()};
  for (size_t done = 0; done < text_.size(); done += kBlockBytes) {
    const std::string_view block = text_.substr(done, kBlockBytes);
    uint16_t ends[kBlockBytes];
    const size_t end_count = FindEnds(block, ends);
    size_t word_count = words.size();
    words.resize(word_count + end_count);  // As many as there may be.
    for (size_t i = 0; i < end_count; ++i) {
      word_count += reader.Read(block.data() + ends[i], words[word_count]) ? 1 : 0;
    }
    words.resize(word_count);
  }
  const std::string_view rest = text_.substr(static_cast<size_t>(reader.start - text_.data()));
  if (!rest.empty()) {
    words.push_back(rest);
  }
  return words;
}
