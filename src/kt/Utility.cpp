#include "kt/Utility.h"

#include <dirent.h>
#include <errno.h>
#include <fnmatch.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>
#include <uuid/uuid.h>
#ifdef __APPLE__
#include <mach-o/dyld.h>
#endif

#include <algorithm>
#include <atomic>
#include <fstream>
#include <mutex>
#include <sstream>
#include <vector>

#include "kt/Socket.h"

namespace kt {

// Sleeping

bool __os_Sleep(unsigned ms) {
  struct timespec request;
  request.tv_sec = ms / 1000;
  request.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
  return nanosleep(&request, nullptr) == 0;
}

void Suspend(unsigned ms) { usleep(static_cast<useconds_t>(ms) * 1000); }

// Random values

namespace {

std::atomic<bool> gSeeded{false};
std::once_flag gSeedOnce;

}  // namespace

void SRand() {
  if (gSeeded.load(std::memory_order_acquire)) return;
  std::call_once(gSeedOnce, [] {
    struct timeval now;
    gettimeofday(&now, nullptr);
    srandom(static_cast<unsigned>(now.tv_usec));
    gSeeded.store(true, std::memory_order_release);
  });
}

unsigned long RandomNumber(unsigned long lo, unsigned long hi) {
  SRand();
  const unsigned long value = static_cast<unsigned long>(random());
  const unsigned long range = hi - lo + 1;
  if (range == 0) return value;  // the full range: no modulus to take
  return value % range + lo;
}

std::string GenerateRandomAlphaNumericString(int n) {
  std::string text;
  if (n < 1) return text;
  text.reserve(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) {
    SRand();
    const long r = random() % 62;
    if (r < 26) {
      text += static_cast<char>('a' + r);
    } else if (r < 52) {
      text += static_cast<char>('A' + (r - 26));
    } else {
      text += static_cast<char>('0' + (r - 52));
    }
  }
  return text;
}

std::string GenerateRandomHexString(int n) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string text;
  if (n < 1) return text;
  text.reserve(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) {
    SRand();
    text += kDigits[random() & 0xF];
  }
  return text;
}

std::string GenerateUUID() {
  uuid_t uuid;
  uuid_generate(uuid);
  char text[37];
  uuid_unparse(uuid, text);
  return std::string(text);
}

// Encoding

