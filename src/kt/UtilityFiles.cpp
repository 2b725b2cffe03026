// Files and directories.
#include <dirent.h>
#include <errno.h>
#include <fnmatch.h>
#include <grp.h>
#include <pwd.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#ifdef __APPLE__
#include <mach-o/dyld.h>
#endif

#include <fstream>
#include <vector>

#include "kt/Utility.h"

namespace kt {

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

}  // namespace kt
