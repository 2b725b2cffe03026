// A client of the Janus HTTP API: one session with its long-poll thread and keepalives, plugin
// handles, requests answered at once or later by an event with the same transaction.
#ifndef KTOPEN_JANUS_H
#define KTOPEN_JANUS_H

#include <json-glib/json-glib.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

typedef struct _SoupSession SoupSession;

namespace ktopen {

// A parsed JSON document (a reference to its root node). Copyable value; empty when null.
class Json {
 public:
  Json() = default;
  explicit Json(JsonNode* adopted);
  Json(const Json& other);
  Json& operator=(const Json& other);
  ~Json();

  static Json Parse(const std::string& text, std::string* error);
  bool empty() const { return node_ == nullptr; }
  JsonNode* node() const { return node_; }
  // The object at the root (nullptr when the root is no object).
  JsonObject* object() const;

 private:
  JsonNode* node_ = nullptr;
};

// Member lookups that tolerate missing members and wrong types.
JsonObject* ObjectMember(JsonObject* object, const char* name);
JsonArray* ArrayMember(JsonObject* object, const char* name);
std::string StringMember(JsonObject* object, const char* name);
int64_t IntMember(JsonObject* object, const char* name, int64_t fallback = 0);
// `text` as a JSON string literal, quotes included.
std::string Quote(const std::string& text);

// The VideoRoom requests the engines send (plugin message bodies, JSON objects).
// A room with a string id, created on demand with the options the engines rely on (audio levels,
// joining notices).
std::string CreateRoomRequest(const std::string& room);
// Joining as a publisher; `id` "" lets the server choose one.
std::string PublisherJoinRequest(const std::string& room, const std::string& display,
                                 const std::string& id);
// Subscribing to one publisher's streams; `private_id` (a number, "" when unknown) ties the
// subscription to our own publisher.
std::string SubscriberJoinRequest(const std::string& room, const std::string& feed,
                                  const std::string& private_id);

// A publisher as the VideoRoom announces it ("publishers" of a joined or event message).
struct RoomPublisher {
  std::string id, display;
  bool audio = false, video = false;
};
// The publishers a VideoRoom message announces (its "plugindata.data"); those without id or
// without media are left out. Without a "streams" list both media are assumed.
std::vector<RoomPublisher> AnnouncedPublishers(JsonObject* data);
// The publisher a VideoRoom event says has left or stopped publishing, or "" (also for our own
// "leaving": "ok").
std::string DepartedPublisher(JsonObject* data);

class Janus {
 public:
  // Events that answer no request: called on the long-poll thread, one at a time.
  using EventHandler = std::function<void(const Json& event)>;

  Janus() = default;
  Janus(const Janus&) = delete;
  Janus& operator=(const Janus&) = delete;
  ~Janus();

  // Where a message the server sent but that could not be read is reported (one line each).
  void SetLog(std::function<void(const std::string&)> log) { log_ = std::move(log); }

  // Creates a session at `base_url` ("http://host:port/path") and starts polling it.
  bool Open(const std::string& base_url, EventHandler handler, std::string* error);
  // Destroys the session (Janus then tells the others that our handles left) and stops polling;
  // without `goodbye` the session is only forgotten here (the server is gone or unreachable).
  void Close(bool goodbye = true);
  bool is_open() const { return session_ != 0; }
  uint64_t session() const { return session_; }

  // Attaches a handle to the VideoRoom plugin; 0 on failure.
  uint64_t Attach(std::string* error);
  void Detach(uint64_t handle);

  // Sends a plugin message (`body` a JSON object, `jsep` one or empty) and returns the plugin's
  // answer: the synchronous reply, or the event that carries the same transaction when Janus only
  // acknowledges. The reply's "plugindata.data" object is in `data`, its "jsep" in `jsep_out`.
  bool Message(uint64_t handle, const std::string& body, const std::string& jsep, Json* reply,
               std::string* error, int timeout_ms = 8000);
  // Tells Janus a local ICE candidate (an empty `candidate` tells it gathering is complete).
  void Trickle(uint64_t handle, const std::string& candidate, int mline_index);

 private:
  struct Waiter {
    bool done = false;
    Json reply;
  };

  // POSTs `body` to `path` below the base URL; the answer's parsed JSON.
  Json Post(const std::string& path, const std::string& body, std::string* error);
  std::string NewTransaction();
  void PollLoop();
  void Dispatch(const Json& event);

  std::string base_;
  uint64_t session_ = 0;
  EventHandler handler_;
  std::function<void(const std::string&)> log_;

  std::mutex http_mutex_;  // one request at a time on the request session
  SoupSession* http_ = nullptr;
  SoupSession* poll_http_ = nullptr;  // the poll thread's own
  struct _GCancellable* cancel_ = nullptr;

  std::mutex mutex_;
  std::condition_variable answered_;
  std::map<std::string, std::shared_ptr<Waiter>> waiters_;  // GUARDED_BY(mutex_)
  std::atomic<uint64_t> next_transaction_{1};
  std::atomic<bool> stop_{false};
  std::thread poll_;
};

}  // namespace ktopen

#endif  // KTOPEN_JANUS_H
