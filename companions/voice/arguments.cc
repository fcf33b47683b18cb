#include "arguments.h"

#include <algorithm>

#include "format.h"

namespace {

constexpr char kDigits[] = "0123456789";
constexpr char kNameCharacters[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.+-";

struct Number {
  const char* name;
  int Arguments::*place;
  int minimum;
  int maximum;
};

constexpr Number kNumbers[] = {
    {"speed", &Arguments::speed, 80, 450},  {"pitch", &Arguments::pitch, 0, 99},
    {"volume", &Arguments::volume, 0, 200}, {"rate", &Arguments::rate, 4000, 192000},
    {"limit", &Arguments::limit, 1, 3600},
};

int ParseNumber(const Number& number_, const std::string& text_) {
  constexpr size_t kMostDigits = 6;
  const bool is_number = !text_.empty() && text_.size() <= kMostDigits &&
                         text_.find_first_not_of(kDigits) == std::string::npos;
  const int value = is_number ? ParseInteger(text_) : -1;
  if (value < number_.minimum || value > number_.maximum) {
    throw Format("%s must be a number from %d to %d, not \"%s\"", number_.name, number_.minimum,
                 number_.maximum, text_.c_str());
  }
  return value;
}

}  // namespace

Arguments ParseArguments(const std::vector<std::string>& words_) {
  Arguments arguments;
  for (const std::string& word : words_) {
    const size_t end = word.find('=');
    const std::string name = word.substr(0, end);
    const std::string value = end == std::string::npos ? "" : word.substr(end + 1);
    const auto number =
        std::find_if(std::begin(kNumbers), std::end(kNumbers),
                     [&name](const Number& number_) { return name == number_.name; });
    if (end == std::string::npos || (number == std::end(kNumbers) && name != "voice")) {
      throw Format("unknown argument \"%s\"", word.c_str());
    }
    if (number != std::end(kNumbers)) {
      arguments.*number->place = ParseNumber(*number, value);
    } else if (value.empty() || value.find_first_not_of(kNameCharacters) != std::string::npos) {
      throw Format("\"%s\" is not the name of a voice", value.c_str());
    } else {
      arguments.voice = value;
    }
  }
  return arguments;
}
