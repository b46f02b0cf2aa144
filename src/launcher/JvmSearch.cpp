#include "launcher/JvmSearch.h"

#include "support/Platform.h"

namespace Ostrelink::Native::Launcher {

JvmSearch searchJvm(const std::string& configured, const char* runtimePath, const char* javaHome) {
    JvmSearch search;
    if (!configured.empty()) {
        search.source = JvmSearch::Source::Configured;
        search.path = configured;
        search.lines.push_back(configuredSourceLine + configured);
    } else if (runtimePath != nullptr && *runtimePath != '\0') {
        search.source = JvmSearch::Source::RuntimePathVariable;
        search.path = runtimePath;
    } else if (javaHome != nullptr) {
        search.source = JvmSearch::Source::JavaHome;
        search.path = javaHome;
    } else {
        search.failure = Failures::Failure::NoJvmSource;
    }
    // The variable is named whenever it is set and asked, also when it is empty.
    if (configured.empty() && runtimePath != nullptr) {
        search.lines.push_back(variableSourceLine + std::string(runtimePath));
    }
    if (!search.failure) {
        search.candidates = jvmCandidates(search.path);
    }
    return search;
}

std::vector<std::string> jvmCandidates(const std::string& path) {
    return {path, path + OSTRELINK_JVM_CANDIDATE_JRE, path + OSTRELINK_JVM_CANDIDATE_JDK};
}

}  // namespace Ostrelink::Native::Launcher
