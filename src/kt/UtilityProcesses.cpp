// Process lookups over the "/proc" file system.
#include <dirent.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>

#include "kt/Utility.h"

namespace kt {

namespace {

struct ProcessInfo {
  int pid = 0;
  char state = '?';
  std::string name;     // the kernel's short name (comm)
  std::string command;  // last component of the first command-line word
};

bool IsDigits(const char* text) {
  if (*text == '\0') return false;
  for (; *text != '\0'; ++text) {
    if (*text < '0' || *text > '9') return false;
  }
  return true;
}

// Reads "/proc/<entry>/stat" ("pid (name) state ...": the name may hold spaces and parentheses,
// so it ends at the last ")") and the first word of "cmdline".
bool ReadProcess(const std::string& entry, ProcessInfo& info) {
  std::ifstream stat("/proc/" + entry + "/stat");
  std::string text;
  if (!stat || !std::getline(stat, text)) return false;
  const size_t open = text.find('(');
  const size_t close = text.rfind(')');
  if (open == std::string::npos || close == std::string::npos || close < open ||
      close + 2 >= text.size()) {
    return false;
  }
  info.pid = atoi(text.c_str());
  info.name = text.substr(open + 1, close - open - 1);
  info.state = text[close + 2];
  std::ifstream cmdline("/proc/" + entry + "/cmdline");
  std::string first;
  if (cmdline && std::getline(cmdline, first, '\0')) {
    const size_t slash = first.rfind('/');
    info.command = slash == std::string::npos ? first : first.substr(slash + 1);
  }
  return true;
}

bool HasEnded(const ProcessInfo& info) { return info.state == 'Z' || info.state == 'X'; }

// Calls visit for every process entry of "/proc"; false when "/proc" cannot be opened.
template <typename Visit>
bool ForEachProcess(Visit visit) {
  DIR* dir = opendir("/proc");
  if (dir == nullptr) return false;
  while (const dirent* entry = readdir(dir)) {
    if (!IsDigits(entry->d_name)) continue;
    ProcessInfo info;
    if (ReadProcess(entry->d_name, info) && !visit(info)) break;
  }
  closedir(dir);
  return true;
}

}  // namespace

bool IsPidStillValid(int pid) {
  bool valid = false;
  ForEachProcess([&](const ProcessInfo& info) {
    if (info.pid != pid) return true;
    valid = !HasEnded(info);
    return false;
  });
  return valid;
}

bool FindProcesses(bool exact, std::string name, std::set<int>& pids) {
  if (name.empty()) return false;
  bool found = false;
  ForEachProcess([&](const ProcessInfo& info) {
    if (HasEnded(info)) return true;
    const bool matches = exact ? (info.name == name || info.command == name)
                               : (info.name.find(name) != std::string::npos ||
                                  info.command.find(name) != std::string::npos);
    if (matches) {
      pids.insert(info.pid);
      found = true;
    }
    return true;
  });
  return found;
}

bool TerminateProcess(std::string name) {
  std::set<int> pids;
  if (!FindProcesses(true, name, pids)) return false;
  bool signalled = false;
  const int self = getpid();
  for (int pid : pids) {
    if (pid != self && pid > 0 && kill(pid, SIGTERM) == 0) signalled = true;
  }
  return signalled;
}

}  // namespace kt
