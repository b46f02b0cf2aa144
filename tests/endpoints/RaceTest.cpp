// Races on the roads that need no JVM. Under ThreadSanitizer a data race fails the test process;
// in any build the assertions check that no answer goes to the wrong thread.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <functional>

#include <ostrelink/RuntimeFactories.h>

#include "common/ChildProcess.h"
#include "common/HostLibrary.h"
#include "endpoints/RaceSupport.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::GetReceiverFn;
using Ostrelink::Native::Interfaces::GetTransmitterFn;
using Ostrelink::Native::Interfaces::IReceiver;
using Ostrelink::Native::Interfaces::ITransmitter;

namespace {

constexpr unsigned char jvmRuntime = 2;
constexpr unsigned char cppRuntime = 8;
constexpr unsigned char missingRuntime = 5;

bool throwsWith(const std::function<void()>& call, const std::string& text) {
    return failureOf(call).find(text) != std::string::npos;
}

// A directory with two jars, removed at the end of the test.
class JarDirectory {
public:
    JarDirectory() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "race-jars-XXXXXX").string();
        m_path = mkdtemp(pattern.data());
        for (const char* name : {"a.jar", "b.jar"}) {
            std::ofstream(m_path / name) << "PK";
        }
    }
    ~JarDirectory() { std::filesystem::remove_all(m_path); }
    JarDirectory(const JarDirectory&) = delete;
    JarDirectory& operator=(const JarDirectory&) = delete;
    std::string file(const char* name) const { return (m_path / name).string(); }
    std::string path() const { return m_path.string(); }

private:
    std::filesystem::path m_path;
};

TEST(CreatorRace, CreatorsMeetingOnAFreshProcessAgreeOnOneReceiverAndOneTransmitter) {
    constexpr std::size_t threads = 12;
    std::vector<IReceiver*> receivers(threads, nullptr);
    std::vector<ITransmitter*> transmitters(threads, nullptr);
    auto& library = HostLibrary::jvmRuntime();
    const auto setMode = library.get<int (*)()>("_Z30SetOperationModeForTransmitterv");
    const auto getTransmitter = library.get<GetTransmitterFn>("GetTransmitter");
    runTogether(threads, [&](std::size_t index) {
        switch (index % 3) {
            case 0:
                receivers[index] = createReceiver(RuntimeOperationMode::Called);
                break;
            case 1:
                transmitters[index] = createTransmitter(RuntimeOperationMode::Calling);
                break;
            default:
                EXPECT_EQ(setMode(), 0);
                transmitters[index] = getTransmitter();
                break;
        }
    });
    IReceiver* receiver = library.get<GetReceiverFn>("GetReceiver")();
    ITransmitter* transmitter = getTransmitter();
    ASSERT_NE(receiver, nullptr);
    ASSERT_NE(transmitter, nullptr);
    for (std::size_t index = 0; index < threads; ++index) {
        if (index % 3 == 0) {
            EXPECT_EQ(receivers[index], receiver) << "thread " << index;
        } else {
            EXPECT_EQ(transmitters[index], transmitter) << "thread " << index;
        }
    }
    EXPECT_EQ(sendAndRead(receiver, healthCheckMessage()), acknowledgeBytes());
}

// Some races can happen only once in a process, and whether threads meet there depends on the
// scheduler: body runs in several fresh child processes. Under ThreadSanitizer a child that sees
// a race exits with 66; body exits with 1 on a failure of its own.
void inFreshChildren(void (*body)()) {
    for (int child = 0; child < 8; ++child) {
        const int status = runForked(body);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "child " << child << ": status " << status;
    }
}

// Eight threads initialise a fresh receiver at once while four read with nothing stored, whose
// failures carry the runtime info that Initialize is filling in.
void initializeFromManyThreads() {
    quietFailures();
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    std::atomic<int> wrong{0};
    runTogether(12, [&](std::size_t thread) {
        Bytes buffer(17, 0);
        for (int read = 0; read < (thread < 8 ? 0 : 20); ++read) {
            if (!throwsWith([&] { receiver->ReadResponse(buffer.data(), 17); }, "041")) {
                ++wrong;
            }
        }
        try {
            if (thread < 8 && receiver->Initialize(8, 2, 0) != 0) {
                ++wrong;
            }
        } catch (const std::exception&) {
            ++wrong;
        }
    });
    const bool answers = sendAndRead(receiver, healthCheckMessage()) == acknowledgeBytes();
    std::exit(wrong.load() == 0 && answers ? 0 : 1);
}

