// The scripted meeting's options: reading the key=value pairs of ktsim_meeting_configure and of a
// meeting URL's query into Options. Plain code on whichever thread joins or configures (the
// product's joining thread, a test's); Options is a value the Meeting copies under its lock.
#include <cstdlib>

#include "meeting.h"
#include "numbers.h"

namespace ktsim {

using ktengine::ReadInt;

void Options::Apply(const std::string& query) {
  size_t pos = 0;
  while (pos <= query.size()) {
    size_t end = query.find_first_of("&;", pos);
    if (end == std::string::npos) end = query.size();
    const std::string pair = query.substr(pos, end - pos);
    pos = end + 1;
    const size_t eq = pair.find('=');
    if (eq == std::string::npos) continue;
    const std::string key = Lower(pair.substr(0, eq));
    const std::string text = pair.substr(eq + 1);
    long v = 0;
    if (key == "participants" && ReadInt(text, 0, 1000, &v)) {
      participants = static_cast<int>(v);
    } else if (key == "seed" && ReadInt(text, 0, 4294967295L, &v)) {
      seed = static_cast<uint32_t>(v);
      has_seed = true;
    } else if (key == "churn") {
      char* stop = nullptr;
      const double seconds = std::strtod(text.c_str(), &stop);
      if (!text.empty() && stop && *stop == '\0' && seconds >= 0 && seconds <= 86400) {
        churn = seconds;
      }
    } else if (key == "screen" && ReadInt(text, 0, 1, &v)) {
      screen = v == 1;
    } else if (key == "fps" && ReadInt(text, 1, 60, &v)) {
      fps = static_cast<int>(v);
    } else if (key == "muted" && ReadInt(text, 0, 1000, &v)) {
      muted = static_cast<int>(v);
    } else if (key == "phone" && ReadInt(text, 0, 1000, &v)) {
      phone = static_cast<int>(v);
    } else if (key == "tick" && ReadInt(text, 20, 1000, &v)) {
      tick = static_cast<int>(v);
    } else if (key == "conditions" && ReadInt(text, 100, 10000, &v)) {
      conditions = static_cast<int>(v);
    } else if (key == "start" && ReadInt(text, 0, 5000, &v)) {
      start = static_cast<int>(v);
    }
  }
}

}  // namespace ktsim
