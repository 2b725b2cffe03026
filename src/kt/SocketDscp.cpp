// DSCP names and numbers.
#include <string>

#include "SocketPrivate.h"
#include "kt/Socket.h"

using kt::socket_internal::IsAllDigits;
using kt::socket_internal::UpperCase;

namespace {

struct DscpName {
  const char* name;
  int number;
};

// The named DiffServ code points, in the order GetDscpByName tries them.
const DscpName kDscpTable[] = {
    {"DEFAULT", 0}, {"CS1", 8},   {"AF11", 10}, {"AF12", 12}, {"AF13", 14}, {"CS2", 16},
    {"AF21", 18},   {"AF22", 20}, {"AF23", 22}, {"CS3", 24},  {"AF31", 26}, {"AF32", 28},
    {"AF33", 30},   {"CS4", 32},  {"AF41", 34}, {"AF42", 36}, {"AF43", 38}, {"CS5", 40},
    {"EF", 46},     {"CS6", 48},  {"CS7", 56},
};

}  // namespace

int Socket::GetDscpByName(std::string name) {
  const std::string upper = UpperCase(name);
  for (const DscpName& entry : kDscpTable) {
    if (upper == entry.name) return entry.number;
  }
  if (!IsAllDigits(name)) return -1;
  // At most two digits can be below 64; leading zeros are allowed.
  const size_t first = name.find_first_not_of('0');
  if (first == std::string::npos) return 0;
  if (name.size() - first > 2) return -1;
  const int value = std::stoi(name.substr(first));
  return value < 64 ? value : -1;
}

std::string Socket::GetDscpByNumber(int n) {
  for (const DscpName& entry : kDscpTable) {
    if (entry.number == n) return entry.name;
  }
  if (n >= 0 && n < 64) return std::to_string(n);
  return std::string();
}
