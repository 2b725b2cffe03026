#include "janus.h"

#include <libsoup/soup.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <utility>

namespace ktopen {

// ---- Json --------------------------------------------------------------------------------------

Json::Json(JsonNode* adopted) : node_(adopted) {}
Json::Json(const Json& other) : node_(other.node_ ? json_node_ref(other.node_) : nullptr) {}
Json& Json::operator=(const Json& other) {
  if (this != &other) {
    JsonNode* old = node_;
    node_ = other.node_ ? json_node_ref(other.node_) : nullptr;
    if (old) json_node_unref(old);
  }
  return *this;
}
Json::~Json() {
  if (node_) json_node_unref(node_);
}

Json Json::Parse(const std::string& text, std::string* error) {
  JsonParser* parser = json_parser_new_immutable();
  GError* failure = nullptr;
  Json result;
  if (json_parser_load_from_data(parser, text.data(), static_cast<gssize>(text.size()), &failure)) {
    JsonNode* root = json_parser_get_root(parser);
    if (root) result = Json(json_node_ref(root));
  } else {
    if (error) *error = std::string("Invalid JSON from the meeting server: ") + failure->message;
    g_error_free(failure);
  }
  g_object_unref(parser);
  return result;
}

JsonObject* Json::object() const {
  return node_ && JSON_NODE_HOLDS_OBJECT(node_) ? json_node_get_object(node_) : nullptr;
}

JsonObject* ObjectMember(JsonObject* object, const char* name) {
  if (!object || !json_object_has_member(object, name)) return nullptr;
  JsonNode* node = json_object_get_member(object, name);
  return JSON_NODE_HOLDS_OBJECT(node) ? json_node_get_object(node) : nullptr;
}

JsonArray* ArrayMember(JsonObject* object, const char* name) {
  if (!object || !json_object_has_member(object, name)) return nullptr;
  JsonNode* node = json_object_get_member(object, name);
  return JSON_NODE_HOLDS_ARRAY(node) ? json_node_get_array(node) : nullptr;
}

std::string StringMember(JsonObject* object, const char* name) {
  if (!object || !json_object_has_member(object, name)) return "";
  JsonNode* node = json_object_get_member(object, name);
  if (!JSON_NODE_HOLDS_VALUE(node)) return "";
  if (json_node_get_value_type(node) == G_TYPE_STRING) return json_node_get_string(node);
  if (json_node_get_value_type(node) == G_TYPE_INT64) {
    return std::to_string(json_node_get_int(node));
  }
  return "";
}

int64_t IntMember(JsonObject* object, const char* name, int64_t fallback) {
  if (!object || !json_object_has_member(object, name)) return fallback;
  JsonNode* node = json_object_get_member(object, name);
  if (!JSON_NODE_HOLDS_VALUE(node)) return fallback;
  if (json_node_get_value_type(node) == G_TYPE_INT64) return json_node_get_int(node);
  if (json_node_get_value_type(node) == G_TYPE_DOUBLE) {
    return static_cast<int64_t>(json_node_get_double(node));
  }
  return fallback;
}

std::string Quote(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

// ---- VideoRoom requests and events --------------------------------------------------------------

std::string CreateRoomRequest(const std::string& room) {
  return "{\"request\":\"create\",\"room\":" + Quote(room) +
         ",\"publishers\":16,\"bitrate\":512000,\"fir_freq\":10,\"audiolevel_event\":true,"
         "\"audio_active_packets\":50,\"audio_level_average\":40,\"notify_joining\":true}";
}

std::string PublisherJoinRequest(const std::string& room, const std::string& display,
                                 const std::string& id) {
  std::string join = "{\"request\":\"join\",\"ptype\":\"publisher\",\"room\":" + Quote(room) +
                     ",\"display\":" + Quote(display);
  if (!id.empty()) join += ",\"id\":" + Quote(id);
  return join + "}";
}

std::string SubscriberJoinRequest(const std::string& room, const std::string& feed,
                                  const std::string& private_id) {
  std::string join = "{\"request\":\"join\",\"ptype\":\"subscriber\",\"room\":" + Quote(room) +
                     ",\"streams\":[{\"feed\":" + Quote(feed) + "}]";
  const bool number = !private_id.empty() && private_id.size() <= 19 &&
                      private_id.find_first_not_of("0123456789") == std::string::npos;
  if (number) join += ",\"private_id\":" + private_id;
  return join + "}";
}

std::vector<RoomPublisher> AnnouncedPublishers(JsonObject* data) {
  std::vector<RoomPublisher> found;
  JsonArray* publishers = ArrayMember(data, "publishers");
  for (guint i = 0; publishers && i < json_array_get_length(publishers); ++i) {
    JsonNode* node = json_array_get_element(publishers, i);
    JsonObject* publisher = JSON_NODE_HOLDS_OBJECT(node) ? json_node_get_object(node) : nullptr;
    RoomPublisher p;
    p.id = StringMember(publisher, "id");
    p.display = StringMember(publisher, "display");
    JsonArray* streams = ArrayMember(publisher, "streams");
    for (guint j = 0; streams && j < json_array_get_length(streams); ++j) {
      JsonNode* stream = json_array_get_element(streams, j);
      if (!JSON_NODE_HOLDS_OBJECT(stream)) continue;
      const std::string type = StringMember(json_node_get_object(stream), "type");
      p.audio = p.audio || type == "audio";
      p.video = p.video || type == "video";
    }
    if (!streams) p.audio = p.video = true;
    if (!p.id.empty() && (p.audio || p.video)) found.push_back(p);
  }
  return found;
}

std::string DepartedPublisher(JsonObject* data) {
  for (const char* gone : {"leaving", "unpublished"}) {
    const std::string id = StringMember(data, gone);
    if (!id.empty() && id != "ok") return id;
  }
  return "";
}

// ---- Janus -------------------------------------------------------------------------------------

namespace {

SoupSession* NewHttp(unsigned timeout_s) {
  SoupSession* http = soup_session_new_with_options("timeout", timeout_s, "user-agent",
                                                    "convoke-open-engine", nullptr);
  // Never through a proxy: the meeting server is reached directly.
  soup_session_set_proxy_resolver(http, nullptr);
  return http;
}

}  // namespace

Janus::~Janus() { Close(); }

std::string Janus::NewTransaction() { return "t" + std::to_string(next_transaction_++); }

Json Janus::Post(const std::string& path, const std::string& body, std::string* error) {
  std::lock_guard<std::mutex> lock(http_mutex_);
  if (!http_) {
    if (error) *error = "Not connected to the meeting server";
    return Json();
  }
  SoupMessage* message = soup_message_new("POST", (base_ + path).c_str());
  if (!message) {
    if (error) *error = "Invalid meeting server URL '" + base_ + path + "'";
    return Json();
  }
  GBytes* payload = g_bytes_new(body.data(), body.size());
  soup_message_set_request_body_from_bytes(message, "application/json", payload);
  g_bytes_unref(payload);
  GError* failure = nullptr;
  GBytes* answer = soup_session_send_and_read(http_, message, nullptr, &failure);
  Json result;
  if (!answer) {
    if (error)
      *error = std::string("Meeting server unreachable at ") + base_ + ": " + failure->message;
    g_error_free(failure);
  } else if (soup_message_get_status(message) != SOUP_STATUS_OK) {
    if (error) {
      *error = "Meeting server answered HTTP " + std::to_string(soup_message_get_status(message)) +
               " at " + base_ + path;
    }
  } else {
    gsize size = 0;
    const char* data = static_cast<const char*>(g_bytes_get_data(answer, &size));
    result = Json::Parse(std::string(data, size), error);
  }
  if (answer) g_bytes_unref(answer);
  g_object_unref(message);
  return result;
}

bool Janus::Open(const std::string& base_url, EventHandler handler, std::string* error) {
  Close();
  base_ = base_url;
  handler_ = std::move(handler);
  {
    std::lock_guard<std::mutex> lock(http_mutex_);
    http_ = NewHttp(5);
  }
  Json reply =
      Post("", "{\"janus\":\"create\",\"transaction\":" + Quote(NewTransaction()) + "}", error);
  JsonObject* data = ObjectMember(reply.object(), "data");
  if (StringMember(reply.object(), "janus") != "success" || !data) {
    if (!reply.empty() && error) {
      *error = "Meeting server refused a session: " +
               StringMember(ObjectMember(reply.object(), "error"), "reason");
    }
    Close();
    return false;
  }
  session_ = static_cast<uint64_t>(IntMember(data, "id"));
  poll_http_ = NewHttp(45);  // Janus holds a long poll for up to 30 s
  cancel_ = g_cancellable_new();
  stop_ = false;
  poll_ = std::thread(&Janus::PollLoop, this);
  return true;
}

void Janus::Close(bool goodbye) {
  if (session_ != 0 && goodbye) {
    std::string ignored;
    Post("/" + std::to_string(session_),
         "{\"janus\":\"destroy\",\"transaction\":" + Quote(NewTransaction()) + "}", &ignored);
  }
  stop_ = true;
  if (cancel_) g_cancellable_cancel(cancel_);
  if (poll_.joinable()) poll_.join();
  session_ = 0;
  if (cancel_) g_object_unref(cancel_);
  cancel_ = nullptr;
  if (poll_http_) g_object_unref(poll_http_);
  poll_http_ = nullptr;
  {
    std::lock_guard<std::mutex> lock(http_mutex_);
    if (http_) g_object_unref(http_);
    http_ = nullptr;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& entry : waiters_) entry.second->done = true;  // wakes them with an empty reply
  answered_.notify_all();
}

uint64_t Janus::Attach(std::string* error) {
  Json reply = Post("/" + std::to_string(session_),
                    "{\"janus\":\"attach\",\"plugin\":\"janus.plugin.videoroom\",\"transaction\":" +
                        Quote(NewTransaction()) + "}",
                    error);
  if (StringMember(reply.object(), "janus") != "success") {
    if (!reply.empty() && error) {
      *error = "Meeting server has no video room: " +
               StringMember(ObjectMember(reply.object(), "error"), "reason");
    }
    return 0;
  }
  return static_cast<uint64_t>(IntMember(ObjectMember(reply.object(), "data"), "id"));
}

void Janus::Detach(uint64_t handle) {
  std::string ignored;
  Post("/" + std::to_string(session_) + "/" + std::to_string(handle),
       "{\"janus\":\"detach\",\"transaction\":" + Quote(NewTransaction()) + "}", &ignored);
}

bool Janus::Message(uint64_t handle, const std::string& body, const std::string& jsep, Json* reply,
                    std::string* error, int timeout_ms) {
  const std::string transaction = NewTransaction();
  auto waiter = std::make_shared<Waiter>();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    waiters_[transaction] = waiter;
  }
  std::string request =
      "{\"janus\":\"message\",\"transaction\":" + Quote(transaction) + ",\"body\":" + body;
  if (!jsep.empty()) request += ",\"jsep\":" + jsep;
  request += "}";
  Json answer = Post("/" + std::to_string(session_) + "/" + std::to_string(handle), request, error);
  const std::string kind = StringMember(answer.object(), "janus");
  if (kind == "ack") {  // the answer comes later, as an event of this transaction
    std::unique_lock<std::mutex> lock(mutex_);
    if (!answered_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                            [&] { return waiter->done; })) {
      if (error) *error = "Meeting server did not answer in time";
    }
    answer = waiter->reply;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    waiters_.erase(transaction);
  }
  if (answer.empty()) {
    if (error && error->empty()) *error = "Meeting server closed the session";
    return false;
  }
  if (StringMember(answer.object(), "janus") == "error") {
    if (error) {
      *error =
          "Meeting server error: " + StringMember(ObjectMember(answer.object(), "error"), "reason");
    }
    return false;
  }
  JsonObject* data = ObjectMember(ObjectMember(answer.object(), "plugindata"), "data");
  if (data && json_object_has_member(data, "error")) {
    if (error) *error = "Video room refused: " + StringMember(data, "error");
    *reply = answer;
    return false;
  }
  *reply = answer;
  return true;
}

