// Utility functions of the base library: sleeping, random values, UUIDs, base64, hexadecimal
// dumps, files and directories, processes, and fixed answers for platform queries.
//
// Every function here is safe to call from any thread unless its comment says otherwise. Returned
// strings are the caller's. Paths are plain POSIX paths; nothing here follows or changes the
// working directory.
#ifndef KT_UTILITY_H
#define KT_UTILITY_H

#include <sys/types.h>

#include <cstdint>
#include <list>
#include <set>
#include <string>

#include "convoke/export.h"

namespace kt {

// Sleeping

// Sleeps for ms milliseconds with nanosleep. Returns false when a signal interrupted the sleep.
CONVOKE_API bool __os_Sleep(unsigned ms);

// Sleeps for ms milliseconds with usleep.
CONVOKE_API void Suspend(unsigned ms);

// Random values. They come from the C library's random(), seeded once per process by SRand;
// they are not suitable for keys or secrets.

// Seeds random() from the microseconds of the clock on the first call; later calls do nothing.
// Every random function below calls it first.
CONVOKE_API void SRand();

// random() mod (hi - lo + 1) + lo, in unsigned arithmetic: uniform enough for small ranges, in
// [lo, hi] when lo <= hi. The full range (lo 0, hi the largest value) gives random() itself.
CONVOKE_API unsigned long RandomNumber(unsigned long lo, unsigned long hi);

// n characters from a-z, A-Z, 0-9 (empty for n < 1).
CONVOKE_API std::string GenerateRandomAlphaNumericString(int n);

// n upper-case hexadecimal digits (empty for n < 1).
CONVOKE_API std::string GenerateRandomHexString(int n);

// A new random UUID (uuid_generate) in the 36-character 8-4-4-4-12 text form of uuid_unparse.
CONVOKE_API std::string GenerateUUID();

// Encoding

// Encodes inLength bytes of in as base64 (standard alphabet, "=" padding, no line breaks) into
// out and returns the number of characters written; no terminating zero is written. Output that
// does not fit outSize is cut at a four-character boundary (nothing when outSize < 4).
CONVOKE_API unsigned long base64_encode(char* out, unsigned long outSize, const void* in,
                                        unsigned long inLength);

// Decodes base64 text into out and returns the number of bytes written. Decoding works in groups
// of four characters and stops at the first character outside the alphabet (the bytes decoded
// so far are kept), after a group with "=" in its third or fourth place, or when the next group
// would not fit the input or 3 more bytes of output. Nothing is decoded when inLength < 4 or
// outSize < 3. Line breaks are outside the alphabet: remove them first.
CONVOKE_API unsigned long base64_decode(void* out, unsigned long outSize, const char* in,
                                        unsigned long inLength);

// The same over strings.
CONVOKE_API std::string Base64Encode(std::string const& data);
CONVOKE_API std::string Base64Decode(std::string const& text);

// Two upper-case hexadecimal digits of the byte, high nibble first ("0A" for 10).
CONVOKE_API std::string DecToHex(char c);

// A hexadecimal dump: before every perLine-th byte (the first included) a line break and two
// spaces, then per byte one space, its two digits and one space. perLine 0 puts every byte on the
// first line.
CONVOKE_API std::string PrintHex(const void* data, unsigned long length, unsigned perLine);

// The SHA-1 digest of data as 40 lower-case hexadecimal digits.
CONVOKE_API std::string Sha1(std::string const& data);

// ASCII case conversion; other bytes are kept.
CONVOKE_API std::string ToUpper(std::string text);
CONVOKE_API std::string ToLower(std::string text);

// Files and directories

// The text after the last "." of path, or "" when there is none.
CONVOKE_API std::string FileExtension(std::string const& path);

// The directory of the running executable (no trailing separator); "" when it cannot be read.
CONVOKE_API std::string WhatisMyCurrentDirectory();

// chown of path to the named user and group; false when either is unknown or chown fails.
CONVOKE_API bool ChangeOwner(std::string const& path, std::string const& user,
                             std::string const& group);

// Reads "name value" lines of file: on the first line whose name (the text before the first
// space) equals key exactly, value becomes the rest of the line and the result is true. False
// when the file cannot be read or no line matches (value is then left as it was).
CONVOKE_API bool GetConfigurationString(std::string file, std::string key, std::string& value);

// The names in directory (without "." and ".."), sorted; false when it cannot be read.
CONVOKE_API bool GetDirectoryContents(std::string const& directory, std::list<std::string>& names);

// The sorted names in directory that match the shell wildcard pattern ("*.log", "core.[0-9]*").
CONVOKE_API bool FindMatchingFilesInDirectory(std::string const& directory,
                                              std::string const& pattern,
                                              std::list<std::string>& names);

// True when path is a directory (symbolic links followed).
CONVOKE_API bool DoesDirectoryExist(std::string const& path);

// True when path exists and is not a directory (symbolic links followed).
CONVOKE_API bool DoesFileExist(std::string const& path);

// Creates path and its missing parents with the given mode. True when path is a directory at the
// end (also when it already was).
CONVOKE_API bool MakeDirectory(std::string const& path, mode_t mode = 0755);

// Removes the directory path; with recursive, its contents first (symbolic links inside are
// removed, never followed). False when anything could not be removed.
CONVOKE_API bool RemoveDirectory(std::string const& path, bool recursive = false);

// Creates linkPath as a symbolic link to target; false when linkPath exists.
CONVOKE_API bool SymbolicLink(std::string const& target, std::string const& linkPath);

// Processes. They read the "/proc" file system; where it is missing (macOS) they find nothing.

// True when a process with this pid exists and has not ended (zombies count as ended).
CONVOKE_API bool IsPidStillValid(int pid);

// Adds to pids every live process whose name is name: with exact, the name the kernel keeps for
// it (at most 15 characters on Linux) or the last component of its first command-line word must
// equal name; without, either must contain name. True when at least one process was found.
CONVOKE_API bool FindProcesses(bool exact, std::string name, std::set<int>& pids);

// Sends SIGTERM to every process FindProcesses(true, name) finds, except the calling process.
// True when at least one was signalled.
CONVOKE_API bool TerminateProcess(std::string name);

// Network and platform

// The address of the interface that would carry traffic to the network: an IPv4 datagram socket
// is connected (nothing is sent) to a fixed private address, and its local address is read back
// in numeric form. The probe arguments are ignored. True when an address was found.
CONVOKE_API bool MyIP(std::string& ip, const char* probeHost = nullptr, int probePort = 0);

// The number of online processors.
CONVOKE_API int GetNumCores();

// Always false on this platform.
CONVOKE_API bool IsWindows7orLater();
CONVOKE_API bool IsWindows8orLater();

// "kt://%2Flocal:%2Ftmp%2Fpmx-db".
CONVOKE_API std::string GetDefaultDatabaseUrl();

// Allocates 20,000,000-byte blocks until malloc fails, frees them all and returns the total in
// millions of bytes, computed in 32 bits (large totals wrap). It exhausts the process's memory
// while it runs: never call it where other work shares the machine.
CONVOKE_API uint32_t TestForAvailableMemory();

// Local bridge connectors: endpoint strings of local-domain sockets under "/tmp/".

// "/tmp/" + name.
CONVOKE_API std::string GetBridgeConnectorFile(std::string const& name);

// "/local:" + GetBridgeConnectorFile(name): an endpoint string that Socket::Listen and
// Socket::Connect accept.
CONVOKE_API std::string GetBridgeConnector(std::string const& name);

// A bridge connector whose name holds this process's id and a random text:
// "/local:/tmp/bridge-<pid>-<8 characters>".
CONVOKE_API std::string GetUniqueBridgeConnector();

// Adds ":" + port after the host of an "rtsp://" address that has no port, for example
// "rtsp://server/kt.sdp/4/id" -> "rtsp://server:46000/kt.sdp/4/id" (the host ends at the first
// "/"; an IPv6 host is written in brackets). Other addresses are returned unchanged.
CONVOKE_API std::string InsertPortStringIfNotPresent(std::string const& url, unsigned short port);

}  // namespace kt

#endif  // KT_UTILITY_H
