// What a remote publisher chose for itself (its publisher id, its display name) reaches the
// product's documents only through these: stream ids are built from safe characters alone, and
// texts are cleaned (valid UTF-8, no control characters) and cut, so that no peer can inject
// into an event document, break the product's parser, or make it hold 64 KB per name.
#ifndef KTOPEN_PEER_NAMES_H
#define KTOPEN_PEER_NAMES_H

#include <cstddef>
#include <string>

namespace ktopen {

inline constexpr size_t kMaxNameBytes = 256;
inline constexpr size_t kMaxStreamBase = 40;  // "<base>/video" fits a frame descriptor's id

// The stream id base for a publisher id: the id itself when it is 1 to kMaxStreamBase characters
// of [A-Za-z0-9._@+-]; otherwise its safe characters (at most 31) and "~" with eight hex digits
// of a hash of the whole id, so that different ids keep different streams.
std::string StreamBase(const std::string& publisher_id);

// `text` as valid UTF-8 without control characters (white space becomes a space, other control
// characters go, a byte that is no part of a valid sequence becomes U+FFFD), at most `max_bytes`
// long, cut between characters.
std::string CleanName(const std::string& text, size_t max_bytes = kMaxNameBytes);

}  // namespace ktopen

#endif  // KTOPEN_PEER_NAMES_H
