// The receiver protocol of the runtime jar, end to end: the staged library starts a real JVM with
// the staged OstrelinkJvmRuntime.jar and passes every message to its Receiver. Whole replies are
// compared, header bytes included. Requests shorter than the header never reach Java: the
// library refuses them (042).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <ostrelink/IReceiver.h>
#include <ostrelink/RuntimeFactories.h>

#include "common/Calls.h"
#include "common/HostLibrary.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::CreateReceiverFn;
using Ostrelink::Native::Interfaces::IReceiver;
using testing::MatchesRegex;

namespace {

const std::string targets = "com.ostrelink.tests.host.HostTargets";

// A message to runtime to (2, the JVM, or 8) from the other one, with its operation byte.
Bytes message(unsigned char to, unsigned char commandType, unsigned char operation,
              const std::string& payloadText) {
    Bytes bytes = makeMessage(to, commandType, payloadText, 10 - to);
    bytes[11] = operation;
    return bytes;
}

Bytes invoke(const std::vector<std::string>& fields) {
    std::string text;
    for (const std::string& field : fields) {
        text += (text.empty() ? "" : std::string(1, '\0')) + field;
    }
    return message(2, 0, 1, text);
}

Bytes failure(const std::string& text, unsigned char operation = 1) {
    return message(8, 10, operation, "java.lang." + text);
}

// One JVM, HostTargets.jar loaded: each request on the main thread, then many on six threads.
TEST(ProtocolRoad, EveryRequestGetsItsWholeReplyOnEveryThread) {
    IReceiver* receiver = HostLibrary::jvmRuntime().get<CreateReceiverFn>("CreateReceiver")(
        RuntimeOperationMode::Called);
    ASSERT_EQ(receiver->Initialize(8, 2, 0), 0);
    ASSERT_EQ(sendAndRead(receiver, makeMessage(2, 1, HOST_TARGETS_JAR)), acknowledgeBytes());
    Bytes reserved = message(2, 0, 0, "echo me");
    for (unsigned char i = 12; i < 24; ++i) {
        reserved[i] = i;
    }
    Bytes large = message(2, 0, 0, std::string(64 * 1024, 'x'));
    large.back() = 0xff;
    const Bytes headerOnly = {2, 0, 0, 0, 0, 0, 0, 0, 0, 8, 5};
    Bytes shortInvoke = message(2, 0, 1, "");
    shortInvoke.resize(20);
    const Bytes heartBeat = {2, 0, 0, 0, 0, 0, 0, 0, 0, 8, 11, 0, 0};
    const std::string noNames =
        "IllegalArgumentException: invoke needs a class name and a method name separated by NUL";
    const std::vector<std::pair<Bytes, Bytes>> cases = {
        {reserved, reserved},
        {makeMessage(2, 10, "an echo of any commandType"),
         makeMessage(2, 10, "an echo of any commandType")},
        {large, large},
        {invoke({targets, "greeting"}), message(8, 0, 1, "hello")},
        {invoke({targets, "join", "a\xc3\xa9\xe2\x82\xac", ""}),
         message(8, 0, 1, "a\xc3\xa9\xe2\x82\xac+")},
        {message(2, 0, 1, targets + std::string("\0join\0a\0", 8)), message(8, 0, 1, "a+")},
        {invoke({targets, "length", "four"}), message(8, 0, 1, "4")},
        {invoke({targets, "nothing"}), message(8, 0, 1, "null")},
        {invoke({targets, "ignore", "x"}), message(8, 0, 1, "")},
        {invoke({"no.such.Type", "m"}), failure("ClassNotFoundException: no.such.Type")},
        {invoke({targets, "absent"}), failure("NoSuchMethodException: " + targets + ".absent()")},
        {invoke({targets, "greeting", "extra"}),
         failure("NoSuchMethodException: " + targets + ".greeting(java.lang.String)")},
        {invoke({targets, "instanceGreeting"}),
         failure("NoSuchMethodException: public java.lang.String " + targets +
                 ".instanceGreeting() is not static")},
        {invoke({targets, "fail", "now"}),
         failure("IllegalStateException: broken on purpose: now")},
        {invoke({targets, "failWithoutMessage"}), failure("UnsupportedOperationException")},
        {invoke({targets + "$BrokenInitializer", "value"}),
         failure("IllegalStateException: broken on purpose: initialiser")},
        // A reply after a failure is the thread's own, not the failure's.
        {invoke({targets, "greeting"}), message(8, 0, 1, "hello")},
        {message(2, 0, 1, targets), failure(noNames)},
        {invoke({"", "greeting"}), failure(noNames)},
        {message(2, 0, 7, ""), failure("IllegalArgumentException: unknown operation 7", 7)},
        {message(2, 0, 0xff, ""), failure("IllegalArgumentException: unknown operation 255", 0xff)},
        {headerOnly,
         failure("IllegalArgumentException: message of 11 bytes has no operation byte at offset "
                 "11",
                 0)},
        {shortInvoke,
         failure("IllegalArgumentException: message of 20 bytes ends before the payload text at "
                 "offset 24")},
        {heartBeat, acknowledgeBytes()},
    };
    for (const auto& [sent, expected] : cases) {
        EXPECT_EQ(sendAndRead(receiver, sent), expected)
            << std::string(sent.begin() + 11, sent.end());
    }
    Bytes info = sendAndRead(receiver, message(2, 0, 2, "ignored"));
    const std::string text = info.size() < 24 ? "" : std::string(info.begin() + 24, info.end());
    info.resize(24);
    EXPECT_EQ(info, message(8, 0, 2, ""));
    EXPECT_THAT(text, MatchesRegex("java\\.version: 17\\.[^\n]*\njava\\.vendor: [^\n]+\n"
                                   "java\\.home: [^\n]+\njava\\.class\\.path: [^\n]*/Binaries/Jvm/"
                                   "OstrelinkJvmRuntime\\.jar:" HOST_TARGETS_JAR "\n"));
    // Each thread its own payloads, replies and failures.
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 300; ++i) {
                const std::string tag = std::to_string(t) + "-" + std::to_string(i);
                const Bytes echo = message(2, 0, 0, tag);
                mismatches += sendAndRead(receiver, echo) != echo;
                mismatches += sendAndRead(receiver, invoke({targets, "join", tag, "t"})) !=
                              message(8, 0, 1, tag + "+t");
                mismatches += sendAndRead(receiver, invoke({targets, "fail", tag})) !=
                              failure("IllegalStateException: broken on purpose: " + tag);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
