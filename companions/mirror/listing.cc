#include "listing.h"

#include <string.h>
#include <strings.h>

#include <algorithm>
#include <string_view>
#include <utility>

namespace {

using std::string_view;

bool IsDigit(char c_) { return c_ >= '0' && c_ <= '9'; }

bool IsNumber(string_view text_) {
  return !text_.empty() && std::all_of(text_.begin(), text_.end(), IsDigit);
}

// Reads a number. False if text_ is empty, has other characters than digits, or too many digits.
bool ReadSize(string_view text_, uint64_t* size_) {
  constexpr size_t kMaxDigits = 19;  // Fits into 64 bits in any case.
  if (!IsNumber(text_) || text_.size() > kMaxDigits) {
    return false;
  }
  *size_ = 0;
  for (const char digit : text_) {
    *size_ = *size_ * 10 + static_cast<uint64_t>(digit - '0');
  }
  return true;
}

// Compares without regard to case.
bool IsSame(string_view text_, string_view other_) {
  return text_.size() == other_.size() &&
         strncasecmp(text_.data(), other_.data(), text_.size()) == 0;
}

// Moves the text before the next separator_ to part_, and removes the separator. False if there is
// none.
bool Cut(string_view* text_, char separator_, string_view* part_) {
  const size_t end = text_->find(separator_);
  if (end == string_view::npos) {
    return false;
  }
  *part_ = text_->substr(0, end);
  text_->remove_prefix(end + 1);
  return true;
}

// Reads a line of the form kFacts. False if the line makes no sense. is_file_: it is a regular
// file, and file_ is set.
bool ReadFacts(string_view line_, RemoteFile* file_, bool* is_file_) {
  string_view facts;
  if (!Cut(&line_, ' ', &facts) || facts.empty() || facts.back() != ';' || line_.empty()) {
    return false;
  }
  bool is_typed = false;
  bool has_size = false;
  bool has_time = false;
  string_view fact;
  while (Cut(&facts, ';', &fact)) {
    string_view name;
    if (!Cut(&fact, '=', &name)) {
      return false;
    }
    if (IsSame(name, "type")) {
      is_typed = true;
      *is_file_ = IsSame(fact, "file");
    } else if (IsSame(name, "size")) {
      has_size = ReadSize(fact, &file_->size);
    } else if (IsSame(name, "modify")) {
      has_time = !fact.empty();
      file_->stamp.assign(fact);
    }
  }
  file_->is_bare = !(has_size && has_time);
  file_->name.assign(line_);
  return is_typed;
}

// The words of a line in columns, from the left.
class Words {
 public:
  explicit Words(string_view line_) : rest(line_) {}

  // The next word; empty at the end.
  string_view Next() {
    rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
    const string_view word = rest.substr(0, rest.find(' '));
    rest.remove_prefix(word.size());
    return word;
  }

  // The text after the last word and one blank.
  string_view Rest() const { return rest.empty() ? rest : rest.substr(1); }

