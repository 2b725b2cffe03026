#include "kt/Utility.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif

#include <chrono>
#include <cstring>
#include <fstream>

namespace {

// A fresh directory under the system's temporary directory, removed with its contents at the end.
class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/kt-utility-XXXXXX";
    path_ = mkdtemp(pattern);
  }
  ~TempDir() { kt::RemoveDirectory(path_, true); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

void WriteFile(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

}  // namespace

TEST(UtilityRandom, LengthsAndAlphabets) {
  EXPECT_EQ(kt::GenerateRandomHexString(0), "");
  EXPECT_EQ(kt::GenerateRandomAlphaNumericString(-3), "");
  const std::string hex = kt::GenerateRandomHexString(4000);
  ASSERT_EQ(hex.size(), 4000u);
  EXPECT_EQ(hex.find_first_not_of("0123456789ABCDEF"), std::string::npos);
  const std::string text = kt::GenerateRandomAlphaNumericString(4000);
  ASSERT_EQ(text.size(), 4000u);
  const std::string lower = "abcdefghijklmnopqrstuvwxyz";
  const std::string upper = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  EXPECT_EQ(text.find_first_not_of(lower + upper + "0123456789"), std::string::npos);
  // Every class shows up in 4,000 draws.
  EXPECT_NE(text.find_first_of(lower), std::string::npos);
  EXPECT_NE(text.find_first_of(upper), std::string::npos);
  EXPECT_NE(text.find_first_of("0123456789"), std::string::npos);
  EXPECT_NE(hex.find_first_of("ABCDEF"), std::string::npos);
  EXPECT_NE(kt::GenerateRandomHexString(32), kt::GenerateRandomHexString(32));

  bool sawLo = false;
  bool sawHi = false;
  for (int i = 0; i < 2000; ++i) {
    const unsigned long n = kt::RandomNumber(5, 8);
    ASSERT_GE(n, 5u);
    ASSERT_LE(n, 8u);
    sawLo |= n == 5;
    sawHi |= n == 8;
  }
  EXPECT_TRUE(sawLo && sawHi);
  EXPECT_EQ(kt::RandomNumber(7, 7), 7u);

  const std::string uuid = kt::GenerateUUID();
  ASSERT_EQ(uuid.size(), 36u);
  EXPECT_EQ(uuid[8], '-');
  EXPECT_NE(uuid, kt::GenerateUUID());
}

TEST(UtilityBase64, EncodesStandardVectorsAndCutsAtGroups) {
  const std::pair<std::string, std::string> rows[] = {{"", ""},
                                                      {"f", "Zg=="},
                                                      {"fo", "Zm8="},
                                                      {"foo", "Zm9v"},
                                                      {"foob", "Zm9vYg=="},
                                                      {"fooba", "Zm9vYmE="},
                                                      {"foobar", "Zm9vYmFy"},
                                                      {std::string("\xff\xfe\x00", 3), "//4A"}};
  for (const auto& row : rows) {
    EXPECT_EQ(kt::Base64Encode(row.first), row.second) << row.second;
    EXPECT_EQ(kt::Base64Decode(row.second), row.first) << row.second;
  }

  char out[16];
  memset(out, '#', sizeof(out));
  EXPECT_EQ(kt::base64_encode(out, 7, "abcd", 4), 4u);  // the second group does not fit
  EXPECT_EQ(std::string(out, 5), "YWJj#");
  EXPECT_EQ(kt::base64_encode(out, 3, "a", 1), 0u);
  EXPECT_EQ(kt::base64_encode(out, 8, "abcd", 4), 8u);
  EXPECT_EQ(std::string(out, 8), "YWJjZA==");
}

TEST(UtilityBase64, DecodeStopsAtBadCharactersAndLimits) {
  const struct {
    const char* text;
    unsigned long outSize;
    std::string expected;
  } rows[] = {
      {"TWE=", 16, "Ma"},
      {"TW!A", 16, ""},
      {"TWFu", 16, "Man"},
      {"TQ==TWFu", 16, "M"},
      {"TWFuTW!u", 16, "Man"},
      {"TWFuTWF", 16, "Man"},
      {"TWF", 16, ""},
      {"TWFu", 2, ""},
      {"TWFuTWFu", 5, "Man"},
      {"TWFu\nTWFu", 16, "Man"},
      {"TW\x80u", 16, ""},
      {"", 16, ""},
      {"=AAA", 16, std::string(3, '\0')},  // "=" only ends a group in its last two places
  };
  for (const auto& row : rows) {
    unsigned char out[16];
    const unsigned long n = kt::base64_decode(out, row.outSize, row.text, strlen(row.text));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out), n), row.expected) << row.text;
  }

  std::string bytes;
  for (int i = 0; i < 300; ++i) bytes += static_cast<char>(kt::RandomNumber(0, 255));
  for (size_t length = 0; length < bytes.size(); length += 37) {
    const std::string piece = bytes.substr(0, length);
    EXPECT_EQ(kt::Base64Decode(kt::Base64Encode(piece)), piece);
  }
}

