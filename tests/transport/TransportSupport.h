#pragma once

#include <functional>
#include <string>
#include <utility>

#include <ostrelink/ITransmitter.h>
#include <ostrelink/RuntimeOperationMode.h>

#include "common/Calls.h"
#include "common/HostLibrary.h"

constexpr unsigned char jvm = 2;
constexpr unsigned char cpp = 8;
constexpr unsigned char local[4] = {127, 0, 0, 1};

// Copies of the staged tree with one sibling swapped, by name: "recording" (both network clients
// record, fuzz/RecordingClient.cpp), "ClientWithoutFactory" and "ClientNullFactory" (without
// the TLS client), or a Cpp runtime "CppWithoutReceiver", "CppNullFactories",
// "CppWithoutTransmitter", "CppNullTransmitter" (variants/). One copy per process and name.
std::string installedFile(const std::string& installation, const std::string& file);

// This library of the staged tree, or of one of those copies ("" for the staged tree).
Ostrelink::Native::Interfaces::ITransmitter* transmitterOf(const std::string& installation = "");

// A message routed by its header: connectionType, address and port.
Bytes routedMessage(unsigned char targetRuntime, unsigned char callingRuntime,
                    unsigned char connectionType, const std::string& payloadText = {},
                    const unsigned char (&address)[4] = {0, 0, 0, 0}, unsigned short port = 0);

// Threads send at once, 300 rounds each; exchange(thread, payload) gives a message and the reply
// expected to it. The count of replies that were wrong or failed.
int wrongReplies(Ostrelink::Native::Interfaces::ITransmitter* sender, int threads,
                 unsigned char readFrom,
                 const std::function<std::pair<Bytes, Bytes>(int, const std::string&)>& exchange);