TEST(InitializeRace, ThreadsMeetingInInitializeOnAFreshReceiverAllSucceed) {
    inFreshChildren(initializeFromManyThreads);
}

// The threads that waited for a run that failed get its failure, reported once; the next call
// runs again.
TEST(InitializeRace, ThreadsThatWaitedForAFailingRunGetItsFailure) {
    const JarDirectory logs;
    quietFailures(logs.path());
    const std::string javaHome = std::getenv("JAVA_HOME");
    setenv("JAVA_HOME", "/nonexistent", 1);
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    std::atomic<int> unclear{0};
    runTogether(8, [&](std::size_t) {
        if (!throwsWith([&] { receiver->Initialize(8, 2, 0); }, "Exception code 002")) {
            ++unclear;
        }
    });
    EXPECT_EQ(unclear.load(), 0);
    // A run writes two records, each with a pause of 50 ms: threads that leave together all
    // meet the first run. One late thread may start a second.
    std::size_t records = 0;
    for (const auto& file : std::filesystem::directory_iterator(logs.path())) {
        std::stringstream content;
        content << std::ifstream(file.path()).rdbuf();
        for (std::size_t at = content.str().find("code 002"); at != std::string::npos;
             at = content.str().find("code 002", at + 1)) {
            ++records;
        }
    }
    EXPECT_GE(records, 2U);
    EXPECT_LE(records, 4U);
    setenv("JAVA_HOME", javaHome.c_str(), 1);
    EXPECT_EQ(receiver->Initialize(8, 2, 0), 0);
}

// Even threads send (health checks and load-library commands), replace and read their answers;
// odd threads only read, and must never find one: an answer that reaches the wrong thread shows
// on both sides.
TEST(ReplyStoreRace, HealthChecksLoadLibrariesAndEmptyReadsOnManyThreadsEachGetTheirOwnAnswer) {
    quietFailures();
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    const JarDirectory jars;
    std::atomic<int> wrong{0};
    runTogether(8, [&](std::size_t thread) {
        Bytes buffer(17, 0);
        const auto readFails = [&] {
            return throwsWith([&] { receiver->ReadResponse(buffer.data(), 17); }, "041");
        };
        for (std::size_t sequence = 0; sequence < 2000; ++sequence) {
            if (thread % 2 == 1) {
                wrong += readFails() ? 0 : 1;
                continue;
            }
            Bytes message =
                sequence % 5 == 0
                    ? makeMessage(jvmRuntime, 1, thread % 4 == 0 ? jars.path() : jars.file("a.jar"))
                    : healthCheckMessage();
            if (sequence % 40 == 0) {
                // Two answers stored, one read: the second read finds nothing.
                receiver->SendCommand(message.data(), static_cast<int>(message.size()));
            }
            wrong += sendAndRead(receiver, message) == acknowledgeBytes() ? 0 : 1;
            wrong += sequence % 40 != 0 || readFails() ? 0 : 1;
        }
    });
    EXPECT_EQ(wrong.load(), 0);
}

TEST(ReplyStoreRace, RepliesLeftUnreadByEndedThreadsAreNotReadByTheirSuccessors) {
    quietFailures();
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    std::atomic<int> stale{0};
    // Thread ids of ended threads are handed out again: a new thread must not find the reply
    // that an earlier holder of its id left behind.
    for (int wave = 0; wave < 25; ++wave) {
        runTogether(6, [&](std::size_t) {
            Bytes buffer(17, 0);
            if (!throwsWith([&] { receiver->ReadResponse(buffer.data(), 17); }, "041")) {
                ++stale;
            }
            Bytes message = healthCheckMessage();
            receiver->SendCommand(message.data(), static_cast<int>(message.size()));
        });
    }
    EXPECT_EQ(stale.load(), 0);
}

