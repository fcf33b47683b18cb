// The helper for FTP sites: mirrors one directory of a server for the daemon.
#include "arguments.h"
#include "curlremote.h"
#include "helper.h"

int main(int argc, char** argv) {
  const Program program = {
      "ftp",
      2,
      "Usage: ftp PATH SUBDIR USERNAME PASSWORD WATCH-DIRECTORY AUTO-DELETE POLL-RATE MODE\n"
      "Mirrors a directory of an FTP or SFTP server for vocastra.\n",
      {},
      "vocastra-helpers(1) explains the arguments.\n"};
  FtpArguments arguments;
  return RunHelper(
      program, kFtpArgumentCount, argc, argv,
      [&arguments](const std::vector<std::string>& texts_) {
        ReadFtpArguments(texts_, &arguments);
      },
      &arguments.settings,
      [&arguments](std::function<bool()> go_on_) {
        return std::make_unique<CurlRemote>(arguments.place, std::move(go_on_));
      });
}
