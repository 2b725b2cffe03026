// The portable error codes: their mapping to and from errno, and their texts.
#include <errno.h>

#include <ostream>

#include "kt/Socket.h"

Socket::error_t Socket::FromOSError(int error) {
  switch (error) {
    case 0:
      return Success;
    case EMFILE:
    case ENOBUFS:
      return NoResources;
    case EBADF:
    case ENOTSOCK:
      return InvalidHandle;
    case EFAULT:
    case EINVAL:
    case EDESTADDRREQ:
    case EMSGSIZE:
      return InvalidArgument;
    case EALREADY:
      return NotAllowed;
    case EPERM:
    case EACCES:
      return PermissionDenied;
    // ENOTSUP is not listed: it is an unknown error where it differs from EOPNOTSUPP (macOS) and
    // the same number as EOPNOTSUPP elsewhere (Linux).
    case EPROTOTYPE:
    case ENOPROTOOPT:
    case EPROTONOSUPPORT:
    case ESOCKTNOSUPPORT:
    case EPFNOSUPPORT:
    case EAFNOSUPPORT:
    case ESHUTDOWN:
    case EOPNOTSUPP:
      return NotSupported;
    case EADDRINUSE:
      return AddressInUse;
    case EADDRNOTAVAIL:
      return AddressNotAvailable;
    case ENETDOWN:
    case ENETUNREACH:
      return NetworkUnreachable;
    case ENOENT:
      return HostNotFound;
    case EHOSTDOWN:
    case EHOSTUNREACH:
      return HostUnreachable;
    case ETIMEDOUT:
      return TimedOut;
    case ENOTCONN:
      return NotConnected;
    case ECONNREFUSED:
      return ConnectionRefused;
    case ENETRESET:
    case ECONNABORTED:
    case ECONNRESET:
      return ConnectionReset;
    case EPIPE:
      return ConnectionEnded;
    case EINTR:
      return Interrupted;
    case EAGAIN:
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
    case EINPROGRESS:
      return InProgress;
    default:
      return UnknownError;
  }
}

int Socket::ToOSError(error_t e) {
  switch (e) {
    case NoResources:
      return EMFILE;
    case InvalidHandle:
      return ENOTSOCK;
    case InvalidArgument:
      return EINVAL;
    case NotAllowed:
      return EINPROGRESS;
    case PermissionDenied:
      return EACCES;
    case NotSupported:
      return ESOCKTNOSUPPORT;
    case AddressInUse:
      return 0;
    case AddressNotAvailable:
      return EADDRNOTAVAIL;
    case NetworkUnreachable:
      return ENETUNREACH;
    case HostNotFound:
      return ENOENT;
    case HostUnreachable:
      return EHOSTUNREACH;
    case TimedOut:
      return ETIMEDOUT;
    case NotConnected:
      return ENOTCONN;
    case ConnectionRefused:
      return ECONNREFUSED;
    case ConnectionReset:
      return ECONNRESET;
    case ConnectionEnded:
      return EPIPE;
    case Interrupted:
      return EINTR;
    case InProgress:
      return EAGAIN;
    default:
      return 0;
  }
}

namespace {

const char* const kErrorTexts[] = {
    "Success",
    "Insufficient system resources",
    "Invalid socket handle",
    "Missing or invalid argument",
    "Operation not allowed",
    "Permission denied",
    "Unsupported operation or parameter",
    "Requested address in Use",
    "Cannot assign requested address",
    "Network is unreachable",
    "Host not found",
    "Host is unreachable",
    "Operation timed-out",
    "Socket not connected",
    "Connection refused",
    "Connection reset",
    "Connection ended",
    "Interrupted function call",
    "Nonblocking function in progress",
    "Unknown error",
};

}  // namespace

std::ostream& operator<<(std::ostream& out, Socket::error_t e) {
  const int code = static_cast<int>(e);
  if (code >= 0 && code < static_cast<int>(sizeof(kErrorTexts) / sizeof(kErrorTexts[0]))) {
    return out << kErrorTexts[code];
  }
  return out << "Unknown error " << code;
}
