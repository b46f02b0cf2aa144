#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace Ostrelink::Network::Client {

// The replies of one client object: one slot per calling thread, holding that thread's unread
// reply. A thread reaches its slots through a table of its own, so no reply can reach another
// thread, also not one that inherits an ended thread's id, and the way of a command takes no
// lock. The table goes when its thread ends; what live threads still hold for an object goes
// when the object does. Either may end first.
class ReplySlots {
public:
    struct Slot;

    ReplySlots();
    ~ReplySlots();
    ReplySlots(const ReplySlots&) = delete;
    ReplySlots& operator=(const ReplySlots&) = delete;

    // Replaces the calling thread's reply.
    void store(std::vector<unsigned char> reply);
    // Forgets the calling thread's reply, if it has one.
    void drop();
    // Moves the calling thread's reply into reply and forgets it; false if it has none.
    bool take(std::vector<unsigned char>& reply);

private:
    Slot* find() const;
    Slot& findOrMake();

    // Never reused, so a slot can't be taken for one of an object destroyed before.
    const std::uint64_t m_id;
    // Guards m_slots: a thread adding its slot, the destructor emptying them all.
    std::mutex m_mutex;
    std::vector<std::weak_ptr<Slot>> m_slots;
};

}  // namespace Ostrelink::Network::Client
