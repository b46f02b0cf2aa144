#include "Deadline.h"

namespace Ostrelink::Network {

Deadline::Deadline(int timeoutMs)
    : m_end(std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs)),
      m_timeoutMs(timeoutMs) {}

int Deadline::leftMs() const {
    const auto left = m_end - std::chrono::steady_clock::now();
    if (left <= left.zero()) {
        return 0;
    }
    return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
}

}  // namespace Ostrelink::Network
