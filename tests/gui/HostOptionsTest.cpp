// Both hosts (convoke-demo, convoke-gallery) read their options through one table reader: a value
// that does not parse or is out of range is a usage error (status 2), an output file that cannot be
// written is a failure (status 1), and either is said on stderr before any meeting is joined.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

struct HostRun {
  int status = -1;
  std::string output;
};

HostRun RunHost(const std::string& host, const std::string& arguments) {
  HostRun run;
  FILE* pipe = popen(("timeout -k 5 30 " + host + " " + arguments + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return run;
  char buffer[512];
  while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) run.output += buffer;
  const int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

std::vector<std::string> Hosts() {
  std::vector<std::string> hosts = {CONVOKE_DEMO_PATH};
#ifdef CONVOKE_GALLERY_PATH
  hosts.push_back(CONVOKE_GALLERY_PATH);
#endif
  return hosts;
}

TEST(HostOptions, BadValuesAreUsageErrorsThatNameTheOption) {
  const struct {
    const char* arguments;
    const char* says;
  } cases[] = {
      {"--duration abc", "--duration 'abc': not a number of seconds"},
      {"--duration 0", "--duration 0: out of range"},
      {"--participants -5", "--participants -5: out of range (0 to 1000)"},
      {"--participants 5x", "--participants '5x': not a whole number"},
      {"--participants 1001", "out of range"},
      {"--name ''", "--name '': not allowed empty"},
      {"--duration", "--duration needs a value"},
      {"--frobnicate 1", "unknown option '--frobnicate'"},
  };
  for (const std::string& host : Hosts()) {
    for (const auto& c : cases) {
      const HostRun run = RunHost(host, c.arguments);
      EXPECT_EQ(run.status, 2) << host << " " << c.arguments << "\n" << run.output;
      EXPECT_NE(run.output.find(c.says), std::string::npos) << host << "\n" << run.output;
      EXPECT_EQ(run.output.find("joining"), std::string::npos) << host << "\n" << run.output;
    }
  }
}

TEST(HostOptions, AnOutputThatCannotBeWrittenFailsBeforeJoining) {
  const std::string option[] = {"--snapshot", "--screenshot"};
  const std::vector<std::string> hosts = Hosts();
  for (size_t i = 0; i < hosts.size(); ++i) {
    for (const char* path : {"/nonexistent/dir/x.png", "/"}) {
      const HostRun run = RunHost(hosts[i], option[i] + " " + path);
      EXPECT_EQ(run.status, 1) << hosts[i] << " " << path << "\n" << run.output;
      EXPECT_NE(run.output.find("cannot write the file"), std::string::npos) << run.output;
      EXPECT_EQ(run.output.find("joining"), std::string::npos) << run.output;
    }
  }
}

#ifdef CONVOKE_GALLERY_PATH
TEST(HostOptions, TheGalleryRefusesABadScriptOrAScreenshotAfterTheEnd) {
  const std::string script = ::testing::TempDir() + "bad-gallery-script.txt";
  FILE* file = std::fopen(script.c_str(), "w");
  ASSERT_NE(file, nullptr);
  std::fputs("1.0 m\n2.0 x\n", file);
  std::fclose(file);
  HostRun run = RunHost(CONVOKE_GALLERY_PATH, "--script " + script);
  EXPECT_EQ(run.status, 2) << run.output;
  EXPECT_NE(run.output.find(script + ":2:"), std::string::npos) << run.output;
  run = RunHost(CONVOKE_GALLERY_PATH, "--screenshot /tmp/x.png --at 9 --duration 3");
  EXPECT_EQ(run.status, 2) << run.output;
  run = RunHost(CONVOKE_GALLERY_PATH, "--at 3");
  EXPECT_EQ(run.status, 2) << run.output;
  std::remove(script.c_str());
}
#endif

}  // namespace
