// A mirror's lines on standard error. A failure is reported once, until it is over.
#pragma once

#include <functional>
#include <string>
#include <vector>

class Report {
 public:
  // Lines begin with kind_ and source_. now_: seconds from an arbitrary start.
  Report(const std::string& kind_, const std::string& source_, std::function<double()> now_);

  // Writes a line. Bytes that are not printable ASCII become "?"; a very long text is cut.
  void Say(const std::string& text_) const;

  // Writes a line about one file of many. The number of these lines in a minute is limited, so that
  // a hostile server cannot fill the log. One line says that others are left out.
  void SayOfFile(const std::string& text_);

  // The part that fails.
  enum Part { kServer, kLocal, kParts };

  // Reports a failure of the part. Does nothing if this failure, or many others, were reported
  // since the part last worked.
  void Complain(Part part_, const std::string& text_);

  // Ends the failures of the part, and says so if there were any.
  void Over(Part part_);

 private:
  std::string head;
  std::function<double()> now;
  double minute_end = 0;
  int lines_in_minute = 0;
  std::vector<std::string> troubles[kParts];  // The reported ones.
};
