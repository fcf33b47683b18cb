// Messages to a service manager that has set NOTIFY_SOCKET, as sd_notify(3) describes.
#pragma once

#include <string>

class Notifier {
 public:
  // Takes NOTIFY_SOCKET and WATCHDOG_USEC out of the environment, so that no child sees them.
  Notifier();
  ~Notifier();
  Notifier(const Notifier&) = delete;
  Notifier& operator=(const Notifier&) = delete;

  // True if "WATCHDOG=1" is expected.
  bool HasWatchdog() const { return has_watchdog; }

  // Sends assignments, one a line, such as "READY=1". Does nothing if there is no manager or it
  // does not listen.
  void Send(const std::string& text_) const;

 private:
  int fd = -1;
  bool has_watchdog = false;
};
