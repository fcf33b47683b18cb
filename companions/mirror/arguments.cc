#include "arguments.h"

#include <algorithm>

#include "commandline.h"
#include "format.h"

namespace {

constexpr int kLongestPoll = 24 * 60 * 60;  // Seconds.

bool IsSet(const std::string& number_) { return number_ != "0" && !number_.empty(); }

// Sets source and local directory, even if other arguments are wrong.
void SetSourceAndDirectory(const RemoteAttributes& attributes_, const std::string& watch_directory_,
                           MirrorSettings* settings_) {
  settings_->source = RemoteSource(attributes_.path, attributes_.subdir);
  settings_->directory = Joined(watch_directory_, attributes_.subdir);
}

}  // namespace

void ReadFtpArguments(const std::vector<std::string>& arguments_, FtpArguments* result_) {
  MirrorSettings& settings = result_->settings;
  settings.kind = "ftp";
  const RemoteAttributes attributes = {arguments_[0], arguments_[1], arguments_[2], arguments_[3],
                                       arguments_[7]};
  SetSourceAndDirectory(attributes, arguments_[4], &settings);
  result_->place = ReadFtpPlace(attributes);
  settings.auto_delete = IsSet(arguments_[5]);
  const int poll = ParseSeconds(arguments_[6].c_str(), 0);
  if (poll < 0) {
    throw Format("POLL-RATE \"%s\" is not a number of seconds", arguments_[6].c_str());
  }
  settings.poll_seconds = std::clamp(poll, 1, kLongestPoll);
  settings.settle_seconds = result_->place.settle_seconds.value_or(settings.settle_seconds);
}

void ReadSmbArguments(const std::vector<std::string>& arguments_, SmbArguments* result_) {
  MirrorSettings& settings = result_->settings;
  settings.kind = "cifs";
  const RemoteAttributes attributes = {arguments_[0], arguments_[3], arguments_[1], arguments_[2],
                                       arguments_[5]};
  SetSourceAndDirectory(attributes, arguments_[4], &settings);
  result_->place = ReadSmbPlace(attributes);
  settings.auto_delete = IsSet(arguments_[6]);
  settings.settle_seconds = result_->place.settle_seconds.value_or(settings.settle_seconds);
}
