#include "Frame.h"

#include <algorithm>
#include <limits>
#include <string>

#include "Deadline.h"
#include "StreamError.h"

namespace Ostrelink::Network {

namespace {

// Bytes reserved for a frame before any of its payload has arrived.
constexpr std::size_t firstFrameChunk = 64 * 1024;

StreamError incomplete(const Deadline& deadline) {
    return StreamError(StreamFailure::TimedOut, "frame not complete within " +
                                                    std::to_string(deadline.timeoutMs()) +
                                                    " ms of its first byte");
}

// Fills the buffer before the deadline of the frame.
void readExact(ByteChannel& channel, unsigned char* buffer, std::size_t size,
               const Deadline& deadline) {
    std::size_t done = 0;
    while (done < size) {
        const int left = deadline.leftMs();
        if (left == 0) {
            throw incomplete(deadline);
        }
        std::size_t got = 0;
        try {
            got = channel.readSome(buffer + done, size - done, left);
        } catch (const StreamError& error) {
            if (error.failure() != StreamFailure::TimedOut) {
                throw;
            }
            throw incomplete(deadline);
        }
        if (got == 0) {
            throw StreamError(StreamFailure::ClosedMidFrame,
                              "connection closed in the middle of a frame");
        }
        done += got;
    }
}

}  // namespace

void encodeFrameLength(std::uint32_t length, unsigned char (&header)[frameHeaderSize]) {
    header[0] = static_cast<unsigned char>(length >> 24);
    header[1] = static_cast<unsigned char>(length >> 16);
    header[2] = static_cast<unsigned char>(length >> 8);
    header[3] = static_cast<unsigned char>(length);
}

std::uint32_t decodeFrameLength(const unsigned char (&header)[frameHeaderSize]) {
    return (std::uint32_t{header[0]} << 24) | (std::uint32_t{header[1]} << 16) |
           (std::uint32_t{header[2]} << 8) | std::uint32_t{header[3]};
}

void writeFrame(ByteChannel& channel, const unsigned char* data, std::size_t size, int timeoutMs) {
    if (size > std::numeric_limits<std::uint32_t>::max()) {
        throw StreamError(StreamFailure::Oversize,
                          "a frame of " + std::to_string(size) + " bytes cannot be sent");
    }
    unsigned char header[frameHeaderSize];
    encodeFrameLength(static_cast<std::uint32_t>(size), header);
    channel.writeGathered(header, frameHeaderSize, data, size, timeoutMs);
}

std::optional<std::vector<unsigned char>> readFrame(ByteChannel& channel, std::uint32_t maxSize,
                                                    int timeoutMs,
                                                    const std::function<void()>& started) {
    unsigned char header[frameHeaderSize];
    const std::size_t first = channel.readSome(header, frameHeaderSize, timeoutMs);
    if (first == 0) {
        return std::nullopt;
    }
    if (started) {
        started();
    }
    const Deadline deadline(timeoutMs);
    readExact(channel, header + first, frameHeaderSize - first, deadline);
    const std::uint32_t length = decodeFrameLength(header);
    if (length > maxSize) {
        throw StreamError(StreamFailure::Oversize, "frame of " + std::to_string(length) +
                                                       " bytes exceeds the limit of " +
                                                       std::to_string(maxSize) + " bytes");
    }
    // The buffer grows with what has arrived, at most doubling it, so that a peer announcing a
    // large frame and sending little costs little: a length alone must not reserve the length.
    std::vector<unsigned char> payload;
    std::size_t done = 0;
    while (done < length) {
        payload.resize(std::min<std::size_t>(length, std::max(done * 2, firstFrameChunk)));
        readExact(channel, payload.data() + done, payload.size() - done, deadline);
        done = payload.size();
    }
    return payload;
}

}  // namespace Ostrelink::Network
