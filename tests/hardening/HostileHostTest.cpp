// Hosts that do legal but unkind things to the library's threads and to the JVM: send from a
// thread that is ending, detach a thread the library keeps attached, fork, unload and reload the
// library, shut the JVM down. Each scenario runs in a child process of its own with a generous
// limit, so that a crash shows as its signal and a hang as the limit's SIGKILL.

#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <thread>

#include "../launcher/LauncherTesting.h"
#include "common/ChildProcess.h"

namespace {

// Long enough that only a real hang reaches it.
constexpr int hangLimitMs = 90000;

const InstallationCopy* installation = nullptr;
IReceiver* receiver = nullptr;
void (*scenarioBody)() = nullptr;

// In a scenario's child: a failed check ends it with a status that names the check.
void require(bool condition, int status, const char* what) {
    if (!condition) {
        std::cerr << "failed: " << what << std::endl;
        std::_Exit(status);
    }
}

bool echoes(const std::string& payload) {
    return sendAndRead(receiver, javaCommand(payload)) == javaCommand(payload);
}

// Commands sent while a thread ends, from a thread_local built before its first command and from
// a key destructor that runs after the library's own.
std::atomic<int> lastCommandsAnswered{0};
struct SendsAsItEnds {
    ~SendsAsItEnds() { lastCommandsAnswered += echoes("from a thread_local destructor"); }
};
thread_local SendsAsItEnds sendsAsItEnds;
pthread_key_t hostKey;

void sendsFromThreadExit() {
    require(echoes("first"), 2, "echo before the threads");
    std::thread([] {
        static_cast<void>(&sendsAsItEnds);
        require(echoes("first of the thread"), 3, "first echo of the thread");
        pthread_key_create(&hostKey,
                           [](void*) { lastCommandsAnswered += echoes("from a key destructor"); });
        pthread_setspecific(hostKey, &hostKey);
    }).join();
    require(lastCommandsAnswered == 2, 4, "both commands sent at thread exit answered");
}

// The host's usual attach, work, detach on a thread that the library keeps attached.
void hostDetachesAKeptThread() {
    std::thread([] {
        require(echoes("kept"), 2, "first echo");
        JavaVM* jvm = runningJvms().at(0);
        void* env = nullptr;
        require(jvm->AttachCurrentThread(&env, nullptr) == JNI_OK, 3, "host attach");
        jvm->DetachCurrentThread();
        require(attachState(jvm) == JNI_EDETACHED, 4, "host detach");
        const std::string threads = textOf(sendAndRead(receiver, javaCommand("threads")));
        require(threads.find(" true") != std::string::npos, 5, "attached again, as a daemon");
    }).join();
}

// The host detaches a kept thread and attaches it again itself, as an ordinary thread, and uses
// that attachment in a key destructor that runs after the library's: it must still be there.
pthread_key_t hostExitKey;
void hostAttachesAKeptThreadItself() {
    std::thread([] {
        require(echoes("kept"), 2, "first echo");
        JavaVM* jvm = runningJvms().at(0);
        jvm->DetachCurrentThread();
        void* env = nullptr;
        require(jvm->AttachCurrentThread(&env, nullptr) == JNI_OK, 3, "host attach");
        require(echoes("on the host's attachment"), 4, "second echo");
        pthread_key_create(&hostExitKey, [](void*) {
            JavaVM* vm = runningJvms().at(0);
            require(attachState(vm) == JNI_OK, 5, "the host's attachment at its thread's end");
            vm->DetachCurrentThread();
        });
        pthread_setspecific(hostExitKey, &hostExitKey);
    }).join();
}

void bigEchoInTheChild() {
    const Bytes big = javaCommand(std::string(1 << 20, 'x'));
    require(sendFailure(receiver, big)
                    .find("JVM Launcher: Exception code 065. The JVM does not "
                          "survive fork") == 0,
            6, "065 in the child");
    require(sendAndRead(receiver, healthCheckMessage()) == acknowledgeBytes(), 7,
            "health check in the child");
}

void forksAfterTheJvmStarted() {
    require(echoes("before the fork"), 2, "echo in the parent");
    const int status = runForked(bigEchoInTheChild, hangLimitMs / 2);
    require(WIFEXITED(status) && WEXITSTATUS(status) == 0, 3, "the child's checks");
    require(echoes("after the fork"), 4, "echo in the parent after");
}

// The fork comes while another thread starts the JVM: the start is held in its prints, on
// standard output turned into a small pipe that nobody reads yet.
void forksInTheMiddleOfTheStart() {
    setenv("OSTRELINK_JVM_OPTIONS", "-XX:+PrintFlagsFinal", 1);
    // Standard output stays locked by the held print, in the child too.
    std::cerr.tie(nullptr);
    int output[2];
    require(pipe(output) == 0 && dup2(output[1], STDOUT_FILENO) >= 0, 2, "pipe");
    // The flags make many times the pipe's size: the start can't end before the pipe is read.
    require(fcntl(output[0], F_SETPIPE_SZ, 4096) > 0, 2, "pipe size");
    std::thread starter([] { require(echoes("starts the JVM"), 3, "echo of the start"); });
    for (int held = 0; held == 0; ioctl(output[0], FIONREAD, &held)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const int status = runForked(
        [] {
            require(sendFailure(receiver, javaCommand("in the child"))
                            .find("JVM Launcher: Exception code 065.") == 0,
                    6, "065 in the child");
        },
        hangLimitMs / 2);
    require(WIFEXITED(status) && WEXITSTATUS(status) == 0, 4, "the child's checks");
    std::thread([fd = output[0]] {
        char buffer[4096];
        while (read(fd, buffer, sizeof buffer) > 0) {
        }
    }).detach();
    starter.join();
    require(echoes("after the fork"), 5, "echo in the parent after");
}

// Each load adopts the JVM that the first one created, on a worker thread that then ends. A
// library never deletes its receiver: the host keeps them, to its end, so they are no leak.
auto* const loadedReceivers = new std::vector<IReceiver*>;

void reloadsTheLibrary() {
    std::string first;
    for (int cycle = 0; cycle < 8; ++cycle) {
        void* library = dlopen(installation->library.c_str(), RTLD_NOW | RTLD_LOCAL);
        require(library != nullptr, 2, "dlopen");
        auto create = reinterpret_cast<Ostrelink::Native::Interfaces::CreateReceiverFn>(
            dlsym(library, "CreateReceiver"));
        IReceiver* loaded = loadedReceivers->emplace_back(create(RuntimeOperationMode::Called));
        require(loaded->Initialize(8, 2, 0) == 0, 3, "Initialize");
        std::string threads;
        std::thread([&] { threads = textOf(sendAndRead(loaded, javaCommand("threads"))); }).join();
        first = cycle == 0 ? threads : first;
        require(threads == first, 4, "as many Java threads as after the first load");
        dlclose(library);
    }
}

// The launch thread and the threads that sent commands must not hold the shutdown up.
void destroysTheJvm() {
    std::thread([] { require(echoes("on a worker"), 2, "echo"); }).join();
    require(runningJvms().at(0)->DestroyJavaVM() == JNI_OK, 3, "DestroyJavaVM");
}

struct Scenario {
    const char* name;
    void (*body)();
    bool keepThreadsAttached;
};

const Scenario scenarios[] = {
    {"SendsFromThreadExit", sendsFromThreadExit, false},
    {"SendsFromThreadExitKeptAttached", sendsFromThreadExit, true},
    {"DetachesAKeptThread", hostDetachesAKeptThread, true},
    {"AttachesAKeptThreadItself", hostAttachesAKeptThreadItself, true},
    {"ForksAfterTheJvmStarted", forksAfterTheJvmStarted, false},
    {"ForksInTheMiddleOfTheStart", forksInTheMiddleOfTheStart, false},
    {"ReloadsTheLibrary", reloadsTheLibrary, false},
    {"DestroysTheJvm", destroysTheJvm, false},
};

void PrintTo(const Scenario& scenario, std::ostream* out) {
    *out << scenario.name;
}

class HostileHost : public testing::TestWithParam<Scenario> {};

TEST_P(HostileHost, GetsItsAnswersAndItsCallsBack) {
    const Scenario& scenario = GetParam();
    if (scenario.keepThreadsAttached) {
        setenv("OSTRELINK_KEEP_THREADS_ATTACHED", "true", 1);
    }
    const InstallationCopy copy;
    installation = &copy;
    scenarioBody = scenario.body;
    const int status = runForked(
        [] {
            if (scenarioBody != reloadsTheLibrary) {
                receiver = installation->receiver();
            }
            scenarioBody();
            std::exit(0);
        },
        hangLimitMs);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << (WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                : "status " + std::to_string(WEXITSTATUS(status)));
}

INSTANTIATE_TEST_SUITE_P(Scenarios, HostileHost, testing::ValuesIn(scenarios),
                         [](const testing::TestParamInfo<Scenario>& scenario) {
                             return std::string(scenario.param.name);
                         });

// The library's TLS block goes whole into static TLS, which glibc keeps small for libraries
// opened later: one pointer of it, or a host that loaded others first can't open us.
TEST(StaticTls, TheLibraryTakesOnePointer) {
    std::ifstream file(HostLibrary::stagedPath("OstrelinkJvmRuntimeNative"), std::ios::binary);
    Elf64_Ehdr header{};
    ASSERT_TRUE(file.read(reinterpret_cast<char*>(&header), sizeof header));
    std::uint64_t tlsBytes = 0;
    for (int i = 0; i < header.e_phnum; ++i) {
        Elf64_Phdr segment{};
        file.seekg(static_cast<std::streamoff>(header.e_phoff) + i * header.e_phentsize);
        ASSERT_TRUE(file.read(reinterpret_cast<char*>(&segment), sizeof segment));
        tlsBytes += segment.p_type == PT_TLS ? segment.p_memsz : 0;
    }
    EXPECT_LE(tlsBytes, sizeof(void*));
}

}  // namespace
