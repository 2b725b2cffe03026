// Sockets of the base library: addresses, the socket object, name lookup, DSCP names and the
// portable socket error codes.
//
// Conventions of this header:
//  1. Operations report failure by false (bool results), -1 (byte counts) or an empty string; the
//     reason is left in errno. Socket::GetLastError() translates errno into a Socket::error_t.
//  2. A Socket is used by one thread at a time; nothing here takes a lock. The static lookups may
//     be called from any thread (the last lookup error is kept per thread), except that on macOS
//     the service lookups use the C library's non-reentrant getservbyname/getservbyport.
//  3. Times are milliseconds; a negative timeout (Event::Infinite converted to int) means no limit.
//  4. Contract violations (an address longer than its storage, port arithmetic on a non-IPv4
//     address, one descriptor held by two Socket objects in one Select) print a message and abort,
//     in release builds too.
#ifndef KT_SOCKET_H
#define KT_SOCKET_H

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>
#include <list>
#include <map>
#include <ostream>
#include <set>
#include <string>

#include "convoke/export.h"

// A thin object over one BSD socket descriptor.
//
// It remembers the family, type and protocol it was opened with and offers every socket call as
// a virtual operation. Copies share the descriptor (they do not duplicate it): each copy closes it
// when destroyed, so only one copy of an open socket should outlive the others.
//
// Thread safety: none; one thread at a time per object.
class CONVOKE_API Socket {
 public:
  // Portable error codes; Socket::FromOSError and Socket::ToOSError convert them to and from errno.
  enum error_t : int {
    Success = 0,
    NoResources = 1,
    InvalidHandle = 2,
    InvalidArgument = 3,
    NotAllowed = 4,
    PermissionDenied = 5,
    NotSupported = 6,
    AddressInUse = 7,
    AddressNotAvailable = 8,
    NetworkUnreachable = 9,
    HostNotFound = 10,
    HostUnreachable = 11,
    TimedOut = 12,
    NotConnected = 13,
    ConnectionRefused = 14,
    ConnectionReset = 15,
    ConnectionEnded = 16,
    Interrupted = 17,
    InProgress = 18,
    UnknownError = 19,
  };

  enum AddressType : int { Stream = SOCK_STREAM, Datagram = SOCK_DGRAM };
  enum AddressFamily : int { IPv4 = AF_INET, IPv6 = AF_INET6 };

  // A fixed-capacity copy of an operating-system socket address and its length.
  //
  // The storage holds the platform's sockaddr layout (on macOS byte 0 is the length byte and
  // byte 1 the family; on Linux the family is the first two bytes). Length 0 means "no address".
  // Addresses order and compare by length first, then by their bytes, so they can serve as keys;
  // & and | combine two addresses byte by byte (network and mask arithmetic).
  //
  // Thread safety: a plain value; IPv4/IPv6 Port() writes to the storage (see there).
  class CONVOKE_API Address {
   public:
    static constexpr unsigned kCapacity = 256;

    // All zero, length 0.
    Address();
    // All zero except the family; length as given.
    // REQUIRES: length <= 256.
    Address(unsigned length, unsigned char family);
    // A copy of sa: local-domain addresses copy the family and the path (up to its terminating
    // zero, within both `length` and the storage), IPv4 addresses copy the family, port and
    // address only, every other family copies `length` bytes. A null sa gives an empty address.
    // REQUIRES: length <= 256.
    Address(const sockaddr* sa, unsigned length);
    Address(const Address& other);
    Address& operator=(const Address& other);
    virtual ~Address();

    // The storage as a sockaddr, or null when the length is 0.
    virtual operator sockaddr*();
    virtual operator sockaddr const*() const;
    // REQUIRES: length <= 256.
    virtual void SetLength(unsigned length);
    virtual unsigned Length() const;
    virtual void SetFamily(unsigned char family);
    virtual unsigned char Family() const;
    // True when the length is 0.
    virtual bool operator!() const;
    virtual operator bool() const;

    virtual bool operator==(Address const& other) const;
    virtual bool operator!=(Address const& other) const;
    virtual bool operator<(Address const& other) const;
    virtual bool operator>(Address const& other) const;
    virtual bool operator<=(Address const& other) const;
    virtual bool operator>=(Address const& other) const;

    // Byte-wise AND / OR over the shorter of the two lengths (family and length bytes included);
    // the result has that length and is zero beyond it.
    virtual Address operator&(Address const& other) const;
    virtual Address operator|(Address const& other) const;
    // A copy whose IPv4 port is one higher (lower). The step is always 1, whatever n is.
    // REQUIRES: Family() == AF_INET.
    virtual Address operator+(int n) const;
    virtual Address operator-(int n) const;

    // The storage, whatever the length.
    virtual unsigned char* Data();
    virtual unsigned char const* Data() const;

