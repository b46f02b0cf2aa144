#pragma once

#include <cstddef>
#include <string>

// Every numbered failure of the library: its form, its number and its fixed text, in one table
// (Failures.cpp) that docs/errors.md is checked against. A text is built only when its failure
// happens; on the way there a failure is just its enumerator.
namespace Ostrelink::Native::Failures {

enum class Form { Launcher, Native };

enum class Failure {
    // The launcher's form: raised through JvmLauncher::HandleException, which adds the
    // runtime info.
    NoJvmSource,
    NoJvmLibrary,
    NoInvocationFunctions,
    LibraryFileNotFound,
    NoEnvironmentAfterStart,
    NoEnvironmentForReceiverClass,
    NoReceiverClass,
    NoSendCommandMethod,
    NoHeartBeatMethod,
    NoGetRuntimeInfoMethod,
    CreateJvmErr,
    CreateJvmDetached,
    CreateJvmVersion,
    CreateJvmNoMemory,
    CreateJvmExists,
    CreateJvmInvalid,
    JvmAbandonedStart,
    NoReply,
    ShortCommand,
    BadResponseBuffer,
    NotInitialized,
    ReservedJvmOption,
    UnclosedQuote,
    DebugPortBusy,
    SeparatorInInstallationPath,
    NoJvm,
    AttachFailed,
    NewByteArrayFailed,
    JavaExceptionAfterNewByteArray,
    JavaExceptionAfterSetRegion,
    JavaExceptionFromCall,
    NullReply,
    ArrayElementsFailed,
    JavaExceptionAfterArrayElements,
    JavaExceptionAfterArrayLength,
    JavaExceptionFromRuntimeInfo,
    UtfCharsFailed,
    JavaExceptionAfterUtfChars,
    JavaExceptionAfterReleaseUtfChars,
    JvmLostToFork,
    ReservedOptionInJvmVariable,
    // The native form: a plain throw of OstrelinkNativeException.
    CannotLoadLibrary,
    NoOwnPath,
    NoCreateTransportChannel,
    NullTransportChannel,
    NoNetworkChannel,
    NoCreateReceiverInCalled,
    NullReceiverInCalled,
    NoCreateTransmitter,
    NoCreateReceiverInCalling,
    NullReceiverInCalling,
    NoChannelObject,
    UnknownConnectionType,
    NullTransmitter,
    DeployLoopsBack,
    NoChannelSelected,
    ReceiverWithoutMode,
    ReceiverModeNotSet,
    EmptyResponseBuffer,
    ShortMessage,
    ForeignThrowable,
};

struct Entry {
    Failure failure;
    Form form;
    const char* number;
    // The text behind the number. A failure with a variable part has it between head and tail;
    // tail is null for one without (only 031 to 037 append a note: the options, the JVM's message).
    const char* head;
    const char* tail;
};

// The catalogue, for the check against docs/errors.md.
const Entry* catalogue(std::size_t& count);

// "JVM Launcher: Exception code 004. \nCannot find file: " + detail + "\n"
std::string text(Failure failure, const std::string& detail = std::string());

// Throws OstrelinkNativeException with the failure's text (constructing it reports it).
[[noreturn]] void raise(Failure failure, const std::string& detail = std::string());

}  // namespace Ostrelink::Native::Failures
