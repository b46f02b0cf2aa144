#pragma once

#include <string>

#include <ostrelink/ITransmitter.h>
#include <ostrelink/RuntimeOperationMode.h>

#include "common/Calls.h"
#include "common/HostLibrary.h"

// Copies of the staged tree with one sibling swapped, by name: "recording" (both network clients
// record, fuzz/RecordingClient.cpp), "ClientWithoutFactory" and "ClientNullFactory" (without
// the TLS client), "CppWithoutTransmitter", "CppWithoutReceiver", "CppNullFactories",
// "CppNullTransmitter" (tests/transport/variants/). One copy per process, made on first use.
std::string installedFile(const std::string& installation, const std::string& file);

// This library of the staged tree, or of one of those copies ("" for the staged tree).
Ostrelink::Native::Interfaces::ITransmitter* transmitterOf(const std::string& installation = "");

// A message routed by its header: connectionType, address and port.
Bytes routedMessage(unsigned char targetRuntime, unsigned char callingRuntime,
                    unsigned char connectionType, const std::string& payloadText = {},
                    const unsigned char (&address)[4] = {0, 0, 0, 0}, unsigned short port = 0);
