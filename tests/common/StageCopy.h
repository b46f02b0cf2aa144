#pragma once

#include <string>
#include <vector>

// Copies the staged tree into directory (as directory/stage) and returns the native directory of
// the copy, with a trailing "/". Files of the native directory named in leaveOut are not copied.
std::string copyStage(const std::string& directory, const std::vector<std::string>& leaveOut = {});
