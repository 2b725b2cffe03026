// The socket object: one descriptor and the socket calls over it, the string-addressed connect,
// bind and listen, and the poll-based Select.
#include "kt/Socket.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <unordered_map>
#include <vector>

#include "SocketPrivate.h"

Socket::Socket()
    : handle_(-1), family_(0), type_(0), protocol_(0), nonBlocking_(false), unlinkOnClose_(false) {}

Socket::Socket(const Socket& other) : Socket() {
  Attach(other.handle_, other.family_, other.type_, other.protocol_);
  nonBlocking_ = other.nonBlocking_;
  unlinkOnClose_ = other.unlinkOnClose_;
  if (nonBlocking_) SetNonBlocking(true);
}

Socket::~Socket() { Close(); }

Socket& Socket::operator=(Socket const& other) {
  Attach(other.handle_, other.family_, other.type_, other.protocol_);
  nonBlocking_ = other.nonBlocking_;
  unlinkOnClose_ = other.unlinkOnClose_;
  if (nonBlocking_) SetNonBlocking(true);
  return *this;
}

bool Socket::operator!() const { return !IsOpen(); }

bool Socket::IsOpen() const { return handle_ != -1; }

int Socket::GetSocketHandle() const { return handle_; }

int Socket::Family() const { return IsOpen() ? family_ : 0; }

int Socket::SockType() const { return IsOpen() ? type_ : 0; }

bool Socket::IsUdp() const { return SockType() == SOCK_DGRAM; }

bool Socket::IsTcp() const { return SockType() == SOCK_STREAM; }

bool Socket::Attach(int handle, int family, int type, int protocol) {
  handle_ = handle;
  family_ = family;
  type_ = type;
  protocol_ = protocol;
  return true;
}

int Socket::Detach() {
  const int handle = handle_;
  handle_ = -1;
  family_ = 0;
  type_ = 0;
  protocol_ = 0;
  return handle;
}

bool Socket::Open(int family, int type, int protocol) {
  Close();
  const int handle = socket(family, type, protocol);
  if (handle == -1) return false;
  Attach(handle, family, type, protocol);
  if (nonBlocking_) SetNonBlocking(true);
  return true;
}

bool Socket::Close() {
  if (!IsOpen()) return true;
  std::string path;
  if (unlinkOnClose_) {
    KT_SOCKET_CHECK(family_ == AF_LOCAL, "family_ == AF_LOCAL", "Close");
    std::string host;
    if (!GetSockName(host, path, false)) path.clear();
  }
  const bool closed = close(handle_) == 0;
  if (unlinkOnClose_) {
    if (!path.empty()) {
      const int saved = errno;  // the close result is what the caller reads
      unlink(path.c_str());
      errno = saved;
    }
    unlinkOnClose_ = false;
  }
  Detach();
  return closed;
}

bool Socket::Shutdown(int how) { return shutdown(handle_, how) == 0; }

bool Socket::Bind(Socket::Address address) {
  if (bind(handle_, address, address.Length()) != 0) return false;
  if (address.Family() == AF_LOCAL) unlinkOnClose_ = true;
  return true;
}

bool Socket::Connect(Socket::Address address) {
  return connect(handle_, address, address.Length()) == 0;
}

bool Socket::Listen(int backlog) { return listen(handle_, backlog) == 0; }

bool Socket::Listen(Socket::Address address, int backlog, bool reuse) {
  if (!IsOpen() && !Open(address.Family(), SOCK_STREAM, 0)) return false;
  if (!SetOption(SO_REUSEADDR, reuse ? 1 : 0, SOL_SOCKET) && reuse) return false;
  return Bind(address) && Listen(backlog);
}

bool Socket::Accept(Socket& client) {
  const int handle = accept(handle_, nullptr, nullptr);
  if (handle == -1) return false;
  client.Attach(handle, family_, type_, protocol_);
  return true;
}

namespace {

// Runs getsockname or getpeername into address, whose length becomes the one returned.
template <typename Call>
bool FetchName(Call call, int handle, Socket::Address& address) {
  address.SetLength(Socket::Address::kCapacity);
  socklen_t length = Socket::Address::kCapacity;
  if (call(handle, reinterpret_cast<sockaddr*>(address.Data()), &length) != 0) return false;
  address.SetLength(std::min<unsigned>(length, Socket::Address::kCapacity));
  return true;
}

}  // namespace

