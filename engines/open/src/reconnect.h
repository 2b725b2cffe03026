// Watching the meeting server: a keepalive of the Janus session every second on a connection of its
// own, so that a server that died, or that no packet reaches any more, is noticed within seconds
// rather than when the next long poll times out; and the probes used to come back once it answers.
#ifndef KTOPEN_RECONNECT_H
#define KTOPEN_RECONNECT_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

typedef struct _SoupSession SoupSession;
typedef struct _GCancellable GCancellable;

namespace ktopen {

inline constexpr auto kKeepaliveEvery = std::chrono::seconds(1);
inline constexpr int kKeepaliveTimeoutSeconds = 2;
// The server is lost when its HTTP API has not answered for this long and no receiver report of
// its media came either (a congested link can starve the HTTP connection for a while).
inline constexpr auto kServerSilenceLimit = std::chrono::seconds(4);
inline constexpr auto kRejoinEvery = std::chrono::seconds(2);

// Thread safety: lost() from any thread; construction and destruction on one thread.
class ServerWatch {
 public:
  // Starts keeping the session at `base_url`/`session` alive.
  ServerWatch(const std::string& base_url, uint64_t session);
  ServerWatch(const ServerWatch&) = delete;
  ServerWatch& operator=(const ServerWatch&) = delete;
  ~ServerWatch();  // cancels a keepalive in flight and ends the thread

  // True once the server said it no longer knows the session, or answered nothing for
  // kServerSilenceLimit.
  bool lost() const;
  // Why, for the log ("" while not lost).
  std::string reason() const;

  // Whether a Janus answers its info request at `base_url` within a second.
  static bool Answers(const std::string& base_url);
  // Asks the server to destroy `session` (it may still hold our publisher id); waits a second at
  // most.
  static void Forget(const std::string& base_url, uint64_t session);

 private:
  void Run();

  const std::string url_;
  SoupSession* http_ = nullptr;
  GCancellable* cancel_ = nullptr;
  std::atomic<int64_t> last_answer_ms_;  // steady clock
  std::atomic<bool> unknown_session_{false};
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;  // GUARDED_BY(mutex_)
  std::thread thread_;
};

}  // namespace ktopen

#endif  // KTOPEN_RECONNECT_H
