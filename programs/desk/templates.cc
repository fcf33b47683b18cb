#include "templates.h"

#include <unistd.h>

#include <algorithm>

#include "charencoding.h"
#include "format.h"
#include "html.h"
#include "statusfile.h"

namespace {

constexpr size_t kMaxTemplates = 200;
constexpr size_t kMaxLine = 4096;  // Bytes.
constexpr size_t kMaxFile = 256 * 1024;
constexpr size_t kMaxBlanks = 20;

// Splits a text into parts. Braces without a name are text.
std::vector<Template::Part> ParseParts(const std::string& text_) {
  std::vector<Template::Part> parts;
  std::string plain;
  for (size_t at = 0; at < text_.size();) {
    const size_t end = text_[at] == '{' ? text_.find_first_of("{}", at + 1) : std::string::npos;
    const std::string name = end != std::string::npos && text_[end] == '}'
                                 ? OneLineOf(text_.substr(at + 1, end - at - 1))
                                 : "";
    if (name.empty()) {
      plain += text_[at++];
      continue;
    }
    if (!plain.empty()) {
      parts.push_back({false, plain});
      plain.clear();
    }
    parts.push_back({true, name});
    at = end + 1;
  }
  if (!plain.empty()) {
    parts.push_back({false, plain});
  }
  return parts;
}

// Throws a string if the line is wrong.
Template ParseLine(const std::string& line_) {
  const size_t first = line_.find('|');
  const size_t second = first == std::string::npos ? first : line_.find('|', first + 1);
  if (line_.size() > kMaxLine || !Utf8IsValid(line_)) {
    throw line_.size() > kMaxLine ? Format("is longer than %zu bytes", kMaxLine)
                                  : std::string("is not valid UTF-8");
  }
  if (second == std::string::npos) {
    throw std::string("is not \"Title | directory | text\"");
  }
  Template result;
  result.title = OneLineOf(line_.substr(0, first));
  result.directory = OneLineOf(line_.substr(first + 1, second - first - 1));
  result.parts = ParseParts(OneLineOf(line_.substr(second + 1)));
  if (result.title.empty() || result.directory.empty() || result.parts.empty()) {
    throw std::string("lacks a title, a directory or a text");
  }
  if (result.Blanks().size() > kMaxBlanks) {
    throw Format("has more than %zu blanks", kMaxBlanks);
  }
  return result;
}

void Take(const std::string& line_, int number_, Templates& templates_) {
  if (OneLineOf(line_).empty() || OneLineOf(line_).front() == '#') {
    return;
  }
  try {
    Template found = ParseLine(line_);
    if (templates_.Find(found.title) != nullptr) {
      throw "has the title of an earlier one, \"" + found.title + "\"";
    }
    if (templates_.all.size() == kMaxTemplates) {
      throw Format("is beyond the first %zu templates", kMaxTemplates);
    }
    templates_.all.push_back(std::move(found));
  } catch (const std::string& why) {
    if (templates_.mistakes.size() < kMaxTemplates) {
      templates_.mistakes.push_back(Format("Line %d %s.", number_, why.c_str()));
    }
  }
}

}  // namespace

std::vector<std::string> Template::Blanks() const {
  std::vector<std::string> names;
  for (const Part& part : parts) {
    if (part.is_blank && std::find(names.begin(), names.end(), part.text) == names.end()) {
      names.push_back(part.text);
    }
  }
  return names;
}

const Template* Templates::Find(const std::string& title_) const {
  const auto found = std::find_if(
      all.begin(), all.end(), [&](const Template& template_) { return template_.title == title_; });
  return found == all.end() ? nullptr : &*found;
}

Templates ParseTemplates(const std::string& text_) {
  constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";
  const size_t mark = text_.compare(0, 3, kByteOrderMark) == 0 ? 3 : 0;
  Templates templates;
  int number = 0;
  for (size_t at = mark; at < text_.size();) {
    const size_t end = std::min(text_.find('\n', at), text_.size());
    Take(text_.substr(at, end - at), ++number, templates);
    at = end + 1;
  }
  return templates;
}

Templates ReadTemplates(const std::string& path_) {
  Templates templates;
  try {
    if (path_.empty() || access(path_.c_str(), F_OK) != 0) {
      return templates;
    }
    const std::string text = ReadWhole(path_);
    if (text.size() > kMaxFile) {
      throw Format("%s is larger than %zu bytes", path_.c_str(), kMaxFile);
    }
    return ParseTemplates(text);
  } catch (const std::string& why) {
    templates.mistakes.push_back(why + ".");
  }
  return templates;
}

std::string BlankField(size_t number_) { return Format("blank-%zu", number_); }

std::string Filled(const Template& template_, const std::map<std::string, std::string>& form_) {
  const std::vector<std::string> blanks = template_.Blanks();
  std::string text;
  for (const Template::Part& part : template_.parts) {
    if (!part.is_blank) {
      text += part.text;
      continue;
    }
    const auto number = std::find(blanks.begin(), blanks.end(), part.text) - blanks.begin();
    const auto value = form_.find(BlankField(static_cast<size_t>(number)));
    const std::string filled = value == form_.end() ? "" : OneLineOf(value->second);
    if (filled.empty()) {
      throw "Fill in \"" + part.text + "\".";
    }
    text += filled;
  }
  return text;
}