bool Socket::GetSockName(Socket::Address& address) const {
  return FetchName(getsockname, handle_, address);
}

bool Socket::GetPeerName(Socket::Address& address) const {
  return FetchName(getpeername, handle_, address);
}

bool Socket::SetOption(int name, void const* value, unsigned length, int level) {
  return setsockopt(handle_, level, name, value, length) == 0;
}

bool Socket::SetOption(int name, int value, int level) {
  return SetOption(name, &value, sizeof(value), level);
}

bool Socket::GetOption(int name, void* value, unsigned* length, int level) const {
  socklen_t size = *length;
  if (getsockopt(handle_, level, name, value, &size) != 0) return false;
  *length = size;
  return true;
}

bool Socket::GetOption(int name, int& value, int level) const {
  unsigned length = sizeof(value);
  return GetOption(name, &value, &length, level);
}

bool Socket::SetDscp(int dscp) { return SetOption(IP_TOS, dscp * 4, IPPROTO_IP); }

bool Socket::GetDscp(int& dscp) {
  int tos = 0;
  if (!GetOption(IP_TOS, tos, IPPROTO_IP)) return false;
  dscp = tos >> 2;
  return true;
}

bool Socket::IOCtl(int request, void* arg) {
  // Requests are 32-bit codes; on macOS some have the top bit set and must not be sign-extended.
  return ioctl(handle_, static_cast<unsigned long>(static_cast<unsigned int>(request)), arg) == 0;
}

bool Socket::IOCtl(int request, int arg) { return IOCtl(request, static_cast<void*>(&arg)); }

ssize_t Socket::SendTo(void const* buffer, unsigned long length, Socket::Address const& address,
                       int flags) {
  return sendto(handle_, buffer, length, flags, address, address.Length());
}

ssize_t Socket::Send(void const* buffer, unsigned long length, int flags) {
  return send(handle_, buffer, length, flags);
}

ssize_t Socket::RecvFrom(void* buffer, unsigned long length, Socket::Address& address, int flags) {
  address.SetLength(Socket::Address::kCapacity);
  socklen_t size = Socket::Address::kCapacity;
  const ssize_t received =
      recvfrom(handle_, buffer, length, flags, reinterpret_cast<sockaddr*>(address.Data()), &size);
  if (received >= 0) address.SetLength(std::min<unsigned>(size, Socket::Address::kCapacity));
  return received;
}

ssize_t Socket::Recv(void* buffer, unsigned long length, int flags) {
  return recv(handle_, buffer, length, flags);
}

bool Socket::SetNonBlocking(bool on) {
  nonBlocking_ = on;
  if (IsOpen()) {
    // O_NONBLOCK is added whatever `on` says: the mode is never switched back.
    const int flags = fcntl(handle_, F_GETFL);
    if (flags != -1) fcntl(handle_, F_SETFL, flags | O_NONBLOCK);
  }
  return true;
}

bool Socket::SetCloseOnExec() { return fcntl(handle_, F_SETFD, FD_CLOEXEC) == 0; }

namespace {

const short kExceptEvents = POLLERR | POLLHUP | POLLNVAL;

}  // namespace

int Socket::Select(bool read, bool write, bool except, int timeout) const {
  if (!IsOpen()) return 0;
  pollfd entry;
  entry.fd = handle_;
  entry.events = static_cast<short>((read ? POLLIN : 0) | (write ? POLLOUT : 0) |
                                    (except ? kExceptEvents : 0));
  entry.revents = 0;
  const int result = poll(&entry, 1, timeout);
  if (result == 0) {
    errno = ETIMEDOUT;
    return 0;
  }
  if (result < 0) return 0;
  int mask = 0;
  if (entry.revents & POLLIN) mask |= 1;
  if (entry.revents & POLLOUT) mask |= 2;
  if (entry.revents & kExceptEvents) mask |= 4;
  return mask;
}

Socket::error_t Socket::GetSocketError() {
  int error = 0;
  if (!GetOption(SO_ERROR, error, SOL_SOCKET)) return FromOSError(errno);
  return FromOSError(error);
}

// String-addressed operations

bool Socket::Bind(std::string host, std::string service, int type, bool reuse) {
  return Bind(host + ":" + service, type, reuse);
}

bool Socket::Bind(std::string endpoint, int type, bool reuse) {
  return ForEachCandidate(endpoint, type, Step::kBind, reuse, 0);
}

