#include "ReplySlots.h"

#include <cxxabi.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <utility>

// Identifies this library to the runtime's list of thread-exit cleanups, which keeps the library
// loaded while a cleanup of it is due.
extern "C" void* __dso_handle;

namespace Ostrelink::Network::Client {

struct ReplySlots::Slot {
    explicit Slot(std::uint64_t ownerId) : owner(ownerId) {}
    const std::uint64_t owner;
    // Set by the object's destructor; the thread then drops the slot from its table.
    std::atomic<bool> ownerGone{false};
    bool held = false;
    std::vector<unsigned char> reply;
};

namespace {

std::atomic<std::uint64_t> objectsMade{0};

using Table = std::vector<std::shared_ptr<ReplySlots::Slot>>;

// A plain pointer, constant-initialised: a command sent from a thread_local's destructor while the
// thread ends finds either the live table or none, never a destroyed one. Initial-exec: one load,
// and no call of __tls_get_addr, whose interception by the ThreadSanitizer of clang 14 misreads
// glibc 2.36's thread vector and fails the process ("ThreadSanitizer failed to allocate").
thread_local Table* threadTable __attribute__((tls_model("initial-exec"))) = nullptr;

void freeTable(void* table) {
    threadTable = nullptr;
    delete static_cast<Table*>(table);
}

// The cleanup is registered the way thread_local destructors are, once per table: a table made
// again by a command sent from a destructor that runs after the first one was freed is freed in
// turn, since the thread's exit runs cleanups until none is left.
Table& tableOfThisThread() {
    if (threadTable == nullptr) {
        auto table = std::make_unique<Table>();
        if (__cxxabiv1::__cxa_thread_atexit(freeTable, table.get(), &__dso_handle) != 0) {
            throw std::bad_alloc();
        }
        threadTable = table.release();
    }
    return *threadTable;
}

}  // namespace

ReplySlots::ReplySlots() : m_id(objectsMade.fetch_add(1) + 1) {}

ReplySlots::~ReplySlots() {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const std::weak_ptr<Slot>& weak : m_slots) {
        if (const std::shared_ptr<Slot> slot = weak.lock()) {
            slot->held = false;
            std::vector<unsigned char>().swap(slot->reply);
            slot->ownerGone.store(true, std::memory_order_release);
        }
    }
}

ReplySlots::Slot* ReplySlots::find() const {
    if (threadTable != nullptr) {
        for (const std::shared_ptr<Slot>& slot : *threadTable) {
            if (slot->owner == m_id) {
                return slot.get();
            }
        }
    }
    return nullptr;
}

ReplySlots::Slot& ReplySlots::findOrMake() {
    if (Slot* slot = find()) {
        return *slot;
    }
    Table& table = tableOfThisThread();
    table.erase(std::remove_if(table.begin(), table.end(),
                               [](const std::shared_ptr<Slot>& slot) {
                                   return slot->ownerGone.load(std::memory_order_acquire);
                               }),
                table.end());
    auto slot = std::make_shared<Slot>(m_id);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_slots.erase(
            std::remove_if(m_slots.begin(), m_slots.end(),
                           [](const std::weak_ptr<Slot>& weak) { return weak.expired(); }),
            m_slots.end());
        m_slots.push_back(slot);
    }
    table.push_back(std::move(slot));
    return *table.back();
}

void ReplySlots::store(std::vector<unsigned char> reply) {
    Slot& slot = findOrMake();
    slot.reply = std::move(reply);
    slot.held = true;
}

void ReplySlots::drop() {
    if (Slot* slot = find()) {
        slot->held = false;
        std::vector<unsigned char>().swap(slot->reply);
    }
}

bool ReplySlots::take(std::vector<unsigned char>& reply) {
    Slot* slot = find();
    if (slot == nullptr || !slot->held) {
        return false;
    }
    slot->held = false;
    reply = std::move(slot->reply);
    slot->reply.clear();
    return true;
}

}  // namespace Ostrelink::Network::Client
