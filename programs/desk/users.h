// The users' file: a line NAME:ROLE:HASH for each user, with a password hash of crypt(3). Empty
// lines and lines that begin with "#" are ignored.
#pragma once

#include <stddef.h>
#include <sys/stat.h>

#include <map>
#include <string>

#include "request.h"

constexpr size_t kMinPassword = 8;    // Bytes.
constexpr size_t kMaxPassword = 256;  // Bytes.
constexpr size_t kMaxUserName = 64;   // Bytes.

// The roles' names: "look", "say", "operate". RoleOf throws a string for any other name.
const char* NameOf(Role role_);
Role RoleOf(const std::string& name_);

struct User {
  Role role = Role::kLook;
  std::string hash;
};

class Users {
 public:
  explicit Users(const std::string& path_);

  // Null if there is no such user. The result is valid until the next call. The file is read again
  // when it has changed. Bad lines, and a file that cannot be read, are logged once and give no
  // user.
  const User* Find(const std::string& name_);

  // True if that is the user's password. Takes the same time, and memory, if there is no such user.
  bool IsPassword(const std::string& name_, const std::string& password_);

 private:
  void Refresh();
  void Read();

  std::string path;
  struct stat seen {};
  bool is_missing = false;
  std::map<std::string, User> users;  // By their names.
};

// Adds a user to the file at path_, or changes a user's password and role, and replaces the file by
// a rename. If role_ is null, a user keeps the role, and a new one gets "say". An existing file
// keeps its mode and owner; a new one is readable by its owner, and by group_ if that exists.
// Throws a string if the name or the password is not acceptable, or the file cannot be written.
void AddUser(const std::string& path_, const std::string& name_, const std::string& password_,
             const Role* role_, const char* group_);
