#include "support/Failures.h"

#include <iterator>

#include "support/OstrelinkNativeException.h"
#include "support/Platform.h"

namespace Ostrelink::Native::Failures {

namespace {

constexpr const char* reinstall = ". \nReinstall Ostrelink package";
constexpr const char* javaException = ". JVM exception occurred";

constexpr Form L = Form::Launcher;
constexpr Form N = Form::Native;
using F = Failure;

constexpr Entry entries[] = {
    {F::NoJvmSource, L, "001", ". \nSet JAVA_HOME environment variable", nullptr},
    {F::NoJvmLibrary, L, "002",
     ". \nCheck JRE installation. Set JAVA_HOME to JRE or JDK root directory or set "
     "OSTRELINK_JVM_RUNTIME_PATH to proper jvm shared library file (" OSTRELINK_JVM_LIBRARY_FILE
     ")",
     nullptr},
    {F::NoInvocationFunctions, L, "003",
     ". \nCheck JRE installation. Set JAVA_HOME to JRE or JDK root directory or set "
     "OSTRELINK_JVM_RUNTIME_PATH to proper jvm shared library file (jvm.dll or libjvm.so or "
     "libjvm.dylib)",
     nullptr},
    {F::LibraryFileNotFound, L, "004", ". \nCannot find file: ", "\n"},
    {F::NoEnvironmentAfterStart, L, "020", ". Cannot get m_JvmEnv.\nReinstall Ostrelink package",
     nullptr},
    {F::NoEnvironmentForReceiverClass, L, "021", reinstall, nullptr},
    {F::NoReceiverClass, L, "022", reinstall, nullptr},
    {F::NoSendCommandMethod, L, "024", reinstall, nullptr},
    {F::NoHeartBeatMethod, L, "025", reinstall, nullptr},
    {F::NoGetRuntimeInfoMethod, L, "026", reinstall, nullptr},
    {F::CreateJvmErr, L, "031", "", nullptr},
    {F::CreateJvmDetached, L, "032", "", nullptr},
    {F::CreateJvmVersion, L, "033", "", nullptr},
    {F::CreateJvmNoMemory, L, "034", "", nullptr},
    {F::CreateJvmExists, L, "035", "", nullptr},
    {F::CreateJvmInvalid, L, "036", "", nullptr},
    {F::JvmAbandonedStart, L, "037",
     ". The JVM gave up its start, which would have ended the process; its own message is on "
     "standard error",
     nullptr},
    {F::NoReply, L, "041", ".\nError while reading response", nullptr},
    {F::ShortCommand, L, "042", ". Message is null or shorter than its 11-byte header", nullptr},
    {F::BadResponseBuffer, L, "043", ". Response buffer is null or its length is negative",
     nullptr},
    {F::NotInitialized, L, "044",
     ". Initialize must run before the first command that needs the JVM", nullptr},
    {F::ReservedJvmOption, L, "045", ". OSTRELINK_JVM_OPTIONS may not hold ",
     ": the library sets the class path itself, and in debug mode the JDWP agent"},
    {F::UnclosedQuote, L, "046", ". OSTRELINK_JVM_OPTIONS has a quote that is not closed: ", ""},
    {F::DebugPortBusy, L, "047",
     ". Debug mode needs port 8988 on 127.0.0.1 for the debugger, and it can't be bound (",
     "); free the port or unset OSTRELINK_DEBUG_MODE"},
    {F::SeparatorInInstallationPath, L, "048",
     ". The installation path holds '" OSTRELINK_CLASS_PATH_SEPARATOR
     "', which the JVM's class path can't carry; install to a path without it: ",
     ""},
    {F::NoJvm, L, "050", ". JVM not initialized", nullptr},
    {F::AttachFailed, L, "051", ". Failed to attach thread to JVM", nullptr},
    {F::NewByteArrayFailed, L, "052", ". Failed to create byte array", nullptr},
    {F::JavaExceptionAfterNewByteArray, L, "053", javaException, nullptr},
    {F::JavaExceptionAfterSetRegion, L, "054", javaException, nullptr},
    {F::JavaExceptionFromCall, L, "055", javaException, nullptr},
    {F::NullReply, L, "056", ". Null response from JVM", nullptr},
    {F::ArrayElementsFailed, L, "057", ". Failed to get byte array elements", nullptr},
    {F::JavaExceptionAfterArrayElements, L, "058", javaException, nullptr},
    {F::JavaExceptionAfterArrayLength, L, "059", javaException, nullptr},
    {F::JavaExceptionFromRuntimeInfo, L, "061", javaException, nullptr},
    {F::UtfCharsFailed, L, "062", ". Failed to get UTF chars", nullptr},
    {F::JavaExceptionAfterUtfChars, L, "063", javaException, nullptr},
    {F::JavaExceptionAfterReleaseUtfChars, L, "064", javaException, nullptr},
    {F::JvmLostToFork, L, "065",
     ". The JVM does not survive fork: this process is a child forked after the JVM started, and "
     "its JVM can't run Java. Send Java commands from the parent, or start the child with exec "
     "(or fork before the first Java command)",
     nullptr},
    // The detail is "<variable> holds <option>".
    {F::ReservedOptionInJvmVariable, L, "067", ". ",
     ", which the JVM reads too: the library sets the class path itself, and in debug mode the "
     "JDWP agent, which the JVM can't load twice"},
    // The detail of 001 is the path, ". \nError: " and the reason.
    {F::CannotLoadLibrary, N, "001", ". \nCannot load: ", ""},
    {F::NoOwnPath, N, "002", ". \nError: ", ""},
    {F::NoCreateTransportChannel, N, "011", reinstall, nullptr},
    {F::NullTransportChannel, N, "012", reinstall, nullptr},
    {F::NoNetworkChannel, N, "013", reinstall, nullptr},
    {F::NoCreateReceiverInCalled, N, "014", reinstall, nullptr},
    {F::NullReceiverInCalled, N, "015", reinstall, nullptr},
    {F::NoCreateTransmitter, N, "016", reinstall, nullptr},
    {F::NoCreateReceiverInCalling, N, "017", reinstall, nullptr},
    {F::NullReceiverInCalling, N, "018", reinstall, nullptr},
    // The detail is "receiver of runtime <Name>" or "transmitter of runtime <Name>".
    {F::NoChannelObject, N, "019", ". \nNo ", " is set up on the in-memory channel"},
    {F::UnknownConnectionType, N, "023", ".", nullptr},
    {F::NullTransmitter, N, "027", reinstall, nullptr},
    {F::DeployLoopsBack, N, "028", ". \nDeployRuntime loops back to the transmitter that sent it",
     nullptr},
    {F::NoChannelSelected, N, "029",
     ". \nNo transport channel selected: send a command before reading its response", nullptr},
    {F::ReceiverWithoutMode, N, "031", ". \nRuntime not initialized", nullptr},
    {F::ReceiverModeNotSet, N, "032", ". \nRuntime not initialized", nullptr},
    {F::EmptyResponseBuffer, N, "033",
     ". \nResponse buffer is null or empty: its first byte names the runtime to read from",
     nullptr},
    {F::ShortMessage, N, "034", ". \nMessage is null or shorter than its 11-byte header", nullptr},
    {F::ForeignThrowable, N, "035",
     ". \nA library on the way of this call threw an exception that is not a std::exception",
     nullptr},
};

// The table is indexed by the enumerator.
constexpr bool inEnumOrder() {
    for (std::size_t i = 0; i < std::size(entries); ++i) {
        if (entries[i].failure != static_cast<Failure>(i)) {
            return false;
        }
    }
    return entries[std::size(entries) - 1].failure == Failure::ForeignThrowable;
}
static_assert(inEnumOrder(), "entries must follow the order of enum Failure, one each");

}  // namespace

const Entry* catalogue(std::size_t& count) {
    count = std::size(entries);
    return entries;
}

std::string text(Failure failure, const std::string& detail) {
    const Entry& entry = entries[static_cast<std::size_t>(failure)];
    std::string result = entry.form == Form::Launcher
                             ? "JVM Launcher: Exception code "
                             : "Ostrelink Native Exception: Exception code ";
    result += entry.number;
    result += entry.head;
    result += detail;
    if (entry.tail != nullptr) {
        result += entry.tail;
    }
    return result;
}

void raise(Failure failure, const std::string& detail) {
    throw OstrelinkNativeException(text(failure, detail), "Unknown");
}

}  // namespace Ostrelink::Native::Failures
