// Announcements with blanks, from a text file in UTF-8 that the operator edits:
//
//   # Title | directory | text
//   Train leaves | announcements | The train to {place} leaves from platform {number}.
#pragma once

#include <map>
#include <string>
#include <vector>

struct Template {
  struct Part {
    bool is_blank;
    std::string text;  // The name of the blank, or the text itself.
  };

  // The names of the blanks, each once, in their order. Their values are in the form fields
  // blank-0, blank-1...
  std::vector<std::string> Blanks() const;

  std::string title;
  std::string directory;
  std::vector<Part> parts;
};

struct Templates {
  const Template* Find(const std::string& title_) const;  // Null: there is none.

  std::vector<Template> all;          // With different titles.
  std::vector<std::string> mistakes;  // One sentence for each line that is left out.
};

// Reports bad lines as mistakes; does not throw.
Templates ParseTemplates(const std::string& text_);

// No templates if there is no such file; a mistake if it cannot be read.
Templates ReadTemplates(const std::string& path_);

// The name of the form's field for the blank with that number.
std::string BlankField(size_t number_);

// The text with the values of form_ in its blanks. Throws a string if a value is empty.
std::string Filled(const Template& template_, const std::map<std::string, std::string>& form_);
