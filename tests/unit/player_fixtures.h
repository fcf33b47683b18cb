// A configuration and statuses for the tests of the player.
#pragma once

#include "test_util.h"

// Display id "lobby" has priority 5 and "alarm" 1; "hall" has 7 and, from a second directory, 3.
constexpr char kConfiguration[] =
    "<tts-config state=\"run\">\n"
    "<directory id=\"news\" display-id=\"lobby\" priority=\"5\"/>\n"
    "<directory id=\"alarm\" priority=\"1\"/>\n"
    "<directory id=\"alarm\" priority=\"9\"/>\n"
    "<directory id=\"bad\" priority=\"x\"/>\n"
    "<directory id=\"bad\" priority=\"0\"/>\n"
    "<directory id=\"h1\" display-id=\"hall\" priority=\"7\"/>\n"
    "<directory id=\"h2\" display-id=\"hall\" priority=\"3\"/>\n"
    "<directory id=\"plain\"/>\n"
    "</tts-config>\n";

// A status in which the directory of the id active_ has an active message.
inline std::string StatusText(int timestamp_, const std::string& active_, bool is_output_bound_,
                              const char* state_ = "run") {
  std::string text = "<tts-status now-playing=\"0\" output-bound=\"";
  text += is_output_bound_ ? "1" : "0";
  text += std::string("\" state=\"") + state_ + "\" timestamp=\"" + std::to_string(timestamp_);
  text += "\">\n";
  for (const std::string id : {"alarm", "news"}) {
    text += "    <directory id=\"" + id +
            "\" path=\"p\" status=\"1\" total-file-count=\"0\" updated-file-count=\"0\"";
    text += id == active_ ? ">\n        <message filename=\"f\" id=\"1\" plays=\"0\"/>\n"
                            "    </directory>\n"
                          : "/>\n";
  }
  return text + "</tts-status>\n";
}
