#pragma once

#include <cstddef>

namespace Ostrelink::Native::Definitions {

// Byte offsets of the 11-byte header that starts every message and every reply. Messages carry
// no length field; the length always travels beside the bytes as a signed int.
struct CommandHeader {
    static constexpr int targetRuntime = 0;
    static constexpr int runtimeVersion = 1;
    static constexpr int connectionType = 2;
    static constexpr int hostAddress = 3;  // 4 bytes, most significant octet first
    static constexpr int hostPort = 7;     // 2 bytes, little-endian
    static constexpr int callingRuntime = 9;
    static constexpr int commandType = 10;

    static constexpr int size = 11;
    // payloadText: the only region of a request's payload that the native layer ever reads.
    static constexpr int payloadTextOffset = 24;
};

// The text a PlainCommand carries at payloadTextOffset to ask for a health check.
inline constexpr char healthCheckText[] = "health_check";
inline constexpr int healthCheckTextLength = 12;

// The reply to a health check and to a LoadLibraryCommand.
inline constexpr unsigned char acknowledgeReply[] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x00,
                                                     0x00, 0x00, 0x00, 0x02, 0x00, 0x02,
                                                     0x04, 0x00, 0x00, 0x00, 0x00};
inline constexpr int acknowledgeReplyLength = static_cast<int>(sizeof(acknowledgeReply));

// The heartbeat message: 13 bytes, commandType HeartBeatCommand, payload "12".
inline constexpr int heartBeatMessageLength = 13;

}  // namespace Ostrelink::Native::Definitions
