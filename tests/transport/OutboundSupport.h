#pragma once

#include <functional>
#include <string>

#include <ostrelink/ITransmitter.h>
#include <ostrelink/RuntimeOperationMode.h>

#include "common/HostLibrary.h"
#include "common/Calls.h"

// Full path of a file in the native directory of one of the test installations.
std::string installedFile(const std::string& installation, const std::string& file);

// This library from the staged tree, or from a test installation, opened by full path.
HostLibrary& stagedRuntime();
HostLibrary& installedRuntime(const std::string& installation);

Ostrelink::Native::Interfaces::ITransmitter* createTransmitter(
    HostLibrary& library, Ostrelink::Native::Definitions::RuntimeOperationMode mode);

// A message routed by its header: connectionType, address and port.
Bytes routedMessage(unsigned char targetRuntime, unsigned char callingRuntime,
                    unsigned char connectionType, const std::string& payloadText = {},
                    const unsigned char (&address)[4] = {0, 0, 0, 0}, unsigned short port = 0);

// SendCommand, then ReadResponse on this thread with buffer[0] = readFrom.
Bytes sendAndRead(Ostrelink::Native::Interfaces::ITransmitter* transmitter, Bytes message,
                  unsigned char readFrom);


