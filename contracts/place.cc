#include "place.h"

#include <string.h>

#include <algorithm>
#include <functional>
#include <map>
#include <utility>

#include "affix.h"
#include "commandline.h"
#include "format.h"

namespace {

void RefuseLineBreaks(const RemoteAttributes& attributes_) {
  for (const std::string* text : {&attributes_.path, &attributes_.subdir, &attributes_.username,
                                  &attributes_.password, &attributes_.options}) {
    if (text->find_first_of(std::string("\r\n")) != std::string::npos) {
      throw std::string("a line break in an argument");
    }
  }
}

// Functions by the names of options. Each takes the option's value, which is empty without "=".
using Options = std::map<std::string, std::function<void(const std::string&)>>;

std::string WithoutFirstSlashes(const std::string& path_) {
  return path_.substr(std::min(path_.size(), path_.find_first_not_of('/')));
}

int SettleSeconds(const std::string& text_) {
  const int seconds = ParseSeconds(text_.c_str(), 0);
  if (seconds < 0) {
    throw std::string("settle is not a number of seconds");
  }
  return seconds;
}

int Port(const std::string& text_, const std::string& failure_) {
  int port = -1;
  try {
    port = ParseInteger(text_);
  } catch (const std::string&) {
    // Reported by the throw below.
  }
  if (port < 1 || port > 0xffff) {
    throw failure_;
  }
  return port;
}

// Reads options that are joined by commas.
void ReadOptions(const std::string& text_, const std::string& where_, const Options& known_) {
  size_t end = 0;
  for (size_t begin = 0; begin < text_.size(); begin = end + 1) {
    end = std::min(text_.find(',', begin), text_.size());
    const std::string option = text_.substr(begin, end - begin);
    const size_t equals = std::min(option.find('='), option.size());
    const bool has_value = equals < option.size();
    const std::string name = option.substr(0, equals) + (has_value ? "=" : "");
    const auto found = known_.find(name);
    if (found != known_.end()) {
      found->second(has_value ? option.substr(equals + 1) : "");
    } else if (!option.empty()) {
      throw Format("unknown option \"%s\" in %s", name.c_str(), where_.c_str());
    }
  }
}

// Splits host[:port] or [address][:port].
void ReadHost(const std::string& text_, FtpPlace* place_) {
  const std::string wrong = "PATH is not host[:port][/directory]";
  const std::string safe = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._:%[]-";
  const bool is_address = StartsWith(text_, "[");
  size_t end = is_address ? text_.find(']') : text_.find(':');
  if (is_address && end != std::string::npos) {
    ++end;
  }
  if (text_.find_first_not_of(safe) != std::string::npos ||
      (is_address && end == std::string::npos)) {
    throw wrong;
  }
  place_->host = text_.substr(0, end);
  const std::string rest = text_.substr(place_->host.size());
  if (place_->host.empty() || (!rest.empty() && rest[0] != ':')) {
    throw wrong;
  }
  if (!rest.empty()) {
    place_->port = Port(rest.substr(1), wrong);
  }
}

void ReadFtpPath(const std::string& path_, const std::string& subdir_, FtpPlace* place_) {
  const std::pair<const char*, FtpKind> schemes[] = {{"ftp://", FtpKind::kFtp},
                                                     {"ftps://", FtpKind::kFtps},
                                                     {"ftpes://", FtpKind::kFtpes},
                                                     {"sftp://", FtpKind::kSftp}};
  std::string site = path_;
  for (const auto& [name, kind] : schemes) {
    if (StartsWith(path_, name)) {
      place_->kind = kind;
      site = path_.substr(std::string(name).size());
    }
  }
  const size_t slash = std::min(site.find('/'), site.size());
  ReadHost(site.substr(0, slash), place_);
  place_->directory = Joined(slash < site.size() ? site.substr(slash + 1) : "", subdir_);
}

void ReadFtpMode(const std::string& mode_, FtpPlace* place_) {
  ReadOptions(
      mode_, "MODE",
      {{"passive", [place_](const std::string&) { place_->is_active = false; }},
       {"active", [place_](const std::string&) { place_->is_active = true; }},
       {"ca=", [place_](const std::string& value_) { place_->ca_file = value_; }},
       {"known-hosts=", [place_](const std::string& value_) { place_->known_hosts = value_; }},
       {"key=", [place_](const std::string& value_) { place_->key_file = value_; }},
       {"settle=",
        [place_](const std::string& value_) { place_->settle_seconds = SettleSeconds(value_); }}});
  const bool is_sftp = place_->kind == FtpKind::kSftp;
  if (!place_->ca_file.empty() && place_->kind != FtpKind::kFtps &&
      place_->kind != FtpKind::kFtpes) {
    throw std::string("ca= in MODE needs ftps:// or ftpes:// in PATH");
  }
  if (!is_sftp && !(place_->known_hosts.empty() && place_->key_file.empty())) {
    throw std::string("known-hosts= and key= in MODE need sftp:// in PATH");
  }
  if (is_sftp && place_->known_hosts.empty()) {
    place_->known_hosts = "/etc/ssh/ssh_known_hosts";
  }
}

// Reads //host/share[/directory], the slashes backward or forward, with or without "smb:" in front.
void ReadSmbPath(const std::string& path_, const std::string& subdir_, SmbPlace* place_) {
  std::string path = path_;
  std::replace(path.begin(), path.end(), '\\', '/');
  if (StartsWith(path, "smb://")) {
    path.erase(0, path.find('/'));
  }
  const size_t host_end = path.find('/', 2);
  if (!StartsWith(path, "//") || host_end == 2 || host_end == std::string::npos) {
    throw std::string("PATH is not //host/share[/directory]");
  }
  const size_t share_end = std::min(path.find('/', host_end + 1), path.size());
  place_->host = path.substr(2, host_end - 2);
  place_->share = path.substr(host_end + 1, share_end - host_end - 1);
  if (place_->share.empty() || place_->host.find('@') != std::string::npos) {
    throw std::string("PATH is not //host/share[/directory]");
  }
  place_->directory = Joined(WithoutFirstSlashes(path.substr(share_end)), subdir_);
}

void ReadVersion(const std::string& version_, SmbPlace* place_) {
  struct Version {
    const char* name;
    const char* oldest;
    const char* newest;
  };
  const Version versions[] = {
      {"1.0", "NT1", "NT1"},           {"2.0", "SMB2_02", "SMB2_02"},
      {"2.1", "SMB2_10", "SMB2_10"},   {"3.0", "SMB3_00", "SMB3_00"},
      {"3.02", "SMB3_02", "SMB3_02"},  {"3.0.2", "SMB3_02", "SMB3_02"},
      {"3.1.1", "SMB3_11", "SMB3_11"}, {"3.11", "SMB3_11", "SMB3_11"},
      {"3", "SMB3_00", "SMB3"},        {"default", "SMB2_10", "SMB3"},
  };
  for (const Version& version : versions) {
    if (version_ == version.name) {
      place_->oldest = version.oldest;
      place_->newest = version.newest;
      return;
    }
  }
  throw std::string("unknown version in vers=");
}

void ReadMountOptions(const std::string& options_, SmbPlace* place_) {
  bool is_guest = false;
  const auto take_domain = [place_](const std::string& value_) { place_->domain = value_; };
  ReadOptions(options_, "MOUNT-OPTS",
              {{"guest", [&is_guest](const std::string&) { is_guest = true; }},
               {"domain=", take_domain},
               {"dom=", take_domain},
               {"workgroup=", take_domain},
               {"port=",
                [place_](const std::string& value_) {
                  place_->port = Port(value_, "unknown port in port=");
                }},
               {"vers=", [place_](const std::string& value_) { ReadVersion(value_, place_); }},
               {"settle=", [place_](const std::string& value_) {
                  place_->settle_seconds = SettleSeconds(value_);
                }}});
  if (is_guest) {
    place_->user.clear();
    place_->password.clear();
  }
}

}  // namespace

