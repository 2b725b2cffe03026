// The product's dynamic symbol table against its contract: every host entry point under its
// intended name; every public class of the base library with its type information and virtual
// table; every stream operator the public headers declare; and nothing else.
#include <cxxabi.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "kt/kt.h"

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

std::string demangle(const std::string& symbol) {
  int status = 0;
  char* demangled = abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status);
  if (status != 0) return symbol;
  std::string name(demangled);
  std::free(demangled);
  return name;
}

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// The declarations of the public kt headers that carry the export macro, read the way a reader
// of the headers sees them (independently of the build's export-list generator).
struct HeaderExports {
  std::multiset<std::string> classes;  // unqualified names, nested ones included
  int streamOperators = 0;
};

HeaderExports readHeaderExports() {
  // The build passes the source tree's root: __FILE__ may be relative (compiler caches rewrite it).
  const std::string root = CONVOKE_SOURCE_DIR "/";
  const char* headers[] = {"Dispatch.h", "Event.h", "MemoryManager.h", "ProcessEvent.h",
                           "Socket.h",   "Timer.h", "Utility.h",       "xml.h"};
  const std::regex classDeclaration(R"(^\s*(class|struct) CONVOKE_API (\w+))");
  const std::regex streamOperator(R"(CONVOKE_API std::[io]stream& operator(<<|>>)\()");
  HeaderExports exports;
  for (const char* header : headers) {
    std::ifstream in(root + "include/kt/" + header);
    EXPECT_TRUE(in.good()) << "cannot read include/kt/" << header;
    std::string line;
    std::smatch match;
    while (std::getline(in, line)) {
      if (std::regex_search(line, match, classDeclaration)) exports.classes.insert(match[2]);
      if (std::regex_search(line, streamOperator)) ++exports.streamOperators;
    }
  }
  return exports;
}

struct PublicClass {
  std::string name;     // qualified, as the demangler writes it
  std::string mangled;  // the type's mangled name
  bool polymorphic;
};

// Whether a class has a virtual table is part of its contract: a class that lost it would lose
// its exported type information and virtual table unnoticed, so the list states it and the
// compiler checks it.
template <class T, bool kPolymorphic>
PublicClass publicClass(const char* name) {
  static_assert(std::is_polymorphic<T>::value == kPolymorphic, "polymorphism changed");
  return PublicClass{name, typeid(T).name(), kPolymorphic};
}
#define CONVOKE_PUBLIC_CLASS(T, polymorphic) publicClass<T, polymorphic>(#T)

const std::vector<PublicClass>& publicClasses() {
  static const std::vector<PublicClass> classes = {
      CONVOKE_PUBLIC_CLASS(Callback, true),
      CONVOKE_PUBLIC_CLASS(Dispatch, true),
      CONVOKE_PUBLIC_CLASS(Event, true),
      CONVOKE_PUBLIC_CLASS(AsyncEvent, true),
      CONVOKE_PUBLIC_CLASS(TimerEvent, true),
      CONVOKE_PUBLIC_CLASS(SocketEvent, true),
      CONVOKE_PUBLIC_CLASS(SocketReadEvent, true),
      CONVOKE_PUBLIC_CLASS(SocketWriteEvent, true),
      CONVOKE_PUBLIC_CLASS(SocketExceptEvent, true),
      CONVOKE_PUBLIC_CLASS(ProcessEvent, true),
      CONVOKE_PUBLIC_CLASS(kt::MemoryManager, false),
      CONVOKE_PUBLIC_CLASS(Socket, true),
      CONVOKE_PUBLIC_CLASS(Socket::Address, true),
      CONVOKE_PUBLIC_CLASS(Socket::AddressInfo, false),
      CONVOKE_PUBLIC_CLASS(IPv4Socket, true),
      CONVOKE_PUBLIC_CLASS(IPv4Socket::Address, true),
      CONVOKE_PUBLIC_CLASS(IPv6Socket, true),
      CONVOKE_PUBLIC_CLASS(IPv6Socket::Address, true),
      CONVOKE_PUBLIC_CLASS(Timer, true),
      CONVOKE_PUBLIC_CLASS(Rate, true),
      CONVOKE_PUBLIC_CLASS(kt::XMLAttribute, false),
      CONVOKE_PUBLIC_CLASS(kt::XMLElement, true),
      CONVOKE_PUBLIC_CLASS(kt::XMLFile, false),
      CONVOKE_PUBLIC_CLASS(kt::PrintElement, false),
      CONVOKE_PUBLIC_CLASS(kt::PrintAttribute, false),
  };
  return classes;
}

// The stream operators of the public headers, as the demangler writes them; the one over the
// options map is matched by its start (its full name spells out the standard library's types).
const char* const kStreamOperators[] = {
    "operator<<(std::ostream&, Socket::error_t)",
    "operator<<(std::ostream&, Socket::Address const&)",
    "operator<<(std::ostream&, Socket::AddressType)",
    "operator<<(std::ostream&, Socket::AddressFamily)",
    "operator<<(std::ostream&, std::map<",
    "kt::operator>>(std::istream&, kt::XMLElement&)",
    "kt::operator>>(std::istream&, kt::XMLFile&)",
    "kt::operator<<(std::ostream&, kt::XMLElement const&)",
    "kt::operator<<(std::ostream&, kt::XMLFile const&)",
};