bool Socket::Connect(std::string host, std::string service, int type) {
  return Connect(host + ":" + service, type);
}

bool Socket::Connect(std::string endpoint, int type) {
  return ForEachCandidate(endpoint, type, Step::kConnect, false, 0);
}

bool Socket::Listen(std::string host, std::string service, int backlog, bool reuse) {
  return Listen(host + ":" + service, backlog, reuse);
}

bool Socket::Listen(std::string endpoint, int backlog, bool reuse) {
  return ForEachCandidate(endpoint, 0, Step::kListen, reuse, backlog);
}

bool Socket::ForEachCandidate(const std::string& endpoint, int type, Step step, bool reuse,
                              int backlog) {
  std::string host;
  std::string service;
  int parsedFamily = 0;
  int parsedType = 0;
  std::map<std::string, std::string> options;
  if (!GetParameterInfo(endpoint, host, service, parsedFamily, parsedType, options)) return false;
  const int useType = parsedType != 0 ? parsedType : (type != 0 ? type : type_);
  const int useFamily = parsedFamily != 0 ? parsedFamily : family_;

  const bool wasOpen = IsOpen();
  std::list<AddressInfo> candidates;
  if (!GetAddressInfo(host, service, candidates, useFamily, useType, protocol_,
                      step != Step::kConnect)) {
    return false;
  }

  error_t last = UnknownError;
  bool recorded = false;
  auto record = [&](error_t e) {
    last = e;
    recorded = true;
  };
  for (const AddressInfo& candidate : candidates) {
    if (!wasOpen && !Open(candidate.family, candidate.type, candidate.protocol)) {
      if (!recorded) record(GetLastError());
      continue;
    }
    bool done = false;
    if (step == Step::kConnect) {
      done = Connect(candidate.address);
      if (!done && GetLastError() == InProgress) return false;  // under way: errno is kept
    } else {
      // The reuse options mean nothing for a path, and some kernels refuse them there.
      bool optionsSet = true;
      if (reuse && candidate.family != AF_LOCAL) {
        optionsSet =
            SetOption(SO_REUSEADDR, 1, SOL_SOCKET) && SetOption(SO_REUSEPORT, 1, SOL_SOCKET);
      }
      done = optionsSet && Bind(candidate.address) && (step == Step::kBind || Listen(backlog));
    }
    if (done) return true;
    record(GetLastError());
    if (!wasOpen) Close();
  }
  errno = ToOSError(last);
  return false;
}

// Name strings of the local and peer addresses

bool Socket::GetSockName(std::string& host, std::string& service, bool numeric) const {
  Socket::Address address;
  if (!GetSockName(address)) return false;
  return GetNameInfo(address, host, service, numeric ? NI_NUMERICHOST | NI_NUMERICSERV : 0);
}

std::string Socket::GetSockString(bool numeric) const {
  std::string host;
  std::string service;
  if (!GetSockName(host, service, numeric)) return std::string();
  return host + " " + service;
}

bool Socket::GetPeerName(std::string& host, std::string& service, bool numeric) const {
  Socket::Address address;
  if (!GetPeerName(address)) return false;
  return GetNameInfo(address, host, service, numeric ? NI_NUMERICHOST | NI_NUMERICSERV : 0);
}

std::string Socket::GetPeerString(bool numeric) const {
  std::string host;
  std::string service;
  if (!GetPeerName(host, service, numeric)) return std::string();
  return host + " " + service;
}

ssize_t Socket::SendTo(void const* buffer, unsigned long length, std::string host,
                       std::string service, int flags) {
  std::list<AddressInfo> candidates;
  if (!GetAddressInfo(host, service, candidates, family_, type_, protocol_, false)) return -1;
  for (const AddressInfo& candidate : candidates) {
    const ssize_t sent = SendTo(buffer, length, candidate.address, flags);
    if (sent != -1) return sent;
  }
  return -1;
}

ssize_t Socket::RecvFrom(void* buffer, unsigned long length, std::string& host,
                         std::string& service, int flags) {
  Socket::Address address;
  const ssize_t received = RecvFrom(buffer, length, address, flags);
  if (received == -1) return -1;
  if (!GetNameInfo(address, host, service, NI_NUMERICHOST | NI_NUMERICSERV | NI_DGRAM)) return -1;
  return received;
}

