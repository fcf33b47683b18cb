#include "place.h"

#include <string.h>

#include "format.h"

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
