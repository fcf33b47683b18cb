// Listening first: the translator speaks a text into a file of the desk, and nothing is announced.
//
// The translator runs as a child, with the arguments with which the daemon runs it for the
// directory. It gets the whole message at once, where the daemon cuts it into pieces.
#pragma once

#include <map>
#include <string>
#include <vector>

class Previews {
 public:
  // translator_: a program; empty: there are no previews.
  explicit Previews(const std::string& translator_);
  // Kills what runs and removes its files.
  ~Previews();
  Previews(const Previews&) = delete;
  Previews& operator=(const Previews&) = delete;

  bool AreThere() const { return !translator.empty(); }

  // Starts one for the user and returns its number; the user's last one is dropped.
  // snippet_: the translator's text file. arguments_: those of the directory.
  // Throws a string, a sentence for people, if too many run or none can be started.
  int Start(const std::string& user_, const std::string& snippet_,
            const std::vector<std::string>& arguments_);

  enum State { kNone, kRunning, kFailed, kReady };

  // Of the user's preview of that number. wav_: the sound, of its first minute, if it is ready.
  State Get(const std::string& user_, int number_, std::string& wav_) const;

  // Calls waitpid for each child.
  void OnChild();

  // Milliseconds until a child has run too long; -1: none runs.
  int NextTimeout() const;
  void OnTimeout();

  // A directory that only the desk can read, with nothing in it whose name begins with a letter.
  const std::string& Scratch();

 private:
  struct Preview {
    std::string user;
    int pid = 0;  // 0: it has ended.
    double deadline = 0;
    int rate = 0;  // Samples per second.
    bool is_done = false;
  };

  std::string PathOf(int number_, const char* kind_) const;
  void Drop(int number_);

  std::string translator;
  std::string scratch;  // Empty: not made yet.
  int last_number = 0;
  std::map<int, Preview> previews;
};

// Raw sound as the translators make it, as a WAV file; sound that is WAV already stays as it is. Of
// raw sound only the first max_seconds_ are taken.
std::string WavOf(const std::string& sound_, int rate_, int max_seconds_);
