// The scripted meeting's options: reading the key=value pairs of ktsim_meeting_configure and of a
// meeting URL's query into Options. Plain code on whichever thread joins or configures (the
// product's joining thread, a test's); Options is a value the Meeting copies under its lock.
#include <cstdlib>

#include "meeting.h"
#include "numbers.h"

namespace ktsim {

using ktengine::ReadInt;

namespace {

// The options that are whole numbers: their key, range and field.
struct IntOption {
  const char* key;
  long low, high;
  int Options::*field;
};
const IntOption kIntOptions[] = {{"participants", 0, 1000, &Options::participants},
                                 {"fps", 1, 60, &Options::fps},
                                 {"muted", 0, 1000, &Options::muted},
                                 {"phone", 0, 1000, &Options::phone},
                                 {"tick", 20, 1000, &Options::tick},
                                 {"conditions", 100, 10000, &Options::conditions},
                                 {"start", 0, 5000, &Options::start}};

// One key=value pair; an unknown key or an unreadable value changes nothing.
void Set(Options* o, const std::string& key, const std::string& text) {
  long v = 0;
  for (const IntOption& option : kIntOptions) {
    if (key == option.key) {
      if (ReadInt(text, option.low, option.high, &v)) o->*option.field = static_cast<int>(v);
      return;
    }
  }
  if (key == "seed" && ReadInt(text, 0, 4294967295L, &v)) {
    o->seed = static_cast<uint32_t>(v);
    o->has_seed = true;
  } else if (key == "churn") {
    char* stop = nullptr;
    const double seconds = std::strtod(text.c_str(), &stop);
    if (!text.empty() && stop && *stop == '\0' && seconds >= 0 && seconds <= 86400) {
      o->churn = seconds;
    }
  } else if (key == "screen" && ReadInt(text, 0, 1, &v)) {
    o->screen = v == 1;
  }
}

}  // namespace

void Options::Apply(const std::string& query) {
  size_t pos = 0;
  while (pos <= query.size()) {
    size_t end = query.find_first_of("&;", pos);
    if (end == std::string::npos) end = query.size();
    const std::string pair = query.substr(pos, end - pos);
    pos = end + 1;
    const size_t eq = pair.find('=');
    if (eq == std::string::npos) continue;
    Set(this, Lower(pair.substr(0, eq)), pair.substr(eq + 1));
  }
}

}  // namespace ktsim
