// The whole network road: this host, this library's transmitter, the TCP or TLS client library,
// ostrelink-server in a process of its own, this library again inside the server, Java, and back.
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "OutboundSupport.h"

extern char** environ;

using Ostrelink::Native::Definitions::RuntimeOperationMode;
using Ostrelink::Native::Interfaces::ITransmitter;

namespace {

constexpr unsigned char jvm = 2;
constexpr unsigned char cpp = 8;
constexpr unsigned char local[4] = {127, 0, 0, 1};

// ostrelink-server on 127.0.0.1 and a port of the system's choice, stopped with SIGTERM when the
// test ends.
class ServerProcess {
public:
    explicit ServerProcess(std::vector<std::string> options) {
        std::vector<std::string> arguments{OUTBOUND_SERVER, "--port", "0"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        std::vector<char*> argv;
        for (auto& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);

        int output[2];
        if (pipe(output) != 0) {
            throw std::runtime_error("pipe failed");
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, output[0]);
        const int spawned =
            posix_spawn(&m_pid, OUTBOUND_SERVER, &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(output[1]);
        m_output = output[0];
        if (spawned != 0) {
            close(m_output);
            throw std::runtime_error("cannot start " + std::string(OUTBOUND_SERVER));
        }
        m_port = awaitListening();
    }
    ~ServerProcess() {
        kill(m_pid, SIGTERM);
        int status = 0;
        waitpid(m_pid, &status, 0);
        close(m_output);
    }
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    unsigned short port() const { return m_port; }

private:
    // Reads the server's output up to "listening on 127.0.0.1:<port>" and returns the port.
    unsigned short awaitListening() {
        const std::string marker = "listening on 127.0.0.1:";
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        std::string text;
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd ready{m_output, POLLIN, 0};
            if (poll(&ready, 1, 1000) <= 0) {
                continue;
            }
            char chunk[512];
            const ssize_t count = read(m_output, chunk, sizeof(chunk));
            if (count <= 0) {
                break;
            }
            text.append(chunk, static_cast<std::size_t>(count));
            const auto at = text.find(marker);
            if (at != std::string::npos && text.find('\n', at) != std::string::npos) {
                return static_cast<unsigned short>(std::stoi(text.substr(at + marker.size())));
            }
        }
        throw std::runtime_error("ostrelink-server did not start listening:\n" + text);
    }

    pid_t m_pid = -1;
    int m_output = -1;
    unsigned short m_port = 0;
};

ITransmitter* transmitter() {
    return createTransmitter(stagedRuntime(), RuntimeOperationMode::Calling);
}

// An ordinary command, which the server's JVM answers in Java.
Bytes javaCommand(unsigned char connectionType, unsigned short port, const std::string& text) {
    Bytes message = routedMessage(jvm, cpp, connectionType, text, local, port);
    message[10] = 5;
    return message;
}

Bytes networkHealthCheck(unsigned char connectionType, unsigned short port) {
    Bytes message = healthCheckMessage(jvm);
    message[9] = cpp;
    setRoute(message, connectionType, local, port);
    return message;
}

void roundTrips(unsigned char connectionType, unsigned short port) {
    ITransmitter* sender = transmitter();
    EXPECT_EQ(sendAndRead(sender, networkHealthCheck(connectionType, port), jvm),
              acknowledgeBytes());
    Bytes message = javaCommand(connectionType, port, "over the wire");
    EXPECT_EQ(sendAndRead(sender, message, jvm), message);

    constexpr int threadCount = 4;
    constexpr int rounds = 25;
    std::atomic<int> wrong{0};
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round < rounds; ++round) {
                Bytes own = javaCommand(connectionType, port,
                                        std::to_string(i) + " of " + std::to_string(round));
                try {
                    if (sendAndRead(sender, own, jvm) != own) {
                        ++wrong;
                    }
                } catch (const std::exception&) {
                    ++failed;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(failed, 0);
}

TEST(EndToEnd, TcpToTheServersJvmAndBack) {
    ServerProcess server({});
    roundTrips(1, server.port());
}

TEST(EndToEnd, TlsToTheServersJvmAndBack) {
    ServerProcess server({"--tls-cert", OUTBOUND_TLS_CERT, "--tls-key", OUTBOUND_TLS_KEY});
    roundTrips(2, server.port());
}

// Nobody listens: the client library's failure reaches the sender as it is, and the channel
// stays for the next attempt.
TEST(EndToEnd, RefusedConnectionReachesTheSender) {
    unsigned short port = 0;
    {
        ServerProcess server({});
        port = server.port();
    }
    ITransmitter* sender = transmitter();
    Bytes message = javaCommand(1, port, "nobody there");
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_FALSE(failureOf([&] {
                         sender->SendCommand(message.data(), static_cast<int>(message.size()));
                     }).empty());
    }
}

}  // namespace
