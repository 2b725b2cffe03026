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

#include "kt/ktexport.h"

namespace kt {

// Sleeping

// Sleeps for ms milliseconds with nanosleep. Returns false when a signal interrupted the sleep.
KT_EXPORT bool __os_Sleep(unsigned ms);

// Sleeps for ms milliseconds with usleep.
KT_EXPORT void Suspend(unsigned ms);

// Random values. They come from the C library's random(), seeded once per process by SRand;
// they are not suitable for keys or secrets.

// Seeds random() from the microseconds of the clock on the first call; later calls do nothing.
// Every random function below calls it first.
KT_EXPORT void SRand();

// random() mod (hi - lo + 1) + lo, in unsigned arithmetic: uniform enough for small ranges, in
// [lo, hi] when lo <= hi. The full range (lo 0, hi the largest value) gives random() itself.
KT_EXPORT unsigned long RandomNumber(unsigned long lo, unsigned long hi);

// n characters from a-z, A-Z, 0-9 (empty for n < 1).
KT_EXPORT std::string GenerateRandomAlphaNumericString(int n);

// n upper-case hexadecimal digits (empty for n < 1).
KT_EXPORT std::string GenerateRandomHexString(int n);

// A new random UUID (uuid_generate) in the 36-character 8-4-4-4-12 text form of uuid_unparse.
KT_EXPORT std::string GenerateUUID();

// Encoding

// Encodes inLength bytes of in as base64 (standard alphabet, "=" padding, no line breaks) into
// out and returns the number of characters written; no terminating zero is written. Output that
// does not fit outSize is cut at a four-character boundary (nothing when outSize < 4).
KT_EXPORT unsigned long base64_encode(char* out, unsigned long outSize, const void* in,
                                      unsigned long inLength);

// Decodes base64 text into out and returns the number of bytes written. Decoding works in groups
// of four characters and stops at the first character outside the alphabet (the bytes decoded
// so far are kept), after a group with "=" in its third or fourth place, or when the next group
// would not fit the input or 3 more bytes of output. Nothing is decoded when inLength < 4 or
// outSize < 3. Line breaks are outside the alphabet: remove them first.
KT_EXPORT unsigned long base64_decode(void* out, unsigned long outSize, const char* in,
                                      unsigned long inLength);

// The same over strings.
KT_EXPORT std::string Base64Encode(std::string const& data);
KT_EXPORT std::string Base64Decode(std::string const& text);

// Two upper-case hexadecimal digits of the byte, high nibble first ("0A" for 10).
KT_EXPORT std::string DecToHex(char c);

// A hexadecimal dump: before every perLine-th byte (the first included) a line break and two
// spaces, then per byte one space, its two digits and one space. perLine 0 puts every byte on the
// first line.
KT_EXPORT std::string PrintHex(const void* data, unsigned long length, unsigned perLine);

// The SHA-1 digest of data as 40 lower-case hexadecimal digits.
KT_EXPORT std::string Sha1(std::string const& data);

// ASCII case conversion; other bytes are kept.
KT_EXPORT std::string ToUpper(std::string text);
KT_EXPORT std::string ToLower(std::string text);

// Files and directories

// The text after the last "." of path, or "" when there is none.
KT_EXPORT std::string FileExtension(std::string const& path);

// The directory of the running executable (no trailing separator); "" when it cannot be read.
KT_EXPORT std::string WhatisMyCurrentDirectory();

// chown of path to the named user and group; false when either is unknown or chown fails.
KT_EXPORT bool ChangeOwner(std::string const& path, std::string const& user,
                           std::string const& group);

// Reads "name value" lines of file: on the first line whose name (the text before the first
// space) equals key exactly, value becomes the rest of the line and the result is true. False
// when the file cannot be read or no line matches (value is then left as it was).
KT_EXPORT bool GetConfigurationString(std::string file, std::string key, std::string& value);

// The names in directory (without "." and ".."), sorted; false when it cannot be read.
KT_EXPORT bool GetDirectoryContents(std::string const& directory, std::list<std::string>& names);

// The sorted names in directory that match the shell wildcard pattern ("*.log", "core.[0-9]*").
KT_EXPORT bool FindMatchingFilesInDirectory(std::string const& directory,
                                            std::string const& pattern,
                                            std::list<std::string>& names);

// True when path is a directory (symbolic links followed).
KT_EXPORT bool DoesDirectoryExist(std::string const& path);

// True when path exists and is not a directory (symbolic links followed).
KT_EXPORT bool DoesFileExist(std::string const& path);

// Creates path and its missing parents with the given mode. True when path is a directory at the
// end (also when it already was).
KT_EXPORT bool MakeDirectory(std::string const& path, mode_t mode = 0755);

// Removes the directory path; with recursive, its contents first (symbolic links inside are
// removed, never followed). False when anything could not be removed.
KT_EXPORT bool RemoveDirectory(std::string const& path, bool recursive = false);

// Creates linkPath as a symbolic link to target; false when linkPath exists.
KT_EXPORT bool SymbolicLink(std::string const& target, std::string const& linkPath);

// Processes. They read the "/proc" file system; where it is missing (macOS) they find nothing.

// True when a process with this pid exists and has not ended (zombies count as ended).
KT_EXPORT bool IsPidStillValid(int pid);

// Adds to pids every live process whose name is name: with exact, the name the kernel keeps for
// it (at most 15 characters on Linux) or the last component of its first command-line word must
// equal name; without, either must contain name. True when at least one process was found.
KT_EXPORT bool FindProcesses(bool exact, std::string name, std::set<int>& pids);

// Sends SIGTERM to every process FindProcesses(true, name) finds, except the calling process.
// True when at least one was signalled.
KT_EXPORT bool TerminateProcess(std::string name);

// Network and platform

// The address of the interface that would carry traffic to the network: an IPv4 datagram socket
// is connected (nothing is sent) to a fixed private address, and its local address is read back
// in numeric form. The probe arguments are ignored. True when an address was found.
KT_EXPORT bool MyIP(std::string& ip, const char* probeHost = nullptr, int probePort = 0);

// The number of online processors.
KT_EXPORT int GetNumCores();

// Always false on this platform.
KT_EXPORT bool IsWindows7orLater();
KT_EXPORT bool IsWindows8orLater();

// "kt://%2Flocal:%2Ftmp%2Fpmx-db".
KT_EXPORT std::string GetDefaultDatabaseUrl();

// Allocates 20,000,000-byte blocks until malloc fails, frees them all and returns the total in
// millions of bytes, computed in 32 bits (large totals wrap). It exhausts the process's memory
// while it runs: never call it where other work shares the machine.
KT_EXPORT uint32_t TestForAvailableMemory();

// Local bridge connectors: endpoint strings of local-domain sockets under "/tmp/".

// "/tmp/" + name.
KT_EXPORT std::string GetBridgeConnectorFile(std::string const& name);

// "/local:" + GetBridgeConnectorFile(name): an endpoint string that Socket::Listen and
// Socket::Connect accept.
KT_EXPORT std::string GetBridgeConnector(std::string const& name);

// A bridge connector whose name holds this process's id and a random text:
// "/local:/tmp/bridge-<pid>-<8 characters>".
KT_EXPORT std::string GetUniqueBridgeConnector();

// Adds ":" + port after the host of an "rtsp://" address that has no port, for example
// "rtsp://server/kt.sdp/4/id" -> "rtsp://server:46000/kt.sdp/4/id" (the host ends at the first
// "/"; an IPv6 host is written in brackets). Other addresses are returned unchanged.
KT_EXPORT std::string InsertPortStringIfNotPresent(std::string const& url, unsigned short port);

}  // namespace kt

#endif  // KT_UTILITY_H
