// A C++ user of the base library, built against the installed package: it parses and prints an
// XML document, runs the dispatcher with a timer event and a callback of its own for a bounded
// time, and prints a socket error code and an address. Its output is fixed, so CI compares it.
#include <kt/kt.h>

#include <iostream>
#include <sstream>
#include <string>

namespace {

// A timer that names itself; the dispatcher sees it as any TimerEvent.
class HeartbeatEvent : public TimerEvent {
 public:
  explicit HeartbeatEvent(unsigned intervalMs) : TimerEvent(intervalMs) {}
  std::string Type() const override { return "HeartbeatEvent"; }
};

// Counts the heartbeats and stops the dispatcher after the last one.
class HeartbeatCounter : public Callback {
 public:
  explicit HeartbeatCounter(int limit) : limit_(limit) {}

  void OnEvent(Dispatch* dispatcher, Event* event) override {
    auto* heartbeat = dynamic_cast<HeartbeatEvent*>(event);
    if (heartbeat == nullptr) return;
    ++count_;
    std::cout << "beat " << count_ << " from " << heartbeat->Type() << "\n";
    if (count_ == limit_) {
      dispatcher->Stop();
    } else {
      heartbeat->Reset(true);
    }
  }

  int count() const { return count_; }

 private:
  const int limit_;
  int count_ = 0;
};

}  // namespace

int main() {
  std::istringstream text("<meeting id=\"42\"><room name=\"Blue\">standup</room></meeting>");
  kt::XMLElement document;
  text >> document;
  // The parsed document is a nameless container of the top-level elements.
  const kt::XMLElement* meeting = document.FindElementByName("meeting");
  const kt::XMLElement* room = document.FindElementByPath("meeting/room");
  if (meeting == nullptr || room == nullptr) {
    std::cerr << "the document has no meeting/room\n";
    return 1;
  }
  std::cout << *meeting;
  std::cout << "room: " << room->FindAttributeByName("name")->value << ", " << room->value << "\n";

  Dispatch dispatcher;
  HeartbeatEvent heartbeat(10);
  HeartbeatCounter counter(3);
  dispatcher.RegisterEvent(&heartbeat, &counter, false);
  dispatcher.Wait(5000);  // returns when the counter stops it, or after five seconds
  dispatcher.UnregisterEvent(&heartbeat);

  IPv4Socket::Address address;
  address.SetAddr(0x7f000001);  // 127.0.0.1
  address.SetPort(8080);
  std::cout << "error: " << Socket::ConnectionRefused << "\n";
  std::cout << "address: " << address << "\n";
  return counter.count() == 3 ? 0 : 1;
}
