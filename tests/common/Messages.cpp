#include "common/Messages.h"

#include <algorithm>

using Ostrelink::Native::Definitions::CommandHeader;

Bytes makeMessage(unsigned char targetRuntime, unsigned char commandType,
                  const std::string& payloadText, unsigned char callingRuntime) {
    const auto offset = static_cast<std::size_t>(CommandHeader::payloadTextOffset);
    Bytes message(offset + payloadText.size(), 0);
    message[CommandHeader::targetRuntime] = targetRuntime;
    message[CommandHeader::callingRuntime] = callingRuntime;
    message[CommandHeader::commandType] = commandType;
    std::copy(payloadText.begin(), payloadText.end(),
              message.begin() + CommandHeader::payloadTextOffset);
    return message;
}

Bytes healthCheckMessage(unsigned char targetRuntime) {
    return makeMessage(targetRuntime, 0, "health_check");
}

Bytes acknowledgeBytes() {
    return {0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
            0x02, 0x00, 0x02, 0x04, 0x00, 0x00, 0x00, 0x00};
}

Bytes payloadOf(const Bytes& reply) {
    if (reply.size() < static_cast<std::size_t>(CommandHeader::size)) {
        return {};
    }
    return Bytes(reply.begin() + CommandHeader::size, reply.end());
}

void setRoute(Bytes& message, unsigned char connectionType, const unsigned char (&address)[4],
              unsigned short port) {
    message[CommandHeader::connectionType] = connectionType;
    std::copy(address, address + 4, message.begin() + CommandHeader::hostAddress);
    message[CommandHeader::hostPort] = static_cast<unsigned char>(port & 0xFF);
    message[CommandHeader::hostPort + 1] = static_cast<unsigned char>(port >> 8);
}
