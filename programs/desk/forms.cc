#include "forms.h"

#include <string.h>

#include <algorithm>

#include "charencoding.h"

namespace {

// The value of a hexadecimal digit; -1: it is none.
int DigitOf(char c_) {
  if (c_ >= '0' && c_ <= '9') {
    return c_ - '0';
  }
  if (c_ >= 'a' && c_ <= 'f') {
    return c_ - 'a' + 10;
  }
  if (c_ >= 'A' && c_ <= 'F') {
    return c_ - 'A' + 10;
  }
  return -1;
}

std::string DecodePercent(const std::string& text_) {
  std::string decoded;
  for (size_t i = 0; i < text_.size(); ++i) {
    if (text_[i] != '%') {
      decoded += text_[i];
      continue;
    }
    const int high = i + 2 < text_.size() ? DigitOf(text_[i + 1]) : -1;
    const int low = high >= 0 ? DigitOf(text_[i + 2]) : -1;
    if (low < 0) {
      throw std::string("a percent sign without two hexadecimal digits");
    }
    decoded += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return decoded;
}

std::string WithPlainLineEnds(const std::string& text_) {
  std::string plain;
  for (size_t i = 0; i < text_.size(); ++i) {
    if (text_[i] == '\r') {
      plain += '\n';
      i += i + 1 < text_.size() && text_[i + 1] == '\n' ? 1 : 0;
    } else {
      plain += text_[i];
    }
  }
  return plain;
}

std::string DecodeField(std::string text_) {
  std::replace(text_.begin(), text_.end(), '+', ' ');
  return WithPlainLineEnds(DecodePercent(text_));
}

void AddField(const std::string& piece_, std::map<std::string, std::string>& form_) {
  const size_t equal = std::min(piece_.find('='), piece_.size());
  const std::string name = DecodeField(piece_.substr(0, equal));
  const std::string value = equal == piece_.size() ? "" : DecodeField(piece_.substr(equal + 1));
  if (name.empty() || name.size() > kMaxFieldName || !IsCleanText(name, false)) {
    throw std::string("a field without a usable name");
  }
  if (!IsCleanText(value, true)) {
    throw "field \"" + name + "\" is no text";
  }
  form_[name] = value;
}

}  // namespace

bool IsCleanText(const std::string& text_, bool has_lines_) {
  for (size_t i = 0; i < text_.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text_[i]);
    const bool is_allowed = has_lines_ && (byte == '\n' || byte == '\t');
    if ((byte < 0x20 && !is_allowed) || byte == 0x7F) {
      return false;
    }
    // The control characters U+0080 to U+009F.
    if (byte == 0xC2 && i + 1 < text_.size() && static_cast<unsigned char>(text_[i + 1]) < 0xA0) {
      return false;
    }
  }
  return Utf8IsValid(text_);
}

std::string DecodePath(const std::string& path_) {
  std::string path = DecodePercent(path_);
  if (path.empty() || path[0] != '/' || !IsCleanText(path, false)) {
    throw std::string("a path that is no text");
  }
  return path;
}

std::map<std::string, std::string> ParseForm(const std::string& body_) {
  std::map<std::string, std::string> form;
  size_t fields = 0;
  for (size_t begin = 0; begin < body_.size();) {
    const size_t end = std::min(body_.find('&', begin), body_.size());
    if (end > begin) {
      if (++fields > kMaxFields) {
        throw std::string("too many fields");
      }
      AddField(body_.substr(begin, end - begin), form);
    }
    begin = end + 1;
  }
  return form;
}

std::string FindCookie(const std::string& header_, const std::string& name_) {
  for (size_t begin = 0; begin < header_.size();) {
    begin = std::min(header_.find_first_not_of(" \t", begin), header_.size());
    const size_t end = std::min(header_.find(';', begin), header_.size());
    if (header_.compare(begin, name_.size() + 1, name_ + "=") == 0) {
      const size_t value = begin + name_.size() + 1;
      return value > end ? "" : header_.substr(value, end - value);
    }
    begin = end + 1;
  }
  return "";
}