 private:
  string_view rest;
};

bool IsMonth(string_view word_) {
  const char months[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
  for (size_t i = 0; word_.size() == 3 && i < strlen(months); i += 3) {
    if (IsSame(word_, string_view(months + i, 3))) {
      return true;
    }
  }
  return false;
}

// "00:07" or "2026", also "00:07:33".
bool IsClockOrYear(string_view word_) {
  return word_.size() >= 4 && IsDigit(word_[0]) &&
         std::all_of(word_.begin(), word_.end(), [](char c_) { return IsDigit(c_) || c_ == ':'; });
}

// Skips a time that begins with the next word: "Nov 21 00:07", "21 Nov 2026" or "2026-11-21 00:07".
// False if there is none.
bool TakeTime(Words* words_) {
  const string_view first = words_->Next();
  const bool is_date = first.size() == strlen("2026-11-21") && first[4] == '-' && first[7] == '-';
  if (!is_date) {
    const string_view second = words_->Next();
    const bool is_day_first = IsNumber(first) && IsMonth(second);
    if (!is_day_first && !(IsMonth(first) && IsNumber(second))) {
      return false;
    }
  }
  return IsClockOrYear(words_->Next());
}

// "-rw-r--r--    1 owner group     5 Nov 21 00:07 name". The size is the number before the time, as
// some servers omit columns and owners can have blanks.
bool ReadLongColumns(string_view line_, RemoteFile* file_, bool* is_file_) {
  Words words(line_);
  words.Next();
  for (string_view word = words.Next(); !word.empty(); word = words.Next()) {
    Words after = words;
    if (ReadSize(word, &file_->size) && TakeTime(&after) && !after.Rest().empty()) {
      *is_file_ = line_[0] == '-';
      const string_view name = after.Rest();
      const char* stamp = word.data() + word.size() + 1;
      file_->stamp.assign(stamp, static_cast<size_t>(name.data() - 1 - stamp));
      file_->name.assign(name);
      return true;
    }
  }
  return false;
}

// "11-21-26  12:07AM                    5 name", or "<DIR>" instead of the size.
bool ReadShortColumns(string_view line_, RemoteFile* file_, bool* is_file_) {
  Words words(line_);
  const string_view date = words.Next();
  const string_view clock = words.Next();
  const string_view size = words.Next();
  *is_file_ = ReadSize(size, &file_->size);
  if (date.size() < 8 || date[2] != '-' || !(*is_file_ || size == "<DIR>") ||
      words.Rest().empty()) {
    return false;
  }
  file_->stamp.assign(date).append(" ").append(clock);
  file_->name.assign(words.Rest());
  return true;
}

bool ReadColumns(string_view line_, RemoteFile* file_, bool* is_file_) {
  constexpr string_view kTypes = "-dlbcps";
  if (IsDigit(line_[0])) {
    return ReadShortColumns(line_, file_, is_file_);
  }
  if (kTypes.find(line_[0]) != string_view::npos) {
    return ReadLongColumns(line_, file_, is_file_);
  }
  return line_.substr(0, strlen("total ")) == "total ";
}

}  // namespace

ListingReader::ListingReader(ListingForm form_, std::function<void(const RemoteFile&)> take_)
    : form(form_), take(std::move(take_)) {
  file.is_rounded = form == ListingForm::kColumns;
}

void ListingReader::Feed(const char* data_, size_t size_) {
  const char* const end = data_ + size_;
  while (data_ != end) {
    is_empty = false;
    const void* found = memchr(data_, '\n', static_cast<size_t>(end - data_));
    const char* const line_end = found == nullptr ? end : static_cast<const char*>(found);
    if (rest.size() + static_cast<size_t>(line_end - data_) > kMaxListingLine) {
      throw std::string("a line of the listing is too long");
    }
    if (found == nullptr) {
      rest.append(data_, end);
      return;
    }
    if (rest.empty()) {
      ReadLine(data_, line_end);
    } else {
      rest.append(data_, line_end);
      ReadLine(rest.data(), rest.data() + rest.size());
      rest.clear();
    }
    data_ = line_end + 1;
  }
}

void ListingReader::Finish() {
  if (!rest.empty()) {
    throw std::string("the listing is not complete");
  }
  if (!is_empty && !makes_sense) {
    throw std::string("the form of the server's listing is unknown");
  }
  if (has_bare && !has_file) {
    throw std::string("the server does not tell sizes and times of files");
  }
}

void ListingReader::ReadLine(const char* begin_, const char* end_) {
  string_view line(begin_, static_cast<size_t>(end_ - begin_));
  if (!line.empty() && line.back() == '\r') {
    line.remove_suffix(1);
  }
  if (line.empty()) {
    return;
  }
  bool is_file = false;
  if (form == ListingForm::kFacts ? ReadFacts(line, &file, &is_file)
                                  : ReadColumns(line, &file, &is_file)) {
    makes_sense = true;
    if (is_file) {
      (file.is_bare ? has_bare : has_file) = true;
      take(file);
    }
  }
}
