// The player: one object for the life of the process, driven by repeated calls of Run().
#pragma once

#include <string>

class Vocastra {
 public:
  // Empty status_file_path_: no status file. Empty output_directory_path_: audio is made but not
  // delivered. Empty glossary_file_path_: no glossary. text_snippet_word_limit_ is in words;
  // production stops while the output directory holds output_file_count_limit_ files or more.
  // Throws a string if the temporary files or the output directory cannot be opened.
  Vocastra(const std::string& config_file_path_, const std::string& status_file_path_,
           const std::string& output_directory_path_, const std::string& translator_file_path_,
           const std::string& glossary_file_path_, const std::string& cifs_helper_script_path_,
           const std::string& ftp_helper_app_path_, int text_snippet_word_limit_,
           int output_file_count_limit_);
  ~Vocastra();

  Vocastra(const Vocastra&) = delete;
  Vocastra& operator=(const Vocastra&) = delete;

  // One pass of the polling loop: reloads what changed, scans the input directories, makes
  // snippets while there is something to say and room for it, and writes the status file.
  // Sleeps 100 ms at its end, also when it fails.
  // Throws a string if a step fails; the rest of the pass is left out then.
  void Run();

 private:
  struct Impl;
  Impl* impl;  // Owned.
};