   protected:
    // Mutable because the typed Port() readers write the converted port back.
    alignas(sockaddr_storage) mutable unsigned char address_[kCapacity];
    uint32_t length_;
  };

  // One candidate of a name lookup. Thread safety: a plain value.
  struct CONVOKE_API AddressInfo {
    int flags = 0;
    int family = 0;
    int type = 0;
    int protocol = 0;
    Address address;
  };

  Socket();
  // Shares other's descriptor (no dup) and copies its flags; both objects will close it.
  Socket(const Socket& other);
  // Closes the descriptor.
  virtual ~Socket();

  // Takes other's descriptor, family, type, protocol and flags, like the copy constructor. The
  // descriptor this object held before is not closed: close it first when that matters.
  virtual Socket& operator=(Socket const& other);
  virtual bool operator!() const;
  virtual bool IsOpen() const;
  virtual int GetSocketHandle() const;
  // The values given to Open or Attach while open; 0 when closed.
  virtual int Family() const;
  virtual int SockType() const;
  virtual bool IsUdp() const;
  virtual bool IsTcp() const;

  // Stores the four values without any check or system call.
  virtual bool Attach(int handle, int family, int type, int protocol);
  // Forgets the descriptor without closing it and returns it.
  virtual int Detach();
  // Closes any open descriptor, then opens a new one (non-blocking when SetNonBlocking was asked).
  virtual bool Open(int family, int type, int protocol = 0);
  // Closes the descriptor (true when there is none). A bound local-domain socket removes its path.
  virtual bool Close();
  virtual bool Shutdown(int how);
  virtual bool Bind(Socket::Address address);
  virtual bool Connect(Socket::Address address);
  virtual bool Listen(int backlog = SOMAXCONN);
  // Opens a stream socket of the address's family when closed, sets SO_REUSEADDR as asked, binds
  // and listens.
  virtual bool Listen(Socket::Address address, int backlog, bool reuse);
  // On success client holds the new connection, with this socket's family, type and protocol.
  virtual bool Accept(Socket& client);
  virtual bool GetSockName(Socket::Address& address) const;
  virtual bool GetPeerName(Socket::Address& address) const;
  virtual bool SetOption(int name, void const* value, unsigned length, int level = SOL_SOCKET);
  virtual bool SetOption(int name, int value, int level = SOL_SOCKET);
  // REQUIRES: length != nullptr; on success *length holds the option's size.
  virtual bool GetOption(int name, void* value, unsigned* length, int level = SOL_SOCKET) const;
  virtual bool GetOption(int name, int& value, int level = SOL_SOCKET) const;
  // The DSCP code point through IP_TOS (the upper six bits of the TOS byte).
  virtual bool SetDscp(int dscp);
  virtual bool GetDscp(int& dscp);
  virtual bool IOCtl(int request, void* arg);
  // Passes a pointer to a copy of arg.
  virtual bool IOCtl(int request, int arg);
  virtual ssize_t SendTo(void const* buffer, unsigned long length, Socket::Address const& address,
                         int flags = 0);
  virtual ssize_t Send(void const* buffer, unsigned long length, int flags = 0);
  virtual ssize_t RecvFrom(void* buffer, unsigned long length, Socket::Address& address,
                           int flags = 0);
  virtual ssize_t Recv(void* buffer, unsigned long length, int flags = 0);
  // Remembers the choice for later Open, copy and assignment, and when open adds O_NONBLOCK to
  // the descriptor. Either value turns non-blocking mode on: there is no way back to blocking
  // mode on an open descriptor. Always true.
  virtual bool SetNonBlocking(bool on = true);
  virtual bool SetCloseOnExec();
  // Waits up to timeout ms for the asked conditions. Returns a mask: 1 readable, 2 writable,
  // 4 error or hang-up; 0 on error or timeout (errno ETIMEDOUT), or when the socket is closed.
  virtual int Select(bool read, bool write, bool except, int timeout) const;

  // String-addressed operations. An endpoint string reads "family#type$host:service" with every
  // part but the service optional (see GetParameterInfo). Each resolved candidate is tried in turn;
  // when the socket is closed at the start it is opened for each candidate and closed again after a
  // failure. On failure errno holds the last candidate's error. A connect that is under way on
  // a non-blocking socket returns false at once with errno EINPROGRESS or EAGAIN.
  virtual bool Bind(std::string host, std::string service, int type, bool reuse);
  virtual bool Bind(std::string endpoint, int type = 0, bool reuse = false);
  virtual bool Connect(std::string host, std::string service, int type);
  virtual bool Connect(std::string endpoint, int type = 0);
  virtual bool Listen(std::string host, std::string service, int backlog, bool reuse);
  virtual bool Listen(std::string endpoint, int backlog = SOMAXCONN, bool reuse = false);

