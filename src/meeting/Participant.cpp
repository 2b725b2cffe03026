#include "meeting/Participant.h"

#include <cstdlib>
#include <utility>

namespace Telmora {

AudioInfo::AudioInfo(std::string streamId, std::string site)
    : streamId(std::move(streamId)), site(std::move(site)) {}

VideoInfo::VideoInfo(std::string streamId, std::string site, std::string name,
                     std::string codecName, const std::string& localText,
                     const std::string& activeText, const std::string& layoutText,
                     const std::string& widthText, const std::string& heightText)
    : streamId(std::move(streamId)),
      site(std::move(site)),
      name(std::move(name)),
      codecName(std::move(codecName)),
      local(localText == "true"),
      active(activeText == "true"),
      layout(static_cast<uint8_t>(std::atoi(layoutText.c_str()))),
      width(std::atoi(widthText.c_str())),
      height(std::atoi(heightText.c_str())) {}

Participant::Participant(std::string uuid, std::string site, bool isLocal)
    : uuid(std::move(uuid)), site(std::move(site)), isLocal(isLocal) {}

}  // namespace Telmora
