#pragma once

#include <chrono>

namespace Ostrelink::Network {

// One bound over several waits: each wait gets what is left of it, so a peer that sends (or
// takes) a byte now and then can't stretch the whole beyond the time-out.
class Deadline {
public:
    explicit Deadline(int timeoutMs);
    // Milliseconds left, rounded up (a wait that starts at once gets the whole time-out); 0 once
    // the deadline has passed.
    int leftMs() const;
    int timeoutMs() const { return m_timeoutMs; }

private:
    std::chrono::steady_clock::time_point m_end;
    int m_timeoutMs;
};

}  // namespace Ostrelink::Network
