// Counts the played files of each message, and finds out when a message is finished.
#pragma once

#include <stdint.h>

#include <functional>
#include <map>
#include <string>

#include "outputname.h"

class Messages {
 public:
  // print_ takes a line for each finished message, "finished ID files=N seconds=S interruptions=N".
  // rate_: samples per second.
  Messages(int rate_, std::function<void(const std::string& line_)> print_);

  // Played: a file was played to its end. Interrupted: it was interrupted. A file that begins a
  // message ends the previous one with the same id.
  void Played(const OutputName& name_, uint64_t samples_, double now_);
  void Interrupted(const OutputName& name_);
  // Ends the messages that have been silent for a second, unless expects_more_ is true for their
  // id.
  void EndSilent(double now_, const std::function<bool(const std::string& id_)>& expects_more_);
  void EndAll();
  bool IsEmpty() const { return open.empty(); }

 private:
  struct Message {
    int files = 0;
    uint64_t samples = 0;
    int interruptions = 0;
    bool has_speech = false;
    double last_sound = 0;
  };
  Message& MessageOf(const OutputName& name_);
  void Print(const std::string& id_, const Message& message_) const;

  const int rate;
  const std::function<void(const std::string&)> print;
  std::map<std::string, Message> open;  // By their ids.
};
