#pragma once

#include <map>
#include <string>
#include <vector>

// The one way to a copy of the staged tree with a library swapped or left out: a library finds
// its siblings and its jar only relative to itself, so a test that needs a sibling that
// misbehaves, or none, runs the library of such a copy.
// Copies the staged tree into directory (as directory/stage) and returns the native directory of
// the copy, with a trailing "/". Files of the native directory named in leaveOut are not copied;
// swap maps a file name of the native directory to the file put there instead.
std::string copyStage(const std::string& directory, const std::vector<std::string>& leaveOut = {},
                      const std::map<std::string, std::string>& swap = {});