std::string EscapedPath(const std::string& path_) {
  const char plain[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._/";
  std::string escaped;
  for (const char c : path_) {
    if (c != '\0' && strchr(plain, c) != nullptr) {
      escaped += c;
    } else {
      escaped += Format("%%%02X", static_cast<unsigned char>(c));
    }
  }
  return escaped;
}

std::string WithoutLogin(const std::string& path_) {
  const size_t scheme = path_.find("://");
  const size_t begin = scheme == std::string::npos
                           ? std::min(path_.find_first_not_of("/\\"), path_.size())
                           : scheme + strlen("://");
  const size_t end = std::min(path_.find_first_of("/\\", begin), path_.size());
  const size_t at = path_.substr(begin, end - begin).rfind('@');
  return at == std::string::npos ? path_ : path_.substr(0, begin) + path_.substr(begin + at + 1);
}

std::string Joined(const std::string& directory_, const std::string& below_) {
  const std::string below = WithoutFirstSlashes(below_);
  if (below.empty() || directory_.empty()) {
    return directory_ + below;
  }
  return directory_ + (directory_.back() == '/' ? "" : "/") + below;
}

std::string RemoteSource(const std::string& path_, const std::string& subdir_) {
  return WithoutLogin(Joined(path_.substr(0, path_.find_last_not_of('/') + 1), subdir_));
}

FtpPlace ReadFtpPlace(const RemoteAttributes& attributes_) {
  RefuseLineBreaks(attributes_);
  FtpPlace place;
  ReadFtpPath(attributes_.path, attributes_.subdir, &place);
  place.user = attributes_.username;
  place.password = attributes_.password;
  ReadFtpMode(attributes_.options, &place);
  if (place.kind == FtpKind::kSftp && place.user.empty()) {
    throw std::string("sftp:// needs a USERNAME");
  }
  return place;
}

SmbPlace ReadSmbPlace(const RemoteAttributes& attributes_) {
  RefuseLineBreaks(attributes_);
  SmbPlace place;
  ReadSmbPath(attributes_.path, attributes_.subdir, &place);
  const std::string& user = attributes_.username;
  const size_t backslash = user.find('\\');
  if (backslash != std::string::npos) {
    place.domain = user.substr(0, backslash);
  }
  place.user = user.substr(backslash == std::string::npos ? 0 : backslash + 1);
  place.password = attributes_.password;
  ReadMountOptions(attributes_.options, &place);
  return place;
}
