// The key = value parser of the Configs stand-in, through its exported SetConfigSource on a file
// written from the input, followed by the getters that read what it stored.

#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <string>

#include "FuzzSupport.h"

namespace {

using SetConfigSourceFn = int (*)(const char*);
using GetTextFn = std::string (*)();
using GetIntFn = int (*)();
using GetChannelTextFn = std::string (*)(const char*, const char*);
using GetChannelIntFn = int (*)(const char*, const char*);

SetConfigSourceFn setConfigSource = nullptr;
GetTextFn getConfigSource = nullptr;
GetTextFn getLoggingLevel = nullptr;
GetIntFn getProxyPort = nullptr;
GetChannelIntFn getChannelPort = nullptr;
GetChannelTextFn getChannelHost = nullptr;
GetChannelTextFn getChannelRuntimePath = nullptr;
std::string sourcePath;
// What GetConfigSource must answer: a refused source changes nothing.
std::string acceptedSource;

template <typename Function>
Function exported(void* library, const char* name) {
    return reinterpret_cast<Function>(fuzz::findSymbol(library, name));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    void* library = fuzz::openLibrary(std::string(OSTRELINK_NATIVE_DIR) + "libConfigs.so");
    setConfigSource = exported<SetConfigSourceFn>(library, "SetConfigSource");
    getConfigSource = exported<GetTextFn>(library, "GetConfigSource");
    getLoggingLevel = exported<GetTextFn>(library, "GetLoggingLevel");
    getProxyPort = exported<GetIntFn>(library, "GetProxyPort");
    getChannelPort = exported<GetChannelIntFn>(library, "GetChannelPort");
    getChannelHost = exported<GetChannelTextFn>(library, "GetChannelHost");
    getChannelRuntimePath = exported<GetChannelTextFn>(library, "GetChannelRuntimePath");
    sourcePath = fuzz::enterSandbox("ostrelink-fuzz-configs") + "/config.txt";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    {
        std::ofstream file(sourcePath, std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    try {
        fuzz::check(setConfigSource(sourcePath.c_str()) == 0, "SetConfigSource answers 0");
        acceptedSource = sourcePath;
    } catch (const std::exception&) {
        // A malformed line or a bad port is refused with a message.
    }
    fuzz::check(getConfigSource() == acceptedSource, "a refused source changes nothing");
    getLoggingLevel();
    const int proxyPort = getProxyPort();
    fuzz::check(proxyPort >= 0 && proxyPort <= 65535, "a proxy port is a port");
    const int channelPort = getChannelPort("jvm", "default");
    fuzz::check(channelPort >= 0 && channelPort <= 65535, "a channel port is a port");
    getChannelHost("jvm", "default");
    getChannelRuntimePath("jvm", "default");
    return 0;
}