namespace {

constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The inverse alphabet: 0-63 for the alphabet, 0 for "=" (its place in the group decides what it
// means), 0xFF for everything else.
struct Base64Inverse {
  unsigned char value[128];
};

constexpr Base64Inverse MakeBase64Inverse() {
  Base64Inverse table{};
  for (unsigned i = 0; i < 128; ++i) table.value[i] = 0xFF;
  for (unsigned i = 0; i < 64; ++i) {
    table.value[static_cast<unsigned char>(kBase64Alphabet[i])] = static_cast<unsigned char>(i);
  }
  table.value[static_cast<unsigned char>('=')] = 0;
  return table;
}

constexpr Base64Inverse kBase64Inverse = MakeBase64Inverse();

}  // namespace

unsigned long base64_encode(char* out, unsigned long outSize, const void* in,
                            unsigned long inLength) {
  const unsigned char* bytes = static_cast<const unsigned char*>(in);
  unsigned long written = 0;
  unsigned long i = 0;
  while (inLength - i >= 3 && outSize - written >= 4) {
    const unsigned long group = (static_cast<unsigned long>(bytes[i]) << 16) |
                                (static_cast<unsigned long>(bytes[i + 1]) << 8) | bytes[i + 2];
    out[written++] = kBase64Alphabet[(group >> 18) & 0x3F];
    out[written++] = kBase64Alphabet[(group >> 12) & 0x3F];
    out[written++] = kBase64Alphabet[(group >> 6) & 0x3F];
    out[written++] = kBase64Alphabet[group & 0x3F];
    i += 3;
  }
  const unsigned long rest = inLength - i;
  if ((rest == 1 || rest == 2) && outSize - written >= 4) {
    const unsigned long group = (static_cast<unsigned long>(bytes[i]) << 16) |
                                (rest == 2 ? static_cast<unsigned long>(bytes[i + 1]) << 8 : 0);
    out[written++] = kBase64Alphabet[(group >> 18) & 0x3F];
    out[written++] = kBase64Alphabet[(group >> 12) & 0x3F];
    out[written++] = rest == 2 ? kBase64Alphabet[(group >> 6) & 0x3F] : '=';
    out[written++] = '=';
  }
  return written;
}

unsigned long base64_decode(void* out, unsigned long outSize, const char* in,
                            unsigned long inLength) {
  unsigned char* bytes = static_cast<unsigned char*>(out);
  if (inLength < 4 || outSize < 3) return 0;
  unsigned long written = 0;
  for (unsigned long i = 0; inLength - i >= 4 && outSize - written >= 3; i += 4) {
    unsigned char v[4];
    for (int k = 0; k < 4; ++k) {
      const unsigned char c = static_cast<unsigned char>(in[i + k]);
      if (c >= 0x80 || kBase64Inverse.value[c] == 0xFF) return written;
      v[k] = kBase64Inverse.value[c];
    }
    bytes[written++] = static_cast<unsigned char>((v[0] << 2) | (v[1] >> 4));
    if (in[i + 2] == '=') return written;
    bytes[written++] = static_cast<unsigned char>((v[1] << 4) | (v[2] >> 2));
    if (in[i + 3] == '=') return written;
    bytes[written++] = static_cast<unsigned char>((v[2] << 6) | v[3]);
  }
  return written;
}

std::string Base64Encode(std::string const& data) {
  std::string text((data.size() + 2) / 3 * 4, '\0');
  text.resize(base64_encode(&text[0], text.size(), data.data(), data.size()));
  return text;
}

std::string Base64Decode(std::string const& text) {
  std::string data(text.size() / 4 * 3, '\0');
  if (data.empty()) return data;
  data.resize(base64_decode(&data[0], data.size(), text.data(), text.size()));
  return data;
}

std::string DecToHex(char c) {
  static const char kDigits[] = "0123456789ABCDEF";
  const unsigned char byte = static_cast<unsigned char>(c);
  return std::string{kDigits[byte >> 4], kDigits[byte & 0xF]};
}

std::string PrintHex(const void* data, unsigned long length, unsigned perLine) {
  const char* bytes = static_cast<const char*>(data);
  std::ostringstream out;
  for (unsigned long i = 0; i < length; ++i) {
    if (perLine == 0 ? i == 0 : i % perLine == 0) out << std::endl << "  ";
    out << " " << DecToHex(bytes[i]) << " ";
  }
  return out.str();
}

// SHA-1 (FIPS 180-4).

namespace {

uint32_t RotateLeft(uint32_t value, int bits) { return (value << bits) | (value >> (32 - bits)); }

void Sha1Block(uint32_t state[5], const unsigned char block[64]) {
  uint32_t w[80];
  for (int i = 0; i < 16; ++i) {
    w[i] = (static_cast<uint32_t>(block[4 * i]) << 24) |
           (static_cast<uint32_t>(block[4 * i + 1]) << 16) |
           (static_cast<uint32_t>(block[4 * i + 2]) << 8) | block[4 * i + 3];
  }
  for (int i = 16; i < 80; ++i) w[i] = RotateLeft(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
  uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
  for (int i = 0; i < 80; ++i) {
    uint32_t f;
    uint32_t k;
    if (i < 20) {
      f = (b & c) | (~b & d);
      k = 0x5A827999;
    } else if (i < 40) {
      f = b ^ c ^ d;
      k = 0x6ED9EBA1;
    } else if (i < 60) {
      f = (b & c) | (b & d) | (c & d);
      k = 0x8F1BBCDC;
    } else {
      f = b ^ c ^ d;
      k = 0xCA62C1D6;
    }
    const uint32_t t = RotateLeft(a, 5) + f + e + k + w[i];
    e = d;
    d = c;
    c = RotateLeft(b, 30);
    b = a;
    a = t;
  }
  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
  state[4] += e;
}

}  // namespace

std::string Sha1(std::string const& data) {
  uint32_t state[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data.data());
  const size_t size = data.size();
  size_t offset = 0;
  for (; size - offset >= 64; offset += 64) Sha1Block(state, bytes + offset);

  // The tail, the 0x80 marker and the 64-bit length in bits fill one or two last blocks.
  unsigned char tail[128] = {};
  const size_t rest = size - offset;
  memcpy(tail, bytes + offset, rest);
  tail[rest] = 0x80;
  const size_t tailSize = rest < 56 ? 64 : 128;
  const uint64_t bits = static_cast<uint64_t>(size) * 8;
  for (int i = 0; i < 8; ++i) tail[tailSize - 1 - i] = static_cast<unsigned char>(bits >> (8 * i));
  Sha1Block(state, tail);
  if (tailSize == 128) Sha1Block(state, tail + 64);

  static const char kDigits[] = "0123456789abcdef";
  std::string digest;
  digest.reserve(40);
  for (uint32_t word : state) {
    for (int shift = 28; shift >= 0; shift -= 4) digest += kDigits[(word >> shift) & 0xF];
  }
  return digest;
}

std::string ToUpper(std::string text) {
  for (char& c : text) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return text;
}

std::string ToLower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

// Files and directories

std::string FileExtension(std::string const& path) {
  const size_t dot = path.rfind('.');
  return dot == std::string::npos ? std::string() : path.substr(dot + 1);
}

std::string WhatisMyCurrentDirectory() {
  char buffer[512];
#ifdef __APPLE__
  uint32_t size = sizeof(buffer);
  if (_NSGetExecutablePath(buffer, &size) != 0) return std::string();
  std::string path(buffer);
#else
  const ssize_t length = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
  if (length <= 0) return std::string();
  std::string path(buffer, static_cast<size_t>(length));
#endif
  const size_t separator = path.find_last_of("/\\");
  return separator == std::string::npos ? path : path.substr(0, separator);
}

bool ChangeOwner(std::string const& path, std::string const& user, std::string const& group) {
  std::vector<char> buffer(16384);
  struct passwd passwordEntry;
  struct passwd* userFound = nullptr;
  if (getpwnam_r(user.c_str(), &passwordEntry, buffer.data(), buffer.size(), &userFound) != 0 ||
      userFound == nullptr) {
    return false;
  }
  const uid_t uid = userFound->pw_uid;
  struct group groupEntry;
  struct group* groupFound = nullptr;
  if (getgrnam_r(group.c_str(), &groupEntry, buffer.data(), buffer.size(), &groupFound) != 0 ||
      groupFound == nullptr) {
    return false;
  }
  return chown(path.c_str(), uid, groupFound->gr_gid) == 0;
}

bool GetConfigurationString(std::string file, std::string key, std::string& value) {
  std::ifstream in(file);
  if (!in) return false;
  std::string line;
  while (std::getline(in, line)) {
    const size_t space = line.find(' ');
    const std::string name = line.substr(0, space);
    if (name == key) {
      value = space == std::string::npos ? std::string() : line.substr(space + 1);
      return true;
    }
  }
  return false;
}

bool GetDirectoryContents(std::string const& directory, std::list<std::string>& names) {
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) return false;
  std::list<std::string> found;
  while (const dirent* entry = readdir(dir)) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    found.emplace_back(entry->d_name);
  }
  closedir(dir);
  found.sort();
  names.swap(found);
  return true;
}

