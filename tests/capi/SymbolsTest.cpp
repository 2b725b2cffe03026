// The product's dynamic symbol table: every host entry point is exported under its intended name,
// and nothing of the meeting layer's internals is.
#include <cxxabi.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

namespace {

std::set<std::string> exportedSymbols() {
  std::set<std::string> symbols;
  const std::string command = "nm -D --defined-only " CONVOKE_LIBRARY_PATH " 2>/dev/null";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return symbols;
  char line[4096];
  while (std::fgets(line, sizeof(line), pipe) != nullptr) {
    std::string entry(line);
    if (!entry.empty() && entry.back() == '\n') entry.pop_back();
    const std::size_t space = entry.rfind(' ');
    if (space != std::string::npos) symbols.insert(entry.substr(space + 1));
  }
  pclose(pipe);
  return symbols;
}

// Members, type information and virtual tables of the base library's public classes, its stream
// operators, and the two delegate classes hosts may derive from.
bool isPublicClassSymbol(const std::string& name) {
  static const char* const classes[] = {
      "kt::",        "Socket",          "IPv4Socket",       "IPv6Socket",        "Timer",
      "Rate",        "Event",           "AsyncEvent",       "TimerEvent",        "ProcessEvent",
      "SocketEvent", "SocketReadEvent", "SocketWriteEvent", "SocketExceptEvent", "Dispatch",
      "Callback",    "MeetingDelegate", "CMeetingDelegate"};
  static const char* const prefixes[] = {"", "typeinfo for ", "typeinfo name for ", "vtable for "};
  for (const char* prefix : prefixes) {
    for (const char* cls : classes) {
      const std::string start = std::string(prefix) + cls;
      if (name.compare(0, start.size(), start) != 0) continue;
      const char next = name.size() > start.size() ? name[start.size()] : '\0';
      if (start.back() == ':' || next == ':' || next == '\0') return true;
    }
  }
  return name.compare(0, 29, "operator<<(std::ostream&, Soc") == 0 ||
         name.compare(0, 35, "operator<<(std::ostream&, std::map<") == 0;
}

TEST(Symbols, HostEntryPointsAreExportedAndInternalsAreNot) {
  const std::set<std::string> symbols = exportedSymbols();
  ASSERT_FALSE(symbols.empty()) << "could not read the symbol table of " CONVOKE_LIBRARY_PATH;

  const char* plainC[] = {
      "ConvokeInitialize",
      "SetDelegateCallback",
      "ConvokeDeallocate",
      "joinMeeting",
      "exitMeeting",
      "getLastError",
      "enableAudioInput",
      "disableAudioInput",
      "enableAudioOutput",
      "disableAudioOutput",
      "setAudioStreamVolume",
      "setAudioInputVolume",
      "setAudioOutputVolume",
      "enableVideoCapture",
      "diableVideoCapture",
      "enableNetworkVideo",
      "disableNetworkVideo",
      "enableVideoStream",
      "disableVideoStream",
      "pauseVideoFrameProcessing",
      "resumeVideoFrameProcessing",
      "setTraceLevel",
      "audioTraceLevel",
      "videoTraceLevel",
      "audioTraceOutputHistory",
      "videoTraceOutputHistory",
      "playSound",
      "stopSound",
      "setDeviceOrientation",
      "getVideoDevices",
      "getAudioInputDevices",
      "getAudioOutputDevices",
      "getSupportedVideoSendResolutions",
      "isScreenShare",
      "getParticipantString",
      "getParticipantBool",
      "getParticipantVideoInfoCount",
      "getParticipantVideoInfoAt",
      "getVideoInfoString",
      "getVideoInfoBool",
      "getVideoInfoInt",
      "getParticipantAudioInfoStreamId",
      "getParticipantAudioInfoSite",
      "loggingCallback",
      "audioCallback",
      "videoCallback",
  };
  for (const char* name : plainC) EXPECT_EQ(symbols.count(name), 1u) << name;

  const char* mangled[] = {
      "_Z15freeStringArrayPPct",
      "_Z29enableInlineAudioVideoLoggingb",
      "_Z30findParticipantByVideoStreamIdPKcPct",
      "_Z30findParticipantByAudioStreamIdPKcPct",
  };
  for (const char* name : mangled) EXPECT_EQ(symbols.count(name), 1u) << name;

  // No correctly spelled capture export, and nothing else with a plain C name or of the meeting
  // layer. C++ symbols may only belong to the base library's public classes.
  EXPECT_EQ(symbols.count("disableVideoCapture"), 0u);
  const std::set<std::string> allowedPlain(std::begin(plainC), std::end(plainC));
  const std::set<std::string> allowedMangled(std::begin(mangled), std::end(mangled));
  for (const std::string& symbol : symbols) {
    if (symbol.compare(0, 2, "_Z") != 0) {
      // Linker-provided markers are fine; anything else must be a host entry point.
      if (symbol == "_init" || symbol == "_fini" || symbol == "_edata" || symbol == "_end" ||
          symbol == "__bss_start") {
        continue;
      }
      EXPECT_EQ(allowedPlain.count(symbol), 1u) << "unexpected export " << symbol;
      continue;
    }
    if (allowedMangled.count(symbol) != 0) continue;
    int status = 0;
    char* demangled = abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status);
    ASSERT_EQ(status, 0) << symbol;
    const std::string name(demangled);
    std::free(demangled);
    EXPECT_TRUE(isPublicClassSymbol(name)) << "unexpected export " << name;
  }
}

}  // namespace