TEST(UtilityHex, DigitsAndDumps) {
  EXPECT_EQ(kt::DecToHex('\0'), "00");
  EXPECT_EQ(kt::DecToHex('\x0a'), "0A");
  EXPECT_EQ(kt::DecToHex('\xff'), "FF");
  EXPECT_EQ(kt::PrintHex("\x00\xff", 2, 1), "\n   00 \n   FF ");
  EXPECT_EQ(kt::PrintHex("abc", 3, 16), "\n   61  62  63 ");
  EXPECT_EQ(kt::PrintHex("abc", 3, 2), "\n   61  62 \n   63 ");
  EXPECT_EQ(kt::PrintHex("abc", 3, 0), "\n   61  62  63 ");
  EXPECT_EQ(kt::PrintHex("", 0, 4), "");
}

TEST(UtilityText, Sha1AndCase) {
  EXPECT_EQ(kt::Sha1(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(kt::Sha1("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(kt::Sha1("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
  EXPECT_EQ(kt::Sha1(std::string(1000000, 'a')), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
  EXPECT_EQ(kt::Sha1(std::string(64, 'x')).size(), 40u);  // a whole block plus the padding block

  EXPECT_EQ(kt::ToUpper("MiXed 1\xe9"), "MIXED 1\xe9");
  EXPECT_EQ(kt::ToLower("MiXed 1\xc9"), "mixed 1\xc9");
  EXPECT_EQ(kt::FileExtension("archive.tar.gz"), "gz");
  EXPECT_EQ(kt::FileExtension("/usr/bin/env"), "");
  EXPECT_EQ(kt::FileExtension("name."), "");
}

TEST(UtilityFiles, DirectoriesAndConfiguration) {
  TempDir temp;
  ASSERT_FALSE(temp.path().empty());
  const std::string nested = temp.path() + "/a/b/c";
  EXPECT_TRUE(kt::MakeDirectory(nested));
  EXPECT_TRUE(kt::MakeDirectory(nested));  // already there
  EXPECT_TRUE(kt::DoesDirectoryExist(nested));
  EXPECT_FALSE(kt::DoesFileExist(nested));

  WriteFile(temp.path() + "/z.log", "");
  WriteFile(temp.path() + "/b.log", "");
  WriteFile(temp.path() + "/conf", "alpha one\nkey value with spaces\nkey second\nbare\n");
  EXPECT_TRUE(kt::DoesFileExist(temp.path() + "/conf"));
  EXPECT_FALSE(kt::MakeDirectory(temp.path() + "/conf/x"));

  std::list<std::string> names;
  ASSERT_TRUE(kt::GetDirectoryContents(temp.path(), names));
  EXPECT_EQ(names, (std::list<std::string>{"a", "b.log", "conf", "z.log"}));
  ASSERT_TRUE(kt::FindMatchingFilesInDirectory(temp.path(), "*.log", names));
  EXPECT_EQ(names, (std::list<std::string>{"b.log", "z.log"}));
  EXPECT_FALSE(kt::GetDirectoryContents(temp.path() + "/missing", names));

  std::string value = "unchanged";
  EXPECT_TRUE(kt::GetConfigurationString(temp.path() + "/conf", "key", value));
  EXPECT_EQ(value, "value with spaces");
  EXPECT_TRUE(kt::GetConfigurationString(temp.path() + "/conf", "bare", value));
  EXPECT_EQ(value, "");
  value = "unchanged";
  EXPECT_FALSE(kt::GetConfigurationString(temp.path() + "/conf", "KEY", value));
  EXPECT_FALSE(kt::GetConfigurationString(temp.path() + "/missing", "key", value));
  EXPECT_EQ(value, "unchanged");

  // A recursive removal deletes links, never what they point to.
  TempDir outside;
  WriteFile(outside.path() + "/keep", "x");
  EXPECT_TRUE(kt::SymbolicLink(outside.path(), nested + "/link"));
  EXPECT_FALSE(kt::SymbolicLink(outside.path(), nested + "/link"));
  EXPECT_TRUE(kt::DoesDirectoryExist(nested + "/link"));
  EXPECT_FALSE(kt::RemoveDirectory(temp.path() + "/a"));  // not empty
  EXPECT_TRUE(kt::RemoveDirectory(temp.path() + "/a", true));
  EXPECT_FALSE(kt::DoesDirectoryExist(temp.path() + "/a"));
  EXPECT_TRUE(kt::DoesFileExist(outside.path() + "/keep"));

  const passwd* me = getpwuid(getuid());
  ASSERT_NE(me, nullptr);
  EXPECT_FALSE(kt::ChangeOwner(temp.path() + "/conf", "no-such-user-kt", "root"));
  EXPECT_FALSE(kt::ChangeOwner(temp.path() + "/conf", me->pw_name, "no-such-group-kt"));
}

TEST(UtilityFiles, ExecutableDirectory) {
  const std::string directory = kt::WhatisMyCurrentDirectory();
  ASSERT_FALSE(directory.empty());
  EXPECT_NE(directory.back(), '/');
  EXPECT_TRUE(kt::DoesFileExist(directory + "/kt_tests"));
}

#ifdef __linux__
TEST(UtilityProcesses, FindAndTerminateByName) {
  EXPECT_TRUE(kt::IsPidStillValid(getpid()));
  EXPECT_FALSE(kt::IsPidStillValid(-5));

  const std::string name = "ktt" + kt::GenerateRandomAlphaNumericString(8);
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    prctl(PR_SET_NAME, name.c_str());
    for (;;) pause();
  }
  std::set<int> pids;
  for (int i = 0; i < 500 && !kt::FindProcesses(true, name, pids); ++i) kt::Suspend(10);
  EXPECT_EQ(pids, std::set<int>{child});
  pids.clear();
  EXPECT_TRUE(kt::FindProcesses(false, name.substr(2, 6), pids));
  EXPECT_EQ(pids.count(child), 1u);
  EXPECT_TRUE(kt::IsPidStillValid(child));

  EXPECT_TRUE(kt::TerminateProcess(name));
  // Until it is reaped the child is a zombie: already not valid.
  for (int i = 0; i < 500 && kt::IsPidStillValid(child); ++i) kt::Suspend(10);
  EXPECT_FALSE(kt::IsPidStillValid(child));
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  EXPECT_FALSE(kt::TerminateProcess(name));
  pids.clear();
  EXPECT_FALSE(kt::FindProcesses(true, "", pids));
}
#endif

TEST(UtilityPlatform, ConnectorsAndMediaUrls) {
  EXPECT_EQ(kt::GetDefaultDatabaseUrl(), "kt://%2Flocal:%2Ftmp%2Fpmx-db");
  EXPECT_EQ(kt::GetBridgeConnector("pmx"), "/local:/tmp/pmx");
  const std::string unique = kt::GetUniqueBridgeConnector();
  EXPECT_EQ(unique.rfind("/local:/tmp/bridge-" + std::to_string(getpid()) + "-", 0), 0u);
  EXPECT_NE(unique, kt::GetUniqueBridgeConnector());

  const struct {
    const char* url;
    const char* expected;
  } rows[] = {
      {"rtsp://server/kt.sdp/4/id", "rtsp://server:46000/kt.sdp/4/id"},
      {"rtsp://server:554/kt.sdp/4/id", "rtsp://server:554/kt.sdp/4/id"},
      {"rtsp://server", "rtsp://server:46000"},
      {"rtsp://[::1]/kt.sdp", "rtsp://[::1]:46000/kt.sdp"},
      {"rtsp://[::1]:7/kt.sdp", "rtsp://[::1]:7/kt.sdp"},
      {"http://server/kt.sdp", "http://server/kt.sdp"},
      {"rtsp:///kt.sdp", "rtsp:///kt.sdp"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(kt::InsertPortStringIfNotPresent(row.url, 46000), row.expected) << row.url;
  }

  // Nothing is sent: the datagram connect only selects an interface.
  std::string ip = "stale";
  if (kt::MyIP(ip, "ignored", 1)) {
    in_addr parsed;
    EXPECT_EQ(inet_pton(AF_INET, ip.c_str(), &parsed), 1) << ip;
  } else {
    EXPECT_EQ(ip, "");
  }
}

TEST(UtilitySleep, SleepsAtLeastTheAskedTime) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(kt::__os_Sleep(20));
  kt::Suspend(5);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(25));
}
