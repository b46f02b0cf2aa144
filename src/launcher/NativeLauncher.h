#pragma once

#include <atomic>

#include "contracts/ILauncher.h"
#include "contracts/RuntimeOperationMode.h"

namespace Ostrelink::Native::Launcher {

// Base of every launcher: the operation mode and the receiver's "Initialize has run" mark, which
// any thread may test while another sets it.
class NativeLauncher : public Interfaces::ILauncher {
public:
    explicit NativeLauncher(Definitions::RuntimeOperationMode mode) : m_operationMode(mode) {}

    bool IsInitialized() override { return m_initialized.load(); }
    void SetInitialized() override { m_initialized.store(true); }

protected:
    const Definitions::RuntimeOperationMode m_operationMode;
    std::atomic<bool> m_initialized{false};
};

}  // namespace Ostrelink::Native::Launcher