bool FindMatchingFilesInDirectory(std::string const& directory, std::string const& pattern,
                                  std::list<std::string>& names) {
  std::list<std::string> all;
  if (!GetDirectoryContents(directory, all)) return false;
  names.clear();
  for (const std::string& name : all) {
    if (fnmatch(pattern.c_str(), name.c_str(), 0) == 0) names.push_back(name);
  }
  return true;
}

bool DoesDirectoryExist(std::string const& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool DoesFileExist(std::string const& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && !S_ISDIR(info.st_mode);
}

bool MakeDirectory(std::string const& path, mode_t mode) {
  if (path.empty()) return false;
  // Each prefix ending before a "/" is a parent to create first.
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string parent = path.substr(0, slash);
    if (mkdir(parent.c_str(), mode) != 0 && errno != EEXIST) return false;
  }
  if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST) return false;
  return DoesDirectoryExist(path);
}

bool RemoveDirectory(std::string const& path, bool recursive) {
  if (recursive) {
    // Depth first with an explicit list, so that deep trees cannot exhaust the stack.
    std::vector<std::string> pending{path};
    std::vector<std::string> directories;
    bool ok = true;
    while (!pending.empty()) {
      const std::string current = pending.back();
      pending.pop_back();
      directories.push_back(current);
      std::list<std::string> names;
      if (!GetDirectoryContents(current, names)) return false;
      for (const std::string& name : names) {
        const std::string child = current + "/" + name;
        struct stat info;
        if (lstat(child.c_str(), &info) != 0) {
          ok = false;
        } else if (S_ISDIR(info.st_mode)) {
          pending.push_back(child);
        } else if (unlink(child.c_str()) != 0) {
          ok = false;
        }
      }
    }
    // Children were listed after their parents: remove in reverse.
    for (auto it = directories.rbegin(); it != directories.rend(); ++it) {
      if (rmdir(it->c_str()) != 0) ok = false;
    }
    return ok;
  }
  return rmdir(path.c_str()) == 0;
}

