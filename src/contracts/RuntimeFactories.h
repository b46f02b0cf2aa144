#pragma once

#include <string>

#include "IReceiver.h"
#include "ITransmitter.h"
#include "ITransport.h"
#include "RuntimeOperationMode.h"

// Signatures of the plain-named exports that runtime libraries and client libraries offer to each
// other. Resolve them with dlsym; nothing is linked by name.
namespace Ostrelink::Native::Interfaces {

using CreateReceiverFn = IReceiver* (*)(Definitions::RuntimeOperationMode mode);
using GetReceiverFn = IReceiver* (*)();
using CreateTransmitterFn = ITransmitter* (*)(Definitions::RuntimeOperationMode mode);
using GetTransmitterFn = ITransmitter* (*)();
// Exported by the TCP and TLS client libraries. The caller owns the result.
using CreateTransportChannelFn = ITransport* (*)(std::string host, unsigned short port);

}  // namespace Ostrelink::Native::Interfaces
