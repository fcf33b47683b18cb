#include "messages.h"

#include <utility>

#include "format.h"

namespace {

constexpr double kSilence = 1;  // Seconds.

}  // namespace

Messages::Messages(int rate_, std::function<void(const std::string& line_)> print_)
    : rate(rate_), print(std::move(print_)) {}

// Finds the open message. Several clips and one piece of speech of a message can be marked as the
// first.
Messages::Message& Messages::MessageOf(const OutputName& name_) {
  Message& message = open[name_.id];
  if (name_.is_first && message.has_speech) {
    Print(name_.id, message);
    message = {};
  }
  return message;
}

void Messages::Played(const OutputName& name_, uint64_t samples_, double now_) {
  Message& message = MessageOf(name_);
  ++message.files;
  message.samples += samples_;
  message.has_speech = message.has_speech || !name_.is_clip;
  message.last_sound = now_;
}

void Messages::Interrupted(const OutputName& name_) { ++MessageOf(name_).interruptions; }

void Messages::EndSilent(double now_,
                         const std::function<bool(const std::string& id_)>& expects_more_) {
  for (auto entry = open.begin(); entry != open.end();) {
    if (now_ - entry->second.last_sound < kSilence || expects_more_(entry->first)) {
      ++entry;
    } else {
      Print(entry->first, entry->second);
      entry = open.erase(entry);
    }
  }
}

void Messages::EndAll() {
  for (const auto& [id, message] : open) {
    Print(id, message);
  }
  open.clear();
}

void Messages::Print(const std::string& id_, const Message& message_) const {
  print(Format("finished %s files=%d seconds=%.2f interruptions=%d", id_.c_str(), message_.files,
               static_cast<double>(message_.samples) / rate, message_.interruptions));
}
