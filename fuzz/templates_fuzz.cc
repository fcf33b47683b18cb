// The file of templates, and the values of their blanks. Up to the first zero byte: the file; then
// one value.
//
// A template has a title, a directory and a text, and fills its blanks with the unchanged value. In
// a page, its text is escaped.
#include <algorithm>

#include "charencoding.h"
#include "fuzz.h"
#include "html.h"
#include "templates.h"

namespace {

void CheckHtml(const std::string& text_) {
  const std::string html = Html(text_);
  fuzz::Require(html.find_first_of("<>\"'") == std::string::npos, "it is escaped", html);
  fuzz::Require(Utf8IsValid(html), "it is UTF-8", html);
}

void Check(const Template& template_, const std::string& value_) {
  fuzz::Require(!template_.title.empty() && !template_.directory.empty(), "it has names", "");
  std::map<std::string, std::string> form;
  std::string expected;
  const std::string value = OneLineOf(value_);
  for (const Template::Part& part : template_.parts) {
    CheckHtml(part.text);
    fuzz::Require(!part.text.empty(), "no part is empty", template_.title);
    expected += part.is_blank ? value : part.text;
  }
  const size_t blanks = template_.Blanks().size();
  for (size_t i = 0; i < blanks; ++i) {
    form[BlankField(i)] = value_;
  }
  try {
    fuzz::Require(Filled(template_, form) == expected, "the value is in the blanks", expected);
  } catch (const std::string& why) {
    fuzz::Require(value.empty() && blanks > 0, "only an empty value is refused", why);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data_, size_t size_) {
  fuzz::Input input(data_, size_);
  const std::string text = input.Rest();
  const size_t end = std::min(text.find('\0'), text.size());
  const std::string value = Utf8ReplaceInvalid(text.substr(std::min(end + 1, text.size())));
  const Templates templates = ParseTemplates(text.substr(0, end));
  for (const Template& found : templates.all) {
    fuzz::Require(templates.Find(found.title) == &found, "titles differ", found.title);
    Check(found, value);
  }
  for (const std::string& mistake : templates.mistakes) {
    CheckHtml(mistake);
  }
  return 0;
}
