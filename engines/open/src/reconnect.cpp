// The meeting server's watch (reconnect.h) and the open core's part in it: noticing a lost server,
// telling the product through what it already understands (conditions at 100% loss and no bars,
// the remote participants removed as on a leave), and joining again by itself once the server
// answers on the same address. CheckServer, ServerLost and TryRejoin run on the worker thread.
#include "reconnect.h"

#include <libsoup/soup.h>

#include "core_private.h"

namespace ktopen {

namespace {

int64_t SteadyMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

SoupSession* NewQuickHttp(unsigned timeout_s) {
  SoupSession* http = soup_session_new_with_options("timeout", timeout_s, "user-agent",
                                                    "convoke-open-engine", nullptr);
  soup_session_set_proxy_resolver(http, nullptr);  // never through a proxy
  return http;
}

// One request; the HTTP status (0 when nothing answered) and the body.
unsigned Request(SoupSession* http, const char* method, const std::string& url,
                 const std::string& body, GCancellable* cancel, std::string* answer) {
  SoupMessage* message = soup_message_new(method, url.c_str());
  if (!message) return 0;
  if (!body.empty()) {
    GBytes* payload = g_bytes_new(body.data(), body.size());
    soup_message_set_request_body_from_bytes(message, "application/json", payload);
    g_bytes_unref(payload);
  }
  GError* failure = nullptr;
  GBytes* bytes = soup_session_send_and_read(http, message, cancel, &failure);
  unsigned status = 0;
  if (bytes) {
    status = soup_message_get_status(message);
    gsize size = 0;
    const char* data = static_cast<const char*>(g_bytes_get_data(bytes, &size));
    if (answer) answer->assign(data, size);
    g_bytes_unref(bytes);
  } else if (failure) {
    g_error_free(failure);
  }
  g_object_unref(message);
  return status;
}

}  // namespace

// ---- ServerWatch -------------------------------------------------------------------------------

ServerWatch::ServerWatch(const std::string& base_url, uint64_t session)
    : url_(base_url + "/" + std::to_string(session)),
      http_(NewQuickHttp(kKeepaliveTimeoutSeconds)),
      cancel_(g_cancellable_new()),
      last_answer_ms_(SteadyMs()) {
  thread_ = std::thread(&ServerWatch::Run, this);
}

ServerWatch::~ServerWatch() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  g_cancellable_cancel(cancel_);
  if (thread_.joinable()) thread_.join();
  g_object_unref(cancel_);
  g_object_unref(http_);
}

bool ServerWatch::lost() const { return !reason().empty(); }

std::string ServerWatch::reason() const {
  if (unknown_session_) return "the meeting server no longer knows our session";
  const int64_t silent = SteadyMs() - last_answer_ms_;
  if (silent >= std::chrono::milliseconds(kServerSilenceLimit).count()) {
    return "the meeting server has not answered for " + std::to_string(silent / 1000) + " s";
  }
  return "";
}

void ServerWatch::Run() {
  uint64_t transaction = 0;
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stop_) {
    lock.unlock();
    std::string answer;
    const unsigned status = Request(
        http_, "POST", url_,
        "{\"janus\":\"keepalive\",\"transaction\":\"w" + std::to_string(++transaction) + "\"}",
        cancel_, &answer);
    if (status == SOUP_STATUS_OK) {
      std::string ignored;
      Json reply = Json::Parse(answer, &ignored);
      if (StringMember(reply.object(), "janus") == "error" &&
          IntMember(ObjectMember(reply.object(), "error"), "code") == 458) {
        unknown_session_ = true;  // 458: no such session (the server restarted, or dropped us)
      } else {
        last_answer_ms_ = SteadyMs();
      }
    }
    lock.lock();
    wake_.wait_for(lock, kKeepaliveEvery, [this] { return stop_; });
  }
}

bool ServerWatch::Answers(const std::string& base_url) {
  SoupSession* http = NewQuickHttp(1);
  const unsigned status = Request(http, "GET", base_url + "/info", "", nullptr, nullptr);
  g_object_unref(http);
  return status == SOUP_STATUS_OK;
}

void ServerWatch::Forget(const std::string& base_url, uint64_t session) {
  SoupSession* http = NewQuickHttp(1);
  Request(http, "POST", base_url + "/" + std::to_string(session),
          "{\"janus\":\"destroy\",\"transaction\":\"forget\"}", nullptr, nullptr);
  g_object_unref(http);
}

// ---- The core's part ---------------------------------------------------------------------------

void Core::WatchServer() {
  watch_.reset(new ServerWatch(target_.base_url, janus_.session()));
  server_lost_ = false;
}

void Core::CheckServer() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!joined_) return;
  }
  const auto now = std::chrono::steady_clock::now();
  if (!server_lost_) {
    if (watch_ && watch_->lost() &&
        !(publisher_ && publisher_->HeardFromServerWithin(kServerSilenceLimit))) {
      ServerLost(watch_->reason());
    }
    return;
  }
  if (now >= next_lost_report_) {
    next_lost_report_ = now + std::chrono::seconds(1);
    Emit(kAudio, conditions_);
  }
  if (now >= next_rejoin_) {
    TryRejoin();
    next_rejoin_ = std::chrono::steady_clock::now() + kRejoinEvery;
  }
}

void Core::ServerLost(const std::string& why) {
  Trace(kVideo, 2, why + ": the meeting is suspended until it answers again");
  server_lost_ = true;
  lost_session_ = janus_.session();
  watch_.reset();
  DropSession();
  // No bars, everything lost, nothing moving: what the product shows for a dead link.
  conditions_ = "<event name=\"audio_update_conditions\"><conditions>" + Tag("received", 0) +
                Tag("sent", 0) + Tag("data_bytes_dropped", 0) + Tag("ctrl_bytes_dropped", 0) +
                Tag("cpu_usage", 0) + Tag("bars", 0) +
                "<upstream loss=\"100\" latency=\"0\"/><downstream loss=\"100\" latency=\"0\"/>"
                "</conditions></event>";
  Emit(kAudio, conditions_);
  next_lost_report_ = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  next_rejoin_ = std::chrono::steady_clock::now() + kRejoinEvery;
}

// The session's remains after a loss or a failed rejoin: the others are removed as on a leave
// (video, then audio), our publishing stops, and the session is dropped without a goodbye that
// nobody would answer. The local camera's stream stays announced.
void Core::DropSession() {
  janus_.Close(false);
  std::vector<std::string> feeds;
  for (const auto& entry : remotes_) feeds.push_back(entry.first);
  for (const std::string& feed : feeds) RemoveRemote(feed);
  if (publisher_) publisher_->Stop();
  publisher_.reset();
  pub_handle_ = 0;
  my_id_.clear();
  private_id_.clear();
}

void Core::TryRejoin() {
  if (!ServerWatch::Answers(target_.base_url)) return;
  // A server that only stopped receiving for a while still holds our old session, and with it our
  // publisher id: it goes first.
  if (lost_session_ != 0) ServerWatch::Forget(target_.base_url, lost_session_);
  lost_session_ = 0;
  Trace(kVideo, 3, "the meeting server answers again: rejoining " + target_.room);
  std::string error, display, uuid;
  Target target;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    display = display_;
    uuid = uuid_;
    target = target_;
  }
  if (!Join(target, display, uuid, &error)) {
    Trace(kVideo, 2, "rejoining failed: " + error);
    lost_session_ = janus_.session();
    DropSession();
    return;
  }
  server_lost_ = false;
  conditions_.clear();
  Trace(kVideo, 3, "rejoined " + target.room);
}

}  // namespace ktopen