const char* const kPlainC[] = {
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

const char* const kHostCxx[] = {
    "_Z15freeStringArrayPPct",
    "_Z29enableInlineAudioVideoLoggingb",
    "_Z30findParticipantByVideoStreamIdPKcPct",
    "_Z30findParticipantByAudioStreamIdPKcPct",
};

TEST(Symbols, HostEntryPointsAreExportedUnderTheirNames) {
  const std::set<std::string> symbols = exportedSymbols();
  ASSERT_FALSE(symbols.empty()) << "could not read the symbol table of " CONVOKE_LIBRARY_PATH;
  for (const char* name : kPlainC) EXPECT_EQ(symbols.count(name), 1u) << name;
  for (const char* name : kHostCxx) EXPECT_EQ(symbols.count(name), 1u) << name;
  EXPECT_EQ(symbols.count("disableVideoCapture"), 0u);  // the entry point keeps its spelling
}

TEST(Symbols, EveryPublicClassAndStreamOperatorIsExported) {
  const std::set<std::string> symbols = exportedSymbols();
  ASSERT_FALSE(symbols.empty());

  // The list above is the headers' list: a class exported in a header is checked here too.
  const HeaderExports headers = readHeaderExports();
  std::multiset<std::string> listed;
  for (const PublicClass& c : publicClasses()) listed.insert(c.name.substr(c.name.rfind(':') + 1));
  EXPECT_EQ(listed, headers.classes);

  std::set<std::string> demangled;
  for (const std::string& symbol : symbols) demangled.insert(demangle(symbol));
  for (const PublicClass& c : publicClasses()) {
    if (c.polymorphic) {
      // A C++ user deriving from the class, or catching or casting it, needs all three.
      EXPECT_EQ(symbols.count("_ZTI" + c.mangled), 1u) << "typeinfo for " << c.name;
      EXPECT_EQ(symbols.count("_ZTS" + c.mangled), 1u) << "typeinfo name for " << c.name;
      EXPECT_EQ(symbols.count("_ZTV" + c.mangled), 1u) << "vtable for " << c.name;
    }
    if (!c.polymorphic) continue;  // a plain struct may have no out-of-line member at all
    const std::string members = c.name + "::";
    const bool anyMember =
        std::any_of(demangled.begin(), demangled.end(),
                    [&](const std::string& name) { return startsWith(name, members); });
    EXPECT_TRUE(anyMember) << "no member of " << c.name << " is exported";
  }
  EXPECT_EQ(static_cast<int>(std::size(kStreamOperators)), headers.streamOperators);
  for (const char* op : kStreamOperators) {
    const bool found = std::any_of(demangled.begin(), demangled.end(),
                                   [&](const std::string& name) { return startsWith(name, op); });
    EXPECT_TRUE(found) << op;
  }
}

TEST(Symbols, NothingOutsideTheContractIsExported) {
  const std::set<std::string> symbols = exportedSymbols();
  ASSERT_FALSE(symbols.empty());
  const std::set<std::string> plain(std::begin(kPlainC), std::end(kPlainC));
  const std::set<std::string> hostCxx(std::begin(kHostCxx), std::end(kHostCxx));

  // Members of the public classes (nested ones included), their type information and virtual
  // tables, functions of namespace kt, and the global stream operators.
  std::vector<std::string> allowedPrefixes = {
      "kt::", "typeinfo for kt::", "typeinfo name for kt::", "vtable for kt::"};
  for (const PublicClass& c : publicClasses()) {
    for (const char* kind : {"", "typeinfo for ", "typeinfo name for ", "vtable for "}) {
      allowedPrefixes.push_back(kind + c.name + "::");
      if (*kind != '\0') allowedPrefixes.push_back(kind + c.name);
    }
  }
  for (const char* op : kStreamOperators) allowedPrefixes.push_back(op);

  for (const std::string& symbol : symbols) {
    if (symbol == "_init" || symbol == "_fini" || symbol == "_edata" || symbol == "_end" ||
        symbol == "__bss_start") {
      continue;  // linker-provided markers
    }
    if (!startsWith(symbol, "_Z")) {
      EXPECT_EQ(plain.count(symbol), 1u) << "unexpected export " << symbol;
      continue;
    }
    if (hostCxx.count(symbol) != 0) continue;
    const std::string name = demangle(symbol);
    const bool allowed =
        std::any_of(allowedPrefixes.begin(), allowedPrefixes.end(), [&](const std::string& prefix) {
          // A bare class name must end the symbol ("vtable for Event", not "... EventX").
          return prefix.back() == ':' || prefix.back() == '(' || prefix.back() == '<' ||
                         prefix.back() == ')'
                     ? startsWith(name, prefix)
                     : name == prefix;
        });
    EXPECT_TRUE(allowed) << "unexpected export " << name << " (" << symbol << ")";
  }
}

}  // namespace
