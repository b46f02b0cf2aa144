// The receiver factory, and races on the roads that need no JVM. Under ThreadSanitizer a data race
// fails the test process; in any build the assertions check that no answer goes to the wrong
// thread.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include <ostrelink/RuntimeFactories.h>

#include "common/Calls.h"
#include "common/ChildProcess.h"
#include "common/HostLibrary.h"
#include "common/TemporaryDirectory.h"

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using namespace Ostrelink::Native::Interfaces;
namespace fs = std::filesystem;

namespace {

constexpr unsigned char jvmRuntime = 2;
constexpr unsigned char cppRuntime = 8;
constexpr unsigned char missingRuntime = 5;

IReceiver* createReceiver(RuntimeOperationMode mode = RuntimeOperationMode::Called) {
    return HostLibrary::jvmRuntime().get<CreateReceiverFn>("CreateReceiver")(mode);
}

IReceiver* getReceiver() {
    return HostLibrary::jvmRuntime().get<GetReceiverFn>("GetReceiver")();
}

ITransmitter* createTransmitter() {
    return HostLibrary::jvmRuntime().get<CreateTransmitterFn>("CreateTransmitter")(
        RuntimeOperationMode::Calling);
}

// Failures of the library write no line, and no record unless logDirectory exists: by default
// hundreds of expected failures cost no 50 ms pause each.
void quietFailures(const std::string& logDirectory = "/nonexistent/ostrelink-race-tests") {
    setenv("OSTRELINK_LOGGING_LEVEL", "off", 1);
    HostLibrary::jvmRuntime().get<int (*)(std::string)>(
        "_Z23SetWorkingDirectoryPathNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE")(
        logDirectory);
}

// Runs body(index) on count threads that leave together, so that their first calls meet; spins
// rather than sleeps, since threads woken from a condition variable leave one by one.
template <typename Body>
void runTogether(std::size_t count, Body body) {
    std::atomic<std::size_t> arrived{0};
    std::vector<std::thread> threads;
    for (std::size_t index = 0; index < count; ++index) {
        threads.emplace_back([&, index] {
            for (++arrived; arrived.load() < count;) {
                std::this_thread::yield();
            }
            body(index);
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

// Whether call throws a text that holds text; a test failure too if it throws nothing.
bool fails(const std::function<void()>& call, const char* text) {
    return failureOf(call).find(text) != std::string::npos;
}

Bytes tagged(unsigned char target, std::size_t thread, std::size_t sequence) {
    return makeMessage(target, 0, std::to_string(thread) + " " + std::to_string(sequence));
}

// What can meet only once in a process: creators that agree on one receiver and one transmitter,
// then the receiver's first Initialize from eight threads while four read with nothing stored;
// first TCP messages to 24 addresses (each a new channel, loading the client library; port 1
// refuses at once) while two threads that never sent read from the transmitter's channels; and
// many kinds of messages on the fresh in-memory channel.
// Exits 1 on a wrong answer; under ThreadSanitizer a race exits 66.
void firstCallsOfAProcess() {
    quietFailures();
    auto& library = HostLibrary::jvmRuntime();
    const auto getTransmitter = library.get<GetTransmitterFn>("GetTransmitter");
    const auto setMode = library.get<int (*)()>("_Z30SetOperationModeForTransmitterv");
    std::vector<void*> made(12);
    std::atomic<int> wrong{0};
    runTogether(12, [&](std::size_t index) {
        if (index % 3 == 0) {
            made[index] = createReceiver();
        } else if (index % 3 == 1) {
            made[index] = createTransmitter();
        } else {
            wrong += setMode();
            made[index] = getTransmitter();
        }
    });
    IReceiver* receiver = getReceiver();
    ITransmitter* transmitter = getTransmitter();
    for (std::size_t index = 0; index < made.size(); ++index) {
        wrong += made[index] != (index % 3 == 0 ? static_cast<void*>(receiver) : transmitter);
    }
    std::atomic<int> sending{24};
    runTogether(50, [&](std::size_t thread) {
        Bytes buffer(17, jvmRuntime);
        if (thread < 8) {
            wrong += receiver->Initialize(8, 2, 0);
        } else if (thread < 12) {
            for (int read = 0; read < 20; ++read) {
                wrong += !fails([&] { receiver->ReadResponse(buffer.data(), 17); }, "041");
            }
        } else if (thread < 36) {
            Bytes message = tagged(jvmRuntime, thread, 0);
            setRoute(message, 1, {127, 0, 0, static_cast<unsigned char>(thread)}, 1);
            wrong += !fails([&] { sendAndRead(transmitter, message, jvmRuntime); }, "127.0.0.");
            --sending;
        } else if (thread < 38) {
            // No channel yet (029), a client object not made yet (013) or no reply stored.
            while (sending.load() > 0) {
                wrong += failureOf([&] { transmitter->ReadResponse(buffer.data(), 16); }).empty();
            }
        } else {
            // First messages on the fresh in-memory channel, then more of each kind: echoes,
            // messages to a missing runtime (past Initialize's early return, each storing its
            // pair), and SetEmbeddedRuntime and DeployRuntime, which read the last pair.
            for (std::size_t round = 0; round < 100; ++round) {
                Bytes echo = tagged(cppRuntime, thread, round);
                Bytes missing = tagged(missingRuntime, thread, round);
                if ((thread + round) % 4 < 2) {
                    wrong += sendAndRead(transmitter, echo, cppRuntime) != echo;
                } else if ((thread + round) % 4 == 2) {
                    wrong += !fails([&] { sendAndRead(transmitter, missing, missingRuntime); },
                                    round == 0 ? "Cannot load" : "Exception code 0");
                } else {
                    try {
                        round % 2 == 0 ? transmitter->SetEmbeddedRuntime(8, 8, 0, "/opt")
                                       : transmitter->DeployRuntime(
                                             echo.data(), static_cast<int>(echo.size()), "", 0);
                    } catch (const std::exception& failure) {
                        // Not installed (001), or the last pair names the missing runtime (019).
                        wrong += std::string(failure.what()).find("Exception code 0") ==
                                 std::string::npos;
                    }
                }
            }
        }
    });
    // The Cpp stand-in counts the Initialize calls its receiver got: one.
    const Bytes runtimes = sendAndRead(transmitter, makeMessage(cppRuntime, 0, "runtimes"), 8);
    wrong += payloadOf(runtimes) != Bytes({cppRuntime, cppRuntime, 0, 1});
    const bool answers = sendAndRead(receiver, healthCheckMessage()) == acknowledgeBytes();
    std::exit(wrong.load() == 0 && answers ? 0 : 1);
}

// Whether the threads meet depends on the scheduler: several fresh child processes.
TEST(FreshProcessRace, FirstCallsOfCreatorsInitializeTcpAndInMemoryChannelsMeetOnManyThreads) {
    for (int child = 0; child < 8; ++child) {
        const int status = runForked(firstCallsOfAProcess);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    }
}

// Even threads send (health checks, load-library commands, and now and then two commands for one
// read), odd threads only read and must never find an answer. Thread ids of ended threads are
// handed out again: each wave's threads first check that no reply left by the last wave reaches
// them.
TEST(ReplyStoreRace, ManyThreadsAndTheirSuccessorsEachReadOnlyTheirOwnAnswer) {
    quietFailures();
    IReceiver* receiver = createReceiver();
    const TemporaryDirectory jars;
    std::ofstream(jars.file("a.jar")) << "PK";
    std::atomic<int> wrong{0};
    for (int wave = 0; wave < 10; ++wave) {
        runTogether(8, [&](std::size_t thread) {
            Bytes buffer(17, 0);
            const auto readFails = [&] {
                return fails([&] { receiver->ReadResponse(buffer.data(), 17); }, "041");
            };
            wrong += !readFails();
            for (std::size_t sequence = 0; sequence < 200; ++sequence) {
                if (thread % 2 == 1) {
                    wrong += !readFails();
                    continue;
                }
                const std::string jar = thread % 4 == 0 ? jars.path() : jars.file("a.jar");
                Bytes message =
                    sequence % 5 == 0 ? makeMessage(jvmRuntime, 1, jar) : healthCheckMessage();
                if (sequence % 40 == 0) {
                    receiver->SendCommand(message.data(), static_cast<int>(message.size()));
                }
                wrong += sendAndRead(receiver, message) != acknowledgeBytes();
                wrong += sequence % 40 == 0 && !readFails();
            }
            Bytes left = healthCheckMessage();
            receiver->SendCommand(left.data(), static_cast<int>(left.size()));
        });
    }
    EXPECT_EQ(wrong.load(), 0);
}

// With a log directory each failure writes two records with a pause of 50 ms each. Threads that
// wait for a failing Initialize get its failure, from one run (one late thread may start a
// second); the next call runs again. Then a thread's failing reads must not hold up another
// thread's health checks: none takes as long as one such read.
TEST(InitializeRace, WaitersShareAFailingRunAndFailingReadsHoldUpNoOtherThread) {
    const TemporaryDirectory logs;
    quietFailures(logs.path());
    const std::string javaHome = std::getenv("JAVA_HOME");
    setenv("JAVA_HOME", "/nonexistent", 1);
    IReceiver* receiver = createReceiver();
    std::atomic<int> unclear{0};
    runTogether(8, [&](std::size_t) {
        unclear += !fails([&] { receiver->Initialize(8, 2, 0); }, "Exception code 002");
    });
    EXPECT_EQ(unclear.load(), 0);
    std::stringstream log;
    for (const auto& file : fs::directory_iterator(logs.path())) {
        log << std::ifstream(file.path()).rdbuf();
    }
    const std::string text = log.str();
    const std::regex code("code 002");
    const auto records = std::distance(std::sregex_iterator(text.begin(), text.end(), code), {});
    EXPECT_TRUE(records >= 2 && records <= 4) << records;
    setenv("JAVA_HOME", javaHome.c_str(), 1);
    EXPECT_EQ(receiver->Initialize(8, 2, 0), 0);

    std::atomic<int> failedReads{0};
    std::thread reader([&] {
        Bytes buffer(17, 0);
        while (failedReads.load() >= 0) {
            failedReads += fails([&] { receiver->ReadResponse(buffer.data(), 17); }, "041");
        }
    });
    auto slowest = std::chrono::steady_clock::duration::zero();
    for (int roundTrips = 0; failedReads.load() < 3 || roundTrips < 1000; ++roundTrips) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(sendAndRead(receiver, healthCheckMessage()), acknowledgeBytes());
        slowest = std::max(slowest, std::chrono::steady_clock::now() - start);
    }
    failedReads = -1000;
    reader.join();
    EXPECT_LT(slowest, std::chrono::milliseconds(100));
}

// NotSet on a fresh process makes nothing; then the first creator decides the mode for the whole
// process. A Called receiver prints the runtime info on its first Initialize only, a Calling one
// never. Only exactly twelve bytes at offset 24 ask for a health check, and the tail of the read
// buffer past the reply stays untouched.
class Receiver : public testing::TestWithParam<RuntimeOperationMode> {};

TEST_P(Receiver, NotSetRefusedThenTheFirstModeWinsForOneReceiverThatAnswersHealthChecks) {
    EXPECT_EQ(getReceiver(), nullptr);
    EXPECT_EQ(failureOf([] { createReceiver(RuntimeOperationMode::NotSet); }),
              "Ostrelink Native Exception: Exception code 032. \nRuntime not initialized");
    EXPECT_EQ(getReceiver(), nullptr);
    const bool called = GetParam() == RuntimeOperationMode::Called;
    IReceiver* receiver = createReceiver(GetParam());
    ASSERT_NE(receiver, nullptr);
    EXPECT_EQ(getReceiver(), receiver);
    EXPECT_EQ(createReceiver(called ? RuntimeOperationMode::Calling : RuntimeOperationMode::Called),
              receiver);
    testing::internal::CaptureStdout();
    EXPECT_EQ(receiver->Initialize(8, 2, 0), 0);
    EXPECT_EQ(receiver->Initialize(5, 7, 3), 0);
    const std::string output = testing::internal::GetCapturedStdout();
    const std::string marker = "JVM Native Launcher Runtime Info";
    EXPECT_EQ(output.find(marker) != std::string::npos, called);
    EXPECT_EQ(output.find(marker), output.rfind(marker));
    Bytes message = makeMessage(2, 0, "health_check and more");
    ASSERT_EQ(receiver->SendCommand(message.data(), static_cast<int>(message.size())), 17);
    Bytes reply(20, 0xEE);
    EXPECT_EQ(receiver->ReadResponse(reply.data(), 20), 0);
    Bytes expected = acknowledgeBytes();
    expected.resize(20, 0xEE);
    EXPECT_EQ(reply, expected);
}

INSTANTIATE_TEST_SUITE_P(Modes, Receiver,
                         testing::Values(RuntimeOperationMode::Calling,
                                         RuntimeOperationMode::Called));

}  // namespace
