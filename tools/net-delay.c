/* net-delay: holds every packet that netfilter queues to it for a fixed time, then lets it go.
 * The kernels here have no netem, so this is how the fault rig gives a link a real round trip
 * (tools/meeting-faults delay). It serves one queue of the network namespace it runs in, for at
 * most SECONDS, and lets every held packet go before it ends; the rule that feeds it should use
 * --queue-bypass so that packets flow undelayed when it is gone.
 *
 *   net-delay QUEUE MILLISECONDS SECONDS
 *
 * Packets leave in the order they came (all wait the same time). Only the packets' metadata
 * crosses to this process, never their payload. */
#define _POSIX_C_SOURCE 200809L
#include <arpa/inet.h>
#include <errno.h>
#include <libnetfilter_queue/libnetfilter_queue.h>
#include <linux/netfilter.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#define HELD_MAX 8192 /* at 1,000 packets a second, 8 s of delay */

typedef struct {
  uint32_t id;
  int64_t due_us;
} Held;

static Held held[HELD_MAX];
static size_t head, count;
static int64_t delay_us;
static unsigned long overflow;
static volatile sig_atomic_t stopping;

static int64_t now_us(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (int64_t)t.tv_sec * 1000000 + t.tv_nsec / 1000;
}

static int on_packet(struct nfq_q_handle* queue, struct nfgenmsg* message, struct nfq_data* data,
                     void* unused) {
  (void)message;
  (void)unused;
  struct nfqnl_msg_packet_hdr* header = nfq_get_msg_packet_hdr(data);
  if (!header) return 0;
  const uint32_t id = ntohl(header->packet_id);
  if (count == HELD_MAX) { /* full: this one goes at once rather than being lost */
    ++overflow;
    return nfq_set_verdict(queue, id, NF_ACCEPT, 0, NULL);
  }
  held[(head + count) % HELD_MAX] = (Held){id, now_us() + delay_us};
  ++count;
  return 0;
}

static void release(struct nfq_q_handle* queue, int64_t until_us) {
  while (count > 0 && held[head].due_us <= until_us) {
    nfq_set_verdict(queue, held[head].id, NF_ACCEPT, 0, NULL);
    head = (head + 1) % HELD_MAX;
    --count;
  }
}

static void on_signal(int sig) {
  (void)sig;
  stopping = 1;
}

static int number(const char* text, long low, long high, long* out) {
  char* end = NULL;
  errno = 0;
  const long value = strtol(text, &end, 10);
  if (errno || end == text || *end || value < low || value > high) return -1;
  *out = value;
  return 0;
}

int main(int argc, char** argv) {
  long queue_number = 0, delay_ms = 0, seconds = 0;
  if (argc != 4 || number(argv[1], 0, 65535, &queue_number) ||
      number(argv[2], 1, 5000, &delay_ms) || number(argv[3], 1, 3600, &seconds)) {
    fprintf(stderr, "usage: net-delay QUEUE MILLISECONDS(1-5000) SECONDS(1-3600)\n");
    return 2;
  }
  delay_us = delay_ms * 1000;
  struct nfq_handle* handle = nfq_open();
  if (!handle) {
    perror("net-delay: nfq_open");
    return 1;
  }
  struct nfq_q_handle* queue = nfq_create_queue(handle, (uint16_t)queue_number, &on_packet, NULL);
  if (!queue || nfq_set_mode(queue, NFQNL_COPY_META, 0) < 0) {
    fprintf(stderr, "net-delay: cannot serve queue %ld (is another process serving it?)\n",
            queue_number);
    if (queue) nfq_destroy_queue(queue);
    nfq_close(handle);
    return 1;
  }
  nfq_set_queue_maxlen(queue, HELD_MAX);
  const int fd = nfq_fd(handle);
  int buffer_bytes = 4 << 20;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer_bytes, sizeof buffer_bytes);
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = on_signal;
  sigaction(SIGTERM, &action, NULL);
  sigaction(SIGINT, &action, NULL);

  const int64_t end_us = now_us() + (int64_t)seconds * 1000000;
  static char buffer[65536];
  unsigned long packets = 0;
  while (!stopping && now_us() < end_us) {
    const int64_t now = now_us();
    int64_t wait_us = end_us - now;
    if (count > 0 && held[head].due_us - now < wait_us) wait_us = held[head].due_us - now;
    if (wait_us < 0) wait_us = 0;
    struct pollfd readable = {fd, POLLIN, 0};
    /* Round up so that a wait shorter than a millisecond does not spin. */
    const int ready = poll(&readable, 1, (int)((wait_us + 999) / 1000));
    if (ready > 0) {
      const ssize_t got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
      if (got > 0) {
        nfq_handle_packet(handle, buffer, (int)got);
        ++packets;
      } else if (got < 0 && errno == ENOBUFS) {
        fprintf(stderr, "net-delay: the kernel dropped queued packets (receive buffer full)\n");
      }
    }
    release(queue, now_us());
  }
  release(queue, INT64_MAX);
  nfq_destroy_queue(queue);
  nfq_close(handle);
  if (overflow)
    fprintf(stderr, "net-delay: %lu packets passed undelayed (held %d)\n", overflow, HELD_MAX);
  fprintf(stderr, "net-delay: %lu packets held %ld ms\n", packets, delay_ms);
  return 0;
}
