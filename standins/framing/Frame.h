#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "ByteChannel.h"

namespace Ostrelink::Network {

// A frame: the payload's length as 4 bytes, big-endian, then the payload. See README.md.
inline constexpr std::size_t frameHeaderSize = 4;
inline constexpr std::uint32_t defaultMaxFrameSize = 64u * 1024u * 1024u;

void encodeFrameLength(std::uint32_t length, unsigned char (&header)[frameHeaderSize]);
std::uint32_t decodeFrameLength(const unsigned char (&header)[frameHeaderSize]);

// Writes one frame, all of it within timeoutMs. The caller has checked size against its own
// limit.
void writeFrame(ByteChannel& channel, const unsigned char* data, std::size_t size, int timeoutMs);

// Reads one frame. Waits up to timeoutMs for its first byte; the rest must then come within
// timeoutMs of that byte, however the peer paces it (StreamFailure::TimedOut). started, if given,
// is called once the first byte is in, before the rest is read. Empty when the peer closed the
// stream cleanly before the first byte. A length above maxSize throws StreamFailure::Oversize
// before anything is allocated for it; the stream is then out of step and must be dropped.
std::optional<std::vector<unsigned char>> readFrame(ByteChannel& channel, std::uint32_t maxSize,
                                                    int timeoutMs,
                                                    const std::function<void()>& started = nullptr);

}  // namespace Ostrelink::Network
