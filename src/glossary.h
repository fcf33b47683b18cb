// How particular words are to be spoken: a map from written words to speech texts.
#pragma once

#include <string>

class Glossary {
 public:
  // Loads the file at path_: UTF-8 XML, root "glossary", with any number of children
  // <word text="written" speech="spoken"/>. The first entry of several for one text counts.
  // Throws a string, "Reading glossary <path>: <why>", if any of that fails.
  explicit Glossary(const std::string& path_);
  ~Glossary();

  Glossary(const Glossary&) = delete;
  Glossary& operator=(const Glossary&) = delete;

  // word_ with the speech text in place of the written word, or word_ itself if there is no
  // entry. Full stops and commas around the word are not part of what is looked up, and stay.
  std::string SubstituteSpeech(const std::string& word_) const;

 private:
  struct Impl;
  Impl* impl;  // Owned.
};
