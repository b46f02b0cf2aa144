#include "FuzzSupport.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace fuzz {

namespace fs = std::filesystem;

void fail(const char* what) {
    std::fprintf(stderr, "fuzz invariant broken: %s\n", what);
    std::abort();
}

void* openLibrary(const std::string& path) {
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* error = dlerror();
        std::fprintf(stderr, "cannot open %s: %s\n", path.c_str(), error != nullptr ? error : "");
        std::abort();
    }
    return library;
}

void* findSymbol(void* library, const char* name) {
    void* symbol = dlsym(library, name);
    if (symbol == nullptr) {
        std::fprintf(stderr, "missing export: %s\n", name);
        std::abort();
    }
    return symbol;
}

void quietFailureReporting() {
    setenv("OSTRELINK_LOGGING_LEVEL", "off", 1);
}

void pointErrorLogNowhere(void* runtimeLibrary) {
    using SetWorkingDirectoryPathFn = int (*)(std::string);
    const auto setWorkingDirectoryPath = reinterpret_cast<SetWorkingDirectoryPathFn>(findSymbol(
        runtimeLibrary,
        "_Z23SetWorkingDirectoryPathNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"));
    setWorkingDirectoryPath("/nonexistent/ostrelink-fuzz-error-log");
}

namespace {

std::string sandboxRoot;

void removeSandbox() {
    std::error_code ignored;
    fs::remove_all(sandboxRoot, ignored);
}

// TMPDIR if set; otherwise memory-backed /dev/shm where there is one, since some targets write
// a file for every input.
std::string temporaryDirectory() {
    const char* tmp = std::getenv("TMPDIR");
    if (tmp != nullptr && *tmp != '\0') {
        return tmp;
    }
    return access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
}

}  // namespace

std::string enterSandbox(const char* prefix) {
    std::string pattern = temporaryDirectory() + "/" + prefix + "-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        fail("mkdtemp");
    }
    sandboxRoot = pattern;
    std::atexit(removeSandbox);
    const fs::path root(pattern);
    for (const char* file : {"a.jar", "B.JAR", "c.txt", "lib.so", "sub/x.jar", "sub/y.Jar"}) {
        fs::create_directories((root / file).parent_path());
        std::ofstream(root / file) << "PK";
    }
    fs::create_directories(root / "d.jar" / "inner");
    std::ofstream(root / "d.jar" / "inner" / "hidden.jar") << "PK";
    fs::create_directories(root / "empty");
    fs::create_symlink(root / "a.jar", root / "link.jar");
    fs::create_symlink(root / "missing.jar", root / "dangling.jar");
    fs::create_directory_symlink(root / "sub", root / "sublink");
    fs::current_path(root);
    return pattern;
}

}  // namespace fuzz
