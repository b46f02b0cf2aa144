#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "common/Messages.h"

// Sends message through endpoint (a receiver, a transmitter or a channel) and reads the reply on
// the same thread, as a host does. readFrom, if given, goes into byte 0 of the read buffer first:
// the in-memory channel reads the target runtime there.
template <typename Endpoint>
Bytes sendAndRead(Endpoint* endpoint, Bytes message, int readFrom = -1) {
    const int length = endpoint->SendCommand(message.data(), static_cast<int>(message.size()));
    Bytes reply(static_cast<std::size_t>(length), 0);
    if (readFrom >= 0 && !reply.empty()) {
        reply[0] = static_cast<unsigned char>(readFrom);
    }
    EXPECT_EQ(endpoint->ReadResponse(reply.data(), length), 0);
    return reply;
}

// The what() of the std::exception that action throws; a test failure if it throws none.
std::string failureOf(const std::function<void()>& action);