// Static services

bool Socket::Initialize() { return true; }

void Socket::Finish() {}

Socket::error_t Socket::GetLastError() { return FromOSError(errno); }

void Socket::SetLastError(error_t e) { errno = ToOSError(e); }

namespace {

// Sets of this size or more are refused: one poll over so many descriptors is a design error.
const size_t kSelectLimit = 2500;
// Up to this many entries the working arrays live on the stack.
const size_t kInlineEntries = 64;

}  // namespace

bool Socket::Select(std::set<Socket*>& read, std::set<Socket*>& write, std::set<Socket*>& except,
                    int timeout) {
  return Select_medium(read, write, except, timeout);
}

bool Socket::Select_tiny(std::set<Socket*>& read, std::set<Socket*>& write,
                         std::set<Socket*>& except, int timeout) {
  return Select_medium(read, write, except, timeout);
}

bool Socket::Select_huge(std::set<Socket*>& read, std::set<Socket*>& write,
                         std::set<Socket*>& except, int timeout) {
  return Select_medium(read, write, except, timeout);
}

bool Socket::Select_medium(std::set<Socket*>& read, std::set<Socket*>& write,
                           std::set<Socket*>& except, int timeout) {
  const size_t total = read.size() + write.size() + except.size();
  if (total >= kSelectLimit) {
    errno = EINVAL;
    return false;
  }

  pollfd inlineFds[kInlineEntries];
  Socket* inlineSocks[kInlineEntries];
  std::vector<pollfd> heapFds;
  std::vector<Socket*> heapSocks;
  pollfd* pollfds = inlineFds;
  Socket** pollsocks = inlineSocks;
  if (total > kInlineEntries) {
    heapFds.resize(total);
    heapSocks.resize(total);
    pollfds = heapFds.data();
    pollsocks = heapSocks.data();
  }

  // Duplicate handles are merged: a scan of the entries for small sets, an index for large ones.
  const bool large = total > kInlineEntries;
  std::unordered_map<int, size_t> indexOf;
  if (large) indexOf.reserve(total);
  size_t entries = 0;
  auto add = [&](const std::set<Socket*>& sockets, short events) {
    for (Socket* in_socket : sockets) {
      const int handle = in_socket->GetSocketHandle();
      if (handle == -1) continue;
      size_t i = 0;
      if (large) {
        i = indexOf.emplace(handle, entries).first->second;  // a new handle maps to `entries`
      } else {
        while (i < entries && pollfds[i].fd != handle) ++i;
      }
      if (i < entries) {
        KT_SOCKET_CHECK(pollsocks[i] == in_socket, "pollsocks[i] == in_socket", "Select_medium");
        pollfds[i].events = static_cast<short>(pollfds[i].events | events);
      } else {
        pollfds[entries].fd = handle;
        pollfds[entries].events = events;
        pollfds[entries].revents = 0;
        pollsocks[entries] = in_socket;
        ++entries;
      }
    }
  };
  add(read, POLLIN);
  add(write, POLLOUT);
  add(except, kExceptEvents);

  const int result = poll(pollfds, static_cast<nfds_t>(entries), timeout);
  if (result == 0) {
    errno = ETIMEDOUT;
    return false;
  }
  if (result < 0) return false;

  std::set<Socket*> readable;
  std::set<Socket*> writable;
  std::set<Socket*> failed;
  for (size_t i = 0; i < entries; ++i) {
    const short revents = pollfds[i].revents;
    if (revents & POLLIN) readable.insert(pollsocks[i]);
    if (revents & POLLOUT) writable.insert(pollsocks[i]);
    if (revents & kExceptEvents) failed.insert(pollsocks[i]);
  }
  read.swap(readable);
  write.swap(writable);
  except.swap(failed);
  return true;
}

// Typed sockets

IPv4Socket::IPv4Socket() : Socket() {}

IPv4Socket::IPv4Socket(const IPv4Socket& other) : Socket(other) {}

IPv4Socket& IPv4Socket::operator=(const IPv4Socket& other) {
  Socket::operator=(other);
  return *this;
}

IPv6Socket::IPv6Socket() : Socket() {}

IPv6Socket::IPv6Socket(const IPv6Socket& other) : Socket(other) {}

IPv6Socket& IPv6Socket::operator=(const IPv6Socket& other) {
  Socket::operator=(other);
  return *this;
}
