#include "common/Messages.h"

using Ostrelink::Native::Definitions::CommandHeader;

Bytes makeMessage(unsigned char targetRuntime, unsigned char commandType,
                  const std::string& payloadText, unsigned char callingRuntime) {
    const auto offset = static_cast<std::size_t>(CommandHeader::payloadTextOffset);
    Bytes message(offset + payloadText.size(), 0);
    message[CommandHeader::targetRuntime] = targetRuntime;
    message[CommandHeader::callingRuntime] = callingRuntime;
    message[CommandHeader::commandType] = commandType;
    for (std::size_t i = 0; i < payloadText.size(); ++i) {
        message[offset + i] = static_cast<unsigned char>(payloadText[i]);
    }
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
    for (int i = 0; i < 4; ++i) {
        message[static_cast<std::size_t>(CommandHeader::hostAddress + i)] = address[i];
    }
    message[CommandHeader::hostPort] = static_cast<unsigned char>(port & 0xFF);
    message[CommandHeader::hostPort + 1] = static_cast<unsigned char>(port >> 8);
}
