// The floor of the FTP helper's looks: lists a directory again and again with libcurl, and does
// nothing with the listing. Writes a dot for each look.
//
// usage: list_ftp URL USERPWD KNOWN-HOSTS KEY SECONDS [REQUEST]   (empty: none)
#include <curl/curl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

namespace {

size_t Ignore(char* /*data_*/, size_t one_, size_t size_, void* /*unused*/) { return one_ * size_; }

}  // namespace

int main(int argc, char** argv) {
  if (argc < 6) {
    return EXIT_FAILURE;
  }
  const long seconds = strtol(argv[5], nullptr, 10);
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURL* handle = curl_easy_init();
  curl_easy_setopt(handle, CURLOPT_URL, argv[1]);
  curl_easy_setopt(handle, CURLOPT_USERPWD, argv[2]);
  curl_easy_setopt(handle, CURLOPT_PROXY, "");
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Ignore);
  if (*argv[4] != '\0') {
    curl_easy_setopt(handle, CURLOPT_SSH_KNOWNHOSTS, argv[3]);
    curl_easy_setopt(handle, CURLOPT_SSH_AUTH_TYPES, static_cast<long>(CURLSSH_AUTH_PUBLICKEY));
    curl_easy_setopt(handle, CURLOPT_SSH_PRIVATE_KEYFILE, argv[4]);
  }
  if (argc > 6) {
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, argv[6]);
  }
  for (;;) {
    if (curl_easy_perform(handle) != CURLE_OK) {
      return EXIT_FAILURE;
    }
    putchar('.');
    fflush(stdout);
    usleep(static_cast<useconds_t>(seconds) * 1'000'000);
  }
}
