// The socket "apply" in the run directory. A client connects to have the edited files checked and
// applied at once.
//
// The station first sends the path of the edited configuration and the words of the command that
// checks a configuration, each followed by a zero byte, and a further zero byte. After the check,
// it sends "0", or "1" if a file was refused, and a text, and closes the connection.
#pragma once

#include <string>
#include <vector>

class Requests {
 public:
  // greeting_: the path and the words that are sent first. Throws a string if the socket cannot be
  // made.
  Requests(const std::string& run_, const std::vector<std::string>& greeting_);
  ~Requests();
  Requests(const Requests&) = delete;
  Requests& operator=(const Requests&) = delete;

  int Descriptor() const { return listener; }  // Readable when somebody has connected.
  bool Accept();                               // True if there is a new request.
  bool IsWaiting() const { return !clients.empty(); }
  void Reply(bool is_fine_, const std::string& text_);  // Answers all waiting clients.

 private:
  std::string greeting;
  int listener = -1;
  std::vector<int> clients;
};

// For clients: a connection to the station. Throws a string if there is none.
int ConnectToStation(const std::string& run_);
