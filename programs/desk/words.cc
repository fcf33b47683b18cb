#include "words.h"

#include <stdint.h>
#include <stdlib.h>
#include <utf8.h>

#include "charencoding.h"
#include "glossary.h"

namespace {

constexpr char kPauseTag[] = "\\pau=300\\ ";  // At the start of a message.
constexpr size_t kMaxWordChars = 100;

// The default speed of the translator espeak-ng in words per minute, and its measured pace at that
// speed, with pauses between sentences.
constexpr int kDefaultSpeed = 175;
constexpr double kDefaultPace = 2.5;  // Words per second.

}  // namespace

std::vector<std::string> SpokenWords(const std::string& text_) {
  std::vector<std::string> words;
  std::string word;
  size_t chars = 0;
  bool follows_mark = true;
  const auto end_word = [&](bool is_wanted_) {
    if (chars > 0 && is_wanted_) {
      words.push_back(word);
    }
    word.clear();
    chars = 0;
  };
  for (auto next = text_.begin(); next != text_.end();) {
    const auto start = next;
    const uint32_t cp = utf8::next(next, text_.end());
    const bool is_gap = Utf8IsSpace(cp) || Utf8IsControl(cp);
    const bool is_mark = !is_gap && Utf8IsBreak(cp);
    if (!is_gap && ++chars <= kMaxWordChars) {
      word.append(start, next);
    }
    if (is_gap || is_mark) {
      end_word(!is_mark || chars > 1 || !follows_mark);
    }
    follows_mark = is_mark;
  }
  end_word(true);
  return words;
}

std::string SnippetOf(const std::string& text_, const std::string& glossary_path_) {
  std::vector<std::string> words = SpokenWords(text_);
  try {
    const Glossary glossary(glossary_path_);
    for (std::string& word : words) {
      word = glossary.SubstituteSpeech(word);
    }
  } catch (const std::string&) {  // A preview without the glossary is better than none.
  }
  std::string snippet = kPauseTag;
  for (const std::string& word : words) {
    snippet += word + " ";
  }
  return snippet;
}

std::vector<std::string> TranslatorArguments(const std::string& conv_opts_) {
  constexpr char kBlanks[] = " \t\n";
  std::vector<std::string> arguments;
  for (size_t at = conv_opts_.find_first_not_of(kBlanks); at != std::string::npos;) {
    const size_t end = conv_opts_.find_first_of(kBlanks, at);
    arguments.push_back(conv_opts_.substr(at, end - at));
    at = conv_opts_.find_first_not_of(kBlanks, end);
  }
  return arguments;
}

int NumberAmong(const std::vector<std::string>& arguments_, const std::string& name_,
                int default_) {
  int number = default_;
  for (const std::string& argument : arguments_) {
    if (argument.compare(0, name_.size() + 1, name_ + "=") == 0) {
      const long value = strtol(argument.c_str() + name_.size() + 1, nullptr, 10);
      number = value > 0 && value < 1000000 ? static_cast<int>(value) : default_;
    }
  }
  return number;
}

double PaceOf(const std::vector<std::string>& arguments_) {
  return kDefaultPace * NumberAmong(arguments_, "speed", kDefaultSpeed) / kDefaultSpeed;
}