// A read with nothing stored writes two error-log records, each with a pause of 50 ms. Another
// thread's health checks must not wait for it: none takes as long as one such read.
TEST(ReplyStoreRace, FailingReadsOnOneThreadDoNotHoldUpAnotherThreadsHealthChecks) {
    const JarDirectory logs;
    quietFailures(logs.path());
    IReceiver* receiver = createReceiver(RuntimeOperationMode::Called);
    std::atomic<bool> done{false};
    std::atomic<int> failedReads{0};
    std::thread reader([&] {
        Bytes buffer(17, 0);
        while (!done.load()) {
            failedReads += throwsWith([&] { receiver->ReadResponse(buffer.data(), 17); }, "041");
        }
    });
    auto slowest = std::chrono::steady_clock::duration::zero();
    for (int roundTrips = 0; failedReads.load() < 3 || roundTrips < 1000; ++roundTrips) {
        const auto start = std::chrono::steady_clock::now();
        if (sendAndRead(receiver, healthCheckMessage()) != acknowledgeBytes()) {
            ADD_FAILURE() << "a wrong answer to a health check";
            break;
        }
        slowest = std::max(slowest, std::chrono::steady_clock::now() - start);
    }
    done.store(true);
    reader.join();
    EXPECT_LT(slowest, std::chrono::milliseconds(100));
}

TEST(TransmitterRace, ConcurrentSendersInMemoryEachReadTheirOwnReplies) {
    quietFailures();
    ITransmitter* transmitter = createTransmitter(RuntimeOperationMode::Calling);
    std::atomic<int> wrong{0};
    runTogether(8, [&](std::size_t thread) {
        for (std::size_t sequence = 0; sequence < 1000; ++sequence) {
            // Echoed by the Cpp stand-in, or answered natively by this library's own receiver.
            const Bytes message = sequence % 3 == 0
                                      ? healthCheckMessage(jvmRuntime)
                                      : makeMessage(cppRuntime, 0, taggedPayload(thread, sequence));
            const Bytes expected = sequence % 3 == 0 ? acknowledgeBytes() : message;
            if (sendAndRead(transmitter, message, message[0]) != expected) {
                ++wrong;
            }
        }
    });
    EXPECT_EQ(wrong.load(), 0);
}

TEST(InMemoryChannelRace, FirstMessagesMeetingOnAFreshChannelInitializeTheRuntimeOnce) {
    quietFailures();
    ITransmitter* transmitter = createTransmitter(RuntimeOperationMode::Calling);
    std::atomic<int> wrong{0};
    runTogether(16, [&](std::size_t thread) {
        const Bytes message = makeMessage(cppRuntime, 0, taggedPayload(thread, 0));
        if (sendAndRead(transmitter, message, message[0]) != message) {
            ++wrong;
        }
    });
    EXPECT_EQ(wrong.load(), 0);
    // The stand-in counts the Initialize calls its receiver got; the channel made it once.
    const Bytes runtimes =
        sendAndRead(transmitter, makeMessage(cppRuntime, 0, "runtimes"), cppRuntime);
    ASSERT_EQ(runtimes.size(), 15U);
    EXPECT_EQ(runtimes[11], cppRuntime);  // calling
    EXPECT_EQ(runtimes[12], cppRuntime);  // called
    EXPECT_EQ(runtimes[14], 1);
}

TEST(InMemoryChannelRace, FirstMessagesToAMissingRuntimeAllFailCleanlyAndTheChannelStaysUsable) {
    quietFailures();
    ITransmitter* transmitter = createTransmitter(RuntimeOperationMode::Calling);
    std::atomic<int> unclear{0};
    runTogether(16, [&](std::size_t thread) {
        Bytes message = makeMessage(missingRuntime, 0, taggedPayload(thread, 0));
        if (!throwsWith([&] { sendAndRead(transmitter, message, message[0]); }, "Cannot load")) {
            ++unclear;
        }
    });
    EXPECT_EQ(unclear.load(), 0);
    const Bytes message = makeMessage(cppRuntime, 0, "after");
    EXPECT_EQ(sendAndRead(transmitter, message, cppRuntime), message);
}