void Janus::Trickle(uint64_t handle, const std::string& candidate, int mline_index) {
  std::string body =
      "{\"janus\":\"trickle\",\"transaction\":" + Quote(NewTransaction()) + ",\"candidate\":";
  if (candidate.empty()) {
    body += "{\"completed\":true}}";
  } else {
    body += "{\"candidate\":" + Quote(candidate) +
            ",\"sdpMLineIndex\":" + std::to_string(mline_index) + "}}";
  }
  std::string ignored;
  Post("/" + std::to_string(session_) + "/" + std::to_string(handle), body, &ignored);
}

void Janus::Dispatch(const Json& event) {
  const std::string transaction = StringMember(event.object(), "transaction");
  if (!transaction.empty()) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = waiters_.find(transaction);
    if (it != waiters_.end()) {
      it->second->reply = event;
      it->second->done = true;
      answered_.notify_all();
      return;
    }
  }
  if (handler_) handler_(event);
}

void Janus::PollLoop() {
  const std::string url = base_ + "/" + std::to_string(session_) + "?maxev=10";
  auto last_keepalive = std::chrono::steady_clock::now();
  while (!stop_) {
    SoupMessage* message = soup_message_new("GET", url.c_str());
    GError* failure = nullptr;
    GBytes* answer = soup_session_send_and_read(poll_http_, message, cancel_, &failure);
    if (!answer) {
      g_error_free(failure);
      g_object_unref(message);
      if (stop_) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    } else {
      gsize size = 0;
      const char* data = static_cast<const char*>(g_bytes_get_data(answer, &size));
      std::string problem;
      Json events = Json::Parse(std::string(data, size), &problem);
      g_bytes_unref(answer);
      g_object_unref(message);
      if (events.node() && JSON_NODE_HOLDS_ARRAY(events.node())) {
        JsonArray* list = json_node_get_array(events.node());
        for (guint i = 0; i < json_array_get_length(list); ++i) {
          Dispatch(Json(json_node_ref(json_array_get_element(list, i))));
        }
      } else if (events.object()) {
        Dispatch(events);
      } else if (log_) {
        log_("refused a message from the meeting server (" + std::to_string(size) +
             " bytes): " + (problem.empty() ? "neither an object nor a list" : problem));
      }
    }
    // A long poll keeps the session alive too; an explicit keepalive covers slow polls.
    if (!stop_ && std::chrono::steady_clock::now() - last_keepalive > std::chrono::seconds(20)) {
      last_keepalive = std::chrono::steady_clock::now();
      std::string ignored;
      Post("/" + std::to_string(session_),
           "{\"janus\":\"keepalive\",\"transaction\":" + Quote(NewTransaction()) + "}", &ignored);
    }
  }
}

}  // namespace ktopen
