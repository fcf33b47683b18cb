// What a mirror tells on standard error, one line each: a trouble once, until it is over.
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

  // The same about one file of many. Only so many of these lines are written in a minute, so that
  // a hostile server cannot fill the log; that others are left out is said once.
  void SayOfFile(const std::string& text_);

  // What is in trouble as a whole.
  enum Part { kServer, kLocal, kParts };

  // Says a trouble unless that was done, or there were many others, since it was over last.
  void Complain(Part part_, const std::string& text_);

  // Ends the troubles of that part, and says so if there were any.
  void Over(Part part_);

 private:
  std::string head;
  std::function<double()> now;
  double minute_end = 0;
  int lines_in_minute = 0;
  std::vector<std::string> troubles[kParts];  // Those that were said.
};
