#pragma once

#include <string>
#include <vector>

#include <ostrelink/CommandHeader.h>

using Bytes = std::vector<unsigned char>;

// A message: the 11-byte header, bytes 11 to 23 zero, then payloadText from offset 24.
Bytes makeMessage(unsigned char targetRuntime, unsigned char commandType,
                  const std::string& payloadText = {}, unsigned char callingRuntime = 8);

// A PlainCommand that asks for a health check.
Bytes healthCheckMessage(unsigned char targetRuntime = 2);

// The reply to a health check and to a load-library command, written out byte for byte so that
// it can't follow a wrong constant of the library.
Bytes acknowledgeBytes();

// The payload of a reply: what follows its 11-byte header.
Bytes payloadOf(const Bytes& reply);

// Sets connectionType, hostAddress and hostPort of a message.
void setRoute(Bytes& message, unsigned char connectionType, const unsigned char (&address)[4],
              unsigned short port);
