#pragma once

// The project's one version, OSTRELINK_VERSION (CMake's project(VERSION), defined for every tool
// by tools/common), is printed the same way by each tool.
class ToolVersion {
public:
    // --version or -V as the first argument: prints "<tool> <version>" on standard output and
    // says true, so that main returns 0 before it parses anything else.
    static bool printIfAsked(const char* tool, int argc, char** argv);
};