  // The local or peer address as texts (GetNameInfo); numeric asks for no name lookups.
  // A local-domain address reads as host "/local" and the path as service.
  virtual bool GetSockName(std::string& host, std::string& service, bool numeric) const;
  // "host service", or the empty string when the name cannot be read.
  virtual std::string GetSockString(bool numeric = true) const;
  virtual bool GetPeerName(std::string& host, std::string& service, bool numeric) const;
  virtual std::string GetPeerString(bool numeric = true) const;
  // Sends to each resolved address in turn; the first result that is not -1, else -1.
  virtual ssize_t SendTo(void const* buffer, unsigned long length, std::string host,
                         std::string service, int flags = 0);
  // Receives and gives the sender as numeric host and service; -1 when either step fails.
  virtual ssize_t RecvFrom(void* buffer, unsigned long length, std::string& host,
                           std::string& service, int flags = 0);
  // The socket's pending error (SO_ERROR), translated; the reason of a failed read otherwise.
  virtual error_t GetSocketError();

  // Nothing to set up or tear down on POSIX systems; Initialize returns true.
  static bool Initialize();
  static void Finish();
  // FromOSError(errno).
  static error_t GetLastError();
  // errno = ToOSError(e).
  static void SetLastError(error_t e);

  // Waits up to timeout ms until a socket of the read set is readable, of the write set writable
  // or of the except set in an error or hang-up state. Closed sockets are skipped; a socket in
  // several sets is polled once. On true each set is replaced by its ready sockets. False without
  // touching the sets on timeout (errno ETIMEDOUT), on a poll error, or when the sets hold 2,500
  // sockets or more together. Descriptors of any value are accepted (poll, not fd_set).
  // REQUIRES: no descriptor is held by two different Socket objects in the sets.
  static bool Select(std::set<Socket*>& read, std::set<Socket*>& write, std::set<Socket*>& except,
                     int timeout);
  static bool Select_tiny(std::set<Socket*>& read, std::set<Socket*>& write,
                          std::set<Socket*>& except, int timeout);
  static bool Select_medium(std::set<Socket*>& read, std::set<Socket*>& write,
                            std::set<Socket*>& except, int timeout);
  static bool Select_huge(std::set<Socket*>& read, std::set<Socket*>& write,
                          std::set<Socket*>& except, int timeout);

  // Name lookup.
  // This machine's name; "localhost" when it cannot be read. Never empty.
  static std::string GetHostName();
  // The port (host order) of a service name or decimal text; 0 when empty or unknown. An empty
  // protocol matches any protocol.
  static unsigned short GetServiceByName(std::string name, std::string protocol = "");
  // The service name of a port, or the port in decimal when it has none.
  static std::string GetServiceByNumber(unsigned short port, std::string protocol = "");
  // getnameinfo over an address (flags NI_*). Local-domain addresses give host "/local" and the
  // path as service without the resolver. The resolver's code is kept (GetLookupError).
  static bool GetNameInfo(Socket::Address address, std::string& host, std::string& service,
                          int flags = 0);
  static bool GetNameInfo(Socket::Address address, std::string& host, int flags = 0);
  // Resolves host and service into candidates, in the resolver's order (out is replaced).
  // A local-domain host ("/local", "/unix", or one beginning with them) gives one AF_LOCAL
  // candidate whose path is the service (or, when the service is empty, the rest of the host
  // after the prefix), without the resolver. An empty or "*" host means the wildcard address
  // when passive and the loopback address otherwise; an empty or "*" service means port 0.
  // The resolver's code is kept (GetLookupError). True when the lookup succeeded.
  static bool GetAddressInfo(std::string host, std::string service,
                             std::list<Socket::AddressInfo>& out, int family = AF_UNSPEC,
                             int type = 0, int protocol = 0, int passive = 0);
  // The last getaddrinfo/getnameinfo result code of this thread (0 or an EAI_* value).
  static int GetLookupError();
  // The first (every) numeric address of a name. Local-domain names are returned unchanged.
  static bool IpAddress(std::string name, std::string& ip);
  static bool IpAddresses(std::string name, std::list<std::string>& ips);

  // DSCP names ("EF", "AF41", ..., case-insensitive) and decimal texts below 64; -1 otherwise.
  static int GetDscpByName(std::string name);
  // The DSCP name of a code point, its decimal text when 0 <= n < 64 has no name, else "".
  static std::string GetDscpByNumber(int n);

  // errno to error_t and back. The two are deliberately not inverse to each other.
  static error_t FromOSError(int error);
  static int ToOSError(error_t e);