// Messages to a runtime that is not installed go past Initialize's early return and store their
// pair each time, while other threads read the stored pair to pick the target of
// SetEmbeddedRuntime and DeployRuntime.
TEST(InMemoryChannelRace, EmbeddedAndDeployReadTheLastPairWhileOtherThreadsStoreOne) {
    quietFailures();
    ITransmitter* transmitter = createTransmitter(RuntimeOperationMode::Calling);
    Bytes deploy = makeMessage(cppRuntime, 0, "deploy");
    std::atomic<int> unclear{0};
    runTogether(4, [&](std::size_t thread) {
        for (std::size_t round = 0; round < 200; ++round) {
            Bytes missing = makeMessage(missingRuntime, 0, taggedPayload(thread, round));
            try {
                switch ((thread + round) % 3) {
                    case 0:
                        transmitter->SendCommand(missing.data(), static_cast<int>(missing.size()));
                        ++unclear;  // the runtime is not installed
                        break;
                    case 1:
                        transmitter->SetEmbeddedRuntime(cppRuntime, cppRuntime, 0, "/opt");
                        break;
                    default:
                        transmitter->DeployRuntime(deploy.data(), static_cast<int>(deploy.size()),
                                                   "", 0);
                        break;
                }
            } catch (const std::exception& exception) {
                // Not installed (001), or the last pair names the missing runtime (019).
                if (std::string(exception.what()).find("Exception code 0") == std::string::npos) {
                    ++unclear;
                }
            }
        }
    });
    EXPECT_EQ(unclear.load(), 0);
}

// A thread that never sent reads from the transmitter's current channel, which may be a network
// channel whose first Initialize makes its client object on another thread right then.
TEST(NetworkChannelRace, ReadsOfAThreadThatNeverSentMeetTheFirstInitializeOfNewChannels) {
    quietFailures();
    ITransmitter* transmitter = createTransmitter(RuntimeOperationMode::Calling);
    std::atomic<bool> sending{true};
    std::atomic<int> answered{0};
    runTogether(2, [&](std::size_t thread) {
        if (thread == 0) {
            // Port 1 of loopback addresses refuses at once; each address is a new channel.
            for (unsigned char host = 1; host <= 100; ++host) {
                Bytes message = makeMessage(jvmRuntime, 0, "x");
                setRoute(message, 1, {127, 0, 0, host}, 1);
                throwsWith([&] { sendAndRead(transmitter, message, message[0]); }, "");
            }
            sending = false;
            return;
        }
        Bytes buffer(16, jvmRuntime);
        while (sending) {
            // Nothing was sent from here: every read fails, with no channel yet (029), a
            // client object not made yet (013) or no reply stored in the client.
            if (!throwsWith([&] { transmitter->ReadResponse(buffer.data(), 16); }, "")) {
                ++answered;
            }
        }
    });
    EXPECT_EQ(answered.load(), 0);
}

// Sibling libraries are loaded on first need and their handles kept: first needs that meet on
// several threads must not race on the kept handle. Each network channel has a lock of its own,
// so two channels load the TCP client library at once. Only the first load of a process can
// race.
void firstTcpMessagesFromManyThreads() {
    quietFailures();
    ITransmitter* transmitter = createTransmitter(RuntimeOperationMode::Calling);
    std::atomic<int> unclear{0};
    // One channel per address; port 1 of loopback addresses refuses at once.
    runTogether(24, [&](std::size_t thread) {
        Bytes message = makeMessage(jvmRuntime, 0, taggedPayload(thread, 0));
        setRoute(message, 1, {127, 0, 0, static_cast<unsigned char>(thread + 1)}, 1);
        if (!throwsWith([&] { sendAndRead(transmitter, message, message[0]); }, "127.0.0.")) {
            ++unclear;
        }
    });
    std::exit(unclear.load() == 0 ? 0 : 1);
}

TEST(LibraryLoadRace, FirstTcpMessagesToManyAddressesLoadTheClientLibrarySafely) {
    inFreshChildren(firstTcpMessagesFromManyThreads);
}

}  // namespace
