#include "presence.h"

#include <cstdio>
#include <cstdlib>

#include "numbers.h"

namespace ktopen {

namespace {

constexpr char kSeparator = '\x1f';

std::string EscapeField(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    if (c == '%' || c == ';' || c == '=' || c < 0x20) {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02X", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

std::string UnescapeField(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      const std::string hex = text.substr(i + 1, 2);
      char* end = nullptr;
      const long value = std::strtol(hex.c_str(), &end, 16);
      if (end == hex.c_str() + 2) {
        out += static_cast<char>(value);
        i += 2;
        continue;
      }
    }
    out += text[i];
  }
  return out;
}

int Number(const std::string& text, int fallback, long low, long high) {
  long value = 0;
  return ktengine::ReadInt(text, low, high, &value) ? static_cast<int>(value) : fallback;
}

}  // namespace

std::string EncodePresence(const Presence& p) {
  std::string out = p.name;
  for (char& c : out) {
    if (c == kSeparator) c = ' ';
  }
  out += kSeparator;
  out += "m=" + std::string(p.muted ? "1" : "0") + ";w=" + std::to_string(p.width) +
         ";h=" + std::to_string(p.height) + ";l=" + std::to_string(p.layout);
  if (!p.owner.empty()) out += ";o=" + EscapeField(p.owner);
  if (!p.label.empty()) out += ";n=" + EscapeField(p.label);
  if (!p.profile.empty()) out += ";p=" + EscapeField(p.profile);
  return out;
}

Presence DecodePresence(const std::string& display) {
  Presence p;
  const size_t separator = display.find(kSeparator);
  p.name = display.substr(0, separator);
  if (separator == std::string::npos) return p;
  const std::string fields = display.substr(separator + 1);
  size_t at = 0;
  while (at <= fields.size()) {
    size_t end = fields.find(';', at);
    if (end == std::string::npos) end = fields.size();
    const std::string field = fields.substr(at, end - at);
    const size_t equals = field.find('=');
    if (equals != std::string::npos) {
      const std::string key = field.substr(0, equals);
      const std::string value = UnescapeField(field.substr(equals + 1));
      if (key == "m") p.muted = value == "1";
      if (key == "w") p.width = Number(value, p.width, 1, 8192);
      if (key == "h") p.height = Number(value, p.height, 1, 8192);
      if (key == "l") p.layout = Number(value, p.layout, 0, 255);
      if (key == "o") p.owner = value;
      if (key == "n") p.label = value;
      if (key == "p") p.profile = value;
    }
    at = end + 1;
  }
  return p;
}

}  // namespace ktopen