  // Splits an endpoint string "family#type$host:service(options)" into its parts.
  // Every part but the service is optional; "[...]" quotes a part that holds special characters
  // (an IPv6 literal host). Family keywords: * UNSPEC IP IPV4 INET IPV6 INET6 LOCAL UNIX and their
  // AF_/PF_ forms; type keywords: * STREAM DGRAM TCP UDP and their SOCK_ forms (any case). An
  // endpoint without ":" is the service when it names a port or is "*", else the host. A missing
  // host is "localhost"; a "/local" or "/unix" host makes the family AF_LOCAL. The options in
  // parentheses are "key=value" pairs separated by ","; a key without "=" gets an empty value.
  // False with errno EINVAL on an unknown keyword, an unclosed "[", or a text after "(...)".
  // Outputs are reset first: host and service empty, family and type 0, options empty.
  static bool GetParameterInfo(std::string endpoint, std::string& host, std::string& service,
                               int& family, int& type, std::map<std::string, std::string>& options);
  static bool GetParameterInfo(std::string endpoint, std::string& host, std::string& service,
                               int& family, int& type);
  static bool GetParameterInfo(std::string endpoint, std::string& host, std::string& service);
  // The port forms convert the service with GetServiceByName (protocol "tcp" or "udp" when the
  // endpoint names a type).
  static bool GetParameterInfo(std::string endpoint, std::string& host, unsigned short& port,
                               int& family, int& type);
  static bool GetParameterInfo(std::string endpoint, std::string& host, unsigned short& port);

 protected:
  // Shared loop of the string-addressed bind, listen and connect.
  enum class Step { kBind, kListen, kConnect };
  bool ForEachCandidate(const std::string& endpoint, int type, Step step, bool reuse, int backlog);

  int handle_;
  int family_;
  int type_;
  int protocol_;
  bool nonBlocking_;
  bool unlinkOnClose_;
};

// An IPv4 socket (the same object; IPv4Socket::Address is the typed address).
// Thread safety: as Socket; one thread at a time per object.
class CONVOKE_API IPv4Socket : public Socket {
 public:
  // An sockaddr_in view of Socket::Address. Thread safety: as Socket::Address.
  class CONVOKE_API Address : public Socket::Address {
   public:
    // All zero, length 16, family AF_INET.
    Address();
    // A copy of sin (length sizeof(sockaddr_in)); null gives the default address.
    Address(sockaddr_in const* sin);
    Address(const Address& other);
    Address& operator=(const Address& other);

    // The port in host order. It is converted from the stored network order and written back:
    // a second call returns the bytes swapped again, so keep the first result.
    unsigned short Port() const;
    // Stores port in network order.
    void SetPort(unsigned short port);
    // The address in host order.
    uint32_t Addr() const;
    // Stores addr (host order) in network order.
    void SetAddr(uint32_t addr);
  };

  IPv4Socket();
  IPv4Socket(const IPv4Socket& other);
  IPv4Socket& operator=(const IPv4Socket& other);
};

// An IPv6 socket (the same object; IPv6Socket::Address is the typed address).
// Thread safety: as Socket; one thread at a time per object.
class CONVOKE_API IPv6Socket : public Socket {
 public:
  // An sockaddr_in6 view of Socket::Address. Thread safety: as Socket::Address.
  class CONVOKE_API Address : public Socket::Address {
   public:
    // All zero, family AF_INET6, length 16 (not the 28 bytes of the whole structure: set the
    // length when the full structure is needed, for example before getnameinfo).
    Address();
    // A copy of sin6 (length sizeof(sockaddr_in6)); null gives the default address.
    Address(sockaddr_in6 const* sin6);
    Address(const Address& other);
    Address& operator=(const Address& other);

    // As IPv4Socket::Address::Port: converted and written back.
    unsigned short Port() const;
    void SetPort(unsigned short port);
    // The 16 address bytes as stored.
    in6_addr Addr() const;
    void SetAddr(in6_addr const& addr);
  };

  IPv6Socket();
  IPv6Socket(const IPv6Socket& other);
  IPv6Socket& operator=(const IPv6Socket& other);
};

// The text of the error code; values outside the table print as "Unknown error " and the number.
CONVOKE_API std::ostream& operator<<(std::ostream& out, Socket::error_t e);
// Numeric host, one space, numeric service; nothing when the address cannot be converted.
CONVOKE_API std::ostream& operator<<(std::ostream& out, Socket::Address const& address);
// "Stream" or "Datagram" (other values print as their number).
CONVOKE_API std::ostream& operator<<(std::ostream& out, Socket::AddressType type);
// "IPv4" or "IPv6" (other values print as their number).
CONVOKE_API std::ostream& operator<<(std::ostream& out, Socket::AddressFamily family);
// Each entry as "key"="value", entries separated by ", ".
CONVOKE_API std::ostream& operator<<(std::ostream& out,
                                   std::map<std::string, std::string> const& options);

#endif  // KT_SOCKET_H
