// The frame decoder shared by the TCP/TLS client libraries and ostrelink-server, on a stream
// whose bytes and read sizes come from the input. Every frame decoded is written back with the
// encoder, and the two byte strings must agree.
//
// Input: byte 0 picks the size limit, byte 1 the largest piece a read hands out; the rest is
// the stream.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <vector>

#include "Frame.h"
#include "StreamError.h"

namespace {

using Ostrelink::Network::ByteChannel;
using Ostrelink::Network::Socket;
using Ostrelink::Network::StreamError;
using Ostrelink::Network::StreamFailure;

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "fuzz invariant broken: %s\n", what);
    std::abort();
}

void check(bool condition, const char* what) {
    if (!condition) {
        fail(what);
    }
}

// A stream over the input that hands out at most piece bytes per read, and records writes.
class MemoryChannel : public ByteChannel {
public:
    MemoryChannel(const std::uint8_t* data, std::size_t size, std::size_t piece)
        : m_data(data), m_size(size), m_piece(piece) {}

    std::size_t readSome(unsigned char* buffer, std::size_t size, int /*timeoutMs*/) override {
        check(size > 0, "a read asks for at least one byte");
        const std::size_t count = std::min({size, m_piece, m_size - m_position});
        std::memcpy(buffer, m_data + m_position, count);
        m_position += count;
        return count;
    }

    void writeAll(const unsigned char* data, std::size_t size, int /*timeoutMs*/) override {
        m_written.insert(m_written.end(), data, data + size);
    }

    void writeGathered(const unsigned char* head, std::size_t headSize, const unsigned char* data,
                       std::size_t size, int timeoutMs) override {
        writeAll(head, headSize, timeoutMs);
        writeAll(data, size, timeoutMs);
    }

    const Socket& socket() const override { return m_socket; }
    bool pendingInputOrClosed() override { return m_position < m_size; }

    std::size_t consumed() const { return m_position; }
    const std::vector<unsigned char>& written() const { return m_written; }

private:
    const std::uint8_t* m_data;
    std::size_t m_size;
    std::size_t m_piece;
    std::size_t m_position = 0;
    std::vector<unsigned char> m_written;
    Socket m_socket;
};

std::uint32_t limitFor(std::uint8_t selector) {
    // Mostly small limits, so that oversize lengths are easy to reach; sometimes the default.
    return selector == 0xFF ? Ostrelink::Network::defaultMaxFrameSize : selector * 16U;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    const std::uint32_t limit = limitFor(data[0]);
    const std::size_t piece = std::max<std::size_t>(1, data[1]);
    MemoryChannel stream(data + 2, size - 2, piece);
    std::size_t frameStart = 0;
    for (;;) {
        try {
            const auto frame = Ostrelink::Network::readFrame(stream, limit, 1000);
            if (!frame) {
                check(stream.consumed() == size - 2, "the stream ends only at its end");
                break;
            }
            check(frame->size() <= limit, "no frame above the limit");
            Ostrelink::Network::writeFrame(stream, frame->data(), frame->size(), 1000);
            check(stream.written().size() == stream.consumed(), "frames are read back to back");
            check(std::equal(stream.written().begin() + static_cast<std::ptrdiff_t>(frameStart),
                             stream.written().end(), data + 2 + frameStart),
                  "a frame encodes to the bytes it came from");
            frameStart = stream.consumed();
        } catch (const StreamError& error) {
            check(error.failure() == StreamFailure::ClosedMidFrame ||
                      error.failure() == StreamFailure::Oversize,
                  "a stream in memory fails only by its content");
            if (error.failure() == StreamFailure::Oversize) {
                check(stream.consumed() == frameStart + Ostrelink::Network::frameHeaderSize,
                      "an oversize length is refused before its payload is read");
            }
            break;
        }
    }
    return 0;
}