bool SymbolicLink(std::string const& target, std::string const& linkPath) {
  return symlink(target.c_str(), linkPath.c_str()) == 0;
}

// Processes

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

// Network and platform

bool MyIP(std::string& ip, const char*, int) {
  ip.clear();
  Socket socket;
  if (!socket.Open(AF_INET, SOCK_DGRAM, 0)) return false;
  // A datagram connect sends nothing: it only picks the outgoing interface.
  if (!socket.Connect("192.168.1.1", "10000", SOCK_DGRAM)) return false;
  // Numeric: a name lookup here would query the resolver and could answer with a name.
  std::string service;
  if (!socket.GetSockName(ip, service, true)) ip.clear();
  return !ip.empty();
}

int GetNumCores() { return static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN)); }

bool IsWindows7orLater() { return false; }

bool IsWindows8orLater() { return false; }

std::string GetDefaultDatabaseUrl() { return "kt://%2Flocal:%2Ftmp%2Fpmx-db"; }

uint32_t TestForAvailableMemory() {
  const size_t kBlock = 20000000;
  std::list<void*> blocks;
  uint32_t total = 0;
  for (;;) {
    void* block = malloc(kBlock);
    if (block == nullptr) break;
    blocks.push_back(block);
    total += static_cast<uint32_t>(kBlock);
  }
  for (void* block : blocks) free(block);
  return total / 1000000;
}

// Local bridge connectors

std::string GetBridgeConnectorFile(std::string const& name) { return "/tmp/" + name; }

std::string GetBridgeConnector(std::string const& name) {
  return "/local:" + GetBridgeConnectorFile(name);
}

std::string GetUniqueBridgeConnector() {
  return GetBridgeConnector("bridge-" + std::to_string(getpid()) + "-" +
                            GenerateRandomAlphaNumericString(8));
}

std::string InsertPortStringIfNotPresent(std::string const& url, unsigned short port) {
  static const std::string kScheme = "rtsp://";
  if (url.compare(0, kScheme.size(), kScheme) != 0) return url;
  const size_t hostStart = kScheme.size();
  size_t hostEnd = url.find('/', hostStart);
  if (hostEnd == std::string::npos) hostEnd = url.size();
  const std::string authority = url.substr(hostStart, hostEnd - hostStart);
  // A port follows the last ":" of the authority, unless that ":" is inside an IPv6 bracket.
  const size_t colon = authority.rfind(':');
  const size_t bracket = authority.rfind(']');
  const bool hasPort =
      colon != std::string::npos && (bracket == std::string::npos || colon > bracket);
  if (hasPort || authority.empty()) return url;
  return url.substr(0, hostEnd) + ":" + std::to_string(port) + url.substr(hostEnd);
}

}  // namespace kt
