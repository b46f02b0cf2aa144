#pragma once

#include <string>
#include <vector>

#include <ostrelink/IReceiver.h>

using Bytes = std::vector<unsigned char>;

// The library of the staged tree, opened by full path as a host opens it, and its receiver in
// Called mode, initialised for calls from the Cpp runtime (8). Throws std::runtime_error or what
// the library throws.
Ostrelink::Native::Interfaces::IReceiver* calledReceiver();

// A PlainCommand of exactly length bytes for the JVM (runtime 2): byte 11 is 0, so the Java
// receiver echoes it, and its payload is no health check.
Bytes echoMessage(int length, unsigned char targetRuntime = 2);

// SendCommand and ReadResponse on the calling thread; returns the reply length. Throws if the
// reply does not fit reply.
int roundTrip(Ostrelink::Native::Interfaces::IReceiver& receiver, Bytes& message, Bytes& reply);

// OSTRELINK_KEEP_THREADS_ATTACHED is read once per process, so the roads that keep threads
// attached run in a second process of the same program with the variable set.
bool keptMode();
// Runs this program again with the variable set and the same arguments, its standard output
// passed on; returns its exit status.
int runKeptMode(int argc, char** argv);
