// Value records of the participant registry: a participant with its audio stream and its video
// streams, and the two network-condition records handed to the delegate. All are plain copyable
// values; the registry hands out copies, never references into itself. Not synchronised: a record
// belongs to whoever holds the copy.
#ifndef CONVOKE_MEETING_PARTICIPANT_H
#define CONVOKE_MEETING_PARTICIPANT_H

#include <cstdint>
#include <map>
#include <string>

namespace Telmora {

// A participant's audio stream: the engine's stream id and the site text of its announcement.
// An empty streamId means the participant has no audio stream yet.
struct AudioInfo {
  std::string streamId;
  std::string site;

  AudioInfo() = default;
  AudioInfo(std::string streamId, std::string site);
};

// One video stream of a participant.
struct VideoInfo {
  std::string streamId;
  std::string site;
  std::string name;
  std::string codecName;
  bool local = false;
  bool active = false;
  uint8_t layout = 0;
  int32_t width = 0;
  int32_t height = 0;

  VideoInfo() = default;
  // Flags are true only for the exact text "true"; numbers are converted with atoi (0 for text that
  // is not a number) and the layout is truncated to one byte.
  VideoInfo(std::string streamId, std::string site, std::string name, std::string codecName,
            const std::string& localText, const std::string& activeText,
            const std::string& layoutText, const std::string& widthText,
            const std::string& heightText);
};

struct Participant {
  std::string uuid;
  std::string site;
  AudioInfo audioInfo;
  std::map<std::string, VideoInfo> videoInfos;  // by stream id, ascending byte order
  bool isLocal = false;

  Participant() = default;
  Participant(std::string uuid, std::string site, bool isLocal);
};

struct AudioCondition {
  int32_t received = 0;
  int32_t sent = 0;
  int32_t dataBytesDropped = 0;
  int32_t ctrlBytesDropped = 0;
  int32_t cpuUsage = 0;
  int32_t bars = 0;
  int32_t upstreamLoss = 0;
  int32_t upstreamLatency = 0;
  int32_t downstreamLoss = 0;
  int32_t downstreamLatency = 0;
};

struct VideoCondition {
  int32_t received = 0;
  int32_t sent = 0;
  int32_t dataBytesDropped = 0;
  int32_t ctrlBytesDropped = 0;
  int32_t cpuUsage = 0;
  int32_t bars = 0;
};

}  // namespace Telmora

#endif  // CONVOKE_MEETING_PARTICIPANT_H
