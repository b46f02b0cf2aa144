#include "common/Calls.h"

std::string failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::exception& exception) {
        return exception.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}
