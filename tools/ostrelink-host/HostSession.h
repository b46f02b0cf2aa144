#pragma once

#include <ostream>
#include <string>
#include <vector>

#include <ostrelink/IReceiver.h>

#include "HostCommandLine.h"

// Runs the steps of a command line against an initialised receiver, one message each, and
// prints each result as one line "<command>: <result>". A failure leaves as an exception: the
// library's own OstrelinkNativeException, or std::runtime_error with the Java exception as
// "class: message" when the JVM answers with an exception reply.
class HostSession {
public:
    explicit HostSession(Ostrelink::Native::Interfaces::IReceiver* receiver)
        : m_receiver(receiver) {}

    // Initialize with Cpp as the calling runtime and the JVM as the called one.
    static void initialize(Ostrelink::Native::Interfaces::IReceiver* receiver);

    void run(const HostStep& step, std::ostream& out);

    // The roads of the steps, for the doctor; each throws as run does.
    void checkHealth();
    // Sends text to Java and returns it once it came back unchanged.
    std::string echo(const std::string& text);
    // The JVM's version, vendor, home and class path, one "name: value" line each.
    std::string javaRuntimeInfo();

private:
    using Bytes = std::vector<unsigned char>;

    Bytes exchange(Bytes message);
    // A request of the receiver protocol; the payload text of the JVM's reply.
    std::string askJava(unsigned char operation, const std::string& payloadText);

    Ostrelink::Native::Interfaces::IReceiver* m_receiver;
};
