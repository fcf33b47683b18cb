// Previews ("Listen first"): the translator speaks a text into a file of the desk, and nothing is
// announced.
//
// The translator runs as a child, with the arguments that the daemon uses for the directory. It
// gets the whole message at once; the daemon cuts it into pieces.
#pragma once

#include <map>
#include <string>
#include <vector>

class Previews {
 public:
  // translator_: a program; empty: there are no previews.
  explicit Previews(const std::string& translator_);
  // Kills running translators and removes the files.
  ~Previews();
  Previews(const Previews&) = delete;
  Previews& operator=(const Previews&) = delete;

  bool AreThere() const { return !translator.empty(); }

  // Starts a preview for the user and returns its number. Drops the user's previous one. snippet_:
  // the content of the translator's text file. arguments_: the directory's.
  // Throws a string, a sentence for people, if too many run or none can be started.
  int Start(const std::string& user_, const std::string& snippet_,
            const std::vector<std::string>& arguments_);

  enum State { kNone, kRunning, kFailed, kReady };

  // The state of the user's preview with that number. If it is ready, sets wav_ to its sound, at
  // most the first minute of raw sound.
  State Get(const std::string& user_, int number_, std::string& wav_) const;

  // Calls waitpid for each child.
  void OnChild();

  // Milliseconds until a child has run too long; -1: none runs.
  int NextTimeout() const;
  void OnTimeout();

  // A directory that only the desk can read. It has no files whose names begin with a letter.
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

// A WAV file made of the first max_seconds_ of raw sound, as translators make it. Sound that is WAV
// already stays as it is.
std::string WavOf(const std::string& sound_, int rate_, int max_seconds_);
