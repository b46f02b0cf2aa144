#include <algorithm>
#include <cctype>
#include <filesystem>
#include <string>

#include "contracts/CommandHeader.h"
#include "launcher/JvmLauncher.h"

using Ostrelink::Native::Definitions::CommandHeader;

namespace fs = std::filesystem;

namespace {

bool pathExists(const fs::path& path) {
    const fs::file_status status = fs::status(path);
    return status.type() != fs::file_type::none && status.type() != fs::file_type::not_found;
}

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

}  // namespace

// Notes a jar, or the jars of a directory, for the class path of the JVM this library creates.
// Nothing reaches a JVM that runs already; the note still shows in the runtime info.
int JvmLauncher::HandleLoadLibraryCommand(unsigned char* message, int length) {
    std::string text;
    if (length > CommandHeader::payloadTextOffset) {
        text.assign(reinterpret_cast<const char*>(message) + CommandHeader::payloadTextOffset,
                    static_cast<std::size_t>(length - CommandHeader::payloadTextOffset));
    }
    fs::path path(text);
    if (!pathExists(path)) {
        path = fs::current_path() / text;
    }
    if (!pathExists(path)) {
        RaiseLauncherException(Failure::LibraryFileNotFound, text);
    }
    AddToLibrariesToLoad(path.string());
    return StoreAcknowledgeReply();
}

void JvmLauncher::AddToLibrariesToLoad(std::string libraryPath) {
    std::lock_guard<std::mutex> lock(m_librariesMutex);
    const fs::path path(libraryPath);
    if (!pathExists(path)) {
        Ostrelink::Native::Failures::raise(Failure::LibraryFileNotFound, libraryPath);
    }
    const auto addOnce = [this](const std::string& entry) {
        if (std::find(m_librariesToLoad.begin(), m_librariesToLoad.end(), entry) ==
            m_librariesToLoad.end()) {
            m_librariesToLoad.push_back(entry);
        }
    };
    if (!fs::is_directory(path)) {
        addOnce(libraryPath);
        return;
    }
    for (const auto& entry : fs::directory_iterator(path)) {
        if (!entry.is_regular_file() || lowered(entry.path().extension().string()) != ".jar") {
            continue;
        }
        addOnce(entry.path().string());
    }
}
