// The arguments of the two helpers. The daemon determines their order and number.
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

// Parse the arguments into result_. They throw a string if the arguments cannot work, with source
// and directory already set. The string never holds a value that could be a password. REQUIRES: the
// number of arguments is right.
void ReadFtpArguments(const std::vector<std::string>& arguments_, FtpArguments* result_);
void ReadSmbArguments(const std::vector<std::string>& arguments_, SmbArguments* result_);
