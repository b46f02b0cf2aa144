#include "support/OstrelinkNativeException.h"

#include <utility>

namespace {
constexpr const char* supportMessage =
    "\nIf the error persists, contact support on: support@ostrelink.dev";
}

OstrelinkNativeException::OstrelinkNativeException(const std::string& message,
                                                   std::string callingRuntimeName)
    : std::runtime_error(message), m_supportMessage(supportMessage) {
    static_cast<void>(std::move(callingRuntimeName));
}

OstrelinkNativeException::OstrelinkNativeException(const OstrelinkNativeException& other)
    : std::runtime_error(other.what()), m_supportMessage(supportMessage) {}

OstrelinkNativeException::~OstrelinkNativeException() = default;
