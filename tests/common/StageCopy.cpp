#include "StageCopy.h"

#include <filesystem>

namespace fs = std::filesystem;

std::string copyStage(const std::string& directory, const std::vector<std::string>& leaveOut,
                      const std::map<std::string, std::string>& swap) {
    const fs::path target = fs::path(directory) / "stage";
    fs::copy(OSTRELINK_STAGE_DIR, target, fs::copy_options::recursive);
    const fs::path stagedNative = fs::path(OSTRELINK_NATIVE_DIR);
    const fs::path relative =
        fs::relative(stagedNative.parent_path(), fs::path(OSTRELINK_STAGE_DIR));
    const fs::path native = target / relative;
    for (const std::string& name : leaveOut) {
        fs::remove(native / name);
    }
    for (const auto& [name, file] : swap) {
        fs::copy_file(file, native / name, fs::copy_options::overwrite_existing);
    }
    return native.string() + "/";
}
