// The arguments of the two helpers. Their order and number are the daemon's.
#pragma once

#include <string>
#include <vector>

#include "mirror.h"
#include "place.h"

struct FtpArguments {
  MirrorSettings settings;
  FtpPlace place;
};

struct SmbArguments {
  MirrorSettings settings;
  SmbPlace place;
};

// PATH SUBDIR USERNAME PASSWORD WATCH-DIRECTORY AUTO-DELETE POLL-RATE MODE
constexpr size_t kFtpArgumentCount = 8;

// PATH USERNAME PASSWORD SUBDIR WATCH-DIRECTORY MOUNT-OPTS AUTO-DELETE
constexpr size_t kSmbArgumentCount = 7;

// Fill in result_. They throw a string if the arguments cannot work; source and directory are set
// by then. The text has no value that could be a password. REQUIRES: as many arguments as there are
// to be.
void ReadFtpArguments(const std::vector<std::string>& arguments_, FtpArguments* result_);
void ReadSmbArguments(const std::vector<std::string>& arguments_, SmbArguments* result_);
