#define ORVO_SOURCE "orvo_handle"
#include "orvo_handle.h"

#include <deque>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace orvo {

namespace {

// Handle layout: low 20 bits slot index + 1, high 12 bits the slot's
// generation. The index part is never 0, so no handle is 0.
constexpr uint32_t kIndexBits = 20;
constexpr uint32_t kIndexMask = (1u << kIndexBits) - 1;
constexpr uint32_t kMaxSlots = kIndexMask;  // index + 1 must fit the mask

struct tSlot {
    void* object = nullptr;
    eHandleKind kind = HANDLE_ANY;
    uint32_t generation = 0;
};

struct tTable {
    std::mutex lock;
    std::vector<tSlot> slots;
    std::deque<uint32_t> freeSlots;  // oldest first: delays slot reuse
    std::unordered_map<const void*, uint32_t> byObject;
};

tTable& Table()
{
    // Never destroyed: objects with static storage may release their handles
    // during process exit, after other statics are gone.
    static tTable* table = new tTable;
    return *table;
}

uint32_t MakeHandle(uint32_t index, uint32_t generation)
{
    return ((generation & 0xFFFu) << kIndexBits) | (index + 1);
}

// The slot a handle names when it is live, else null. Caller holds the lock.
tSlot* LiveSlot(tTable& t, uint32_t handle)
{
    uint32_t index = handle & kIndexMask;
    if (index == 0 || index > t.slots.size())
        return nullptr;
    tSlot& slot = t.slots[index - 1];
    if (slot.object == nullptr || MakeHandle(index - 1, slot.generation) != handle)
        return nullptr;
    return &slot;
}

}  // namespace

uint32_t HandleCreate(void* object, eHandleKind kind)
{
    ORVO_ASSERT(object != nullptr);
    tTable& t = Table();
    std::lock_guard<std::mutex> guard(t.lock);
    auto known = t.byObject.find(object);
    if (known != t.byObject.end())
        return known->second;
    uint32_t index;
    if (!t.freeSlots.empty()) {
        index = t.freeSlots.front();
        t.freeSlots.pop_front();
    } else {
        if (t.slots.size() >= kMaxSlots)
            return 0;
        index = static_cast<uint32_t>(t.slots.size());
        t.slots.emplace_back();
    }
    tSlot& slot = t.slots[index];
    slot.object = object;
    slot.kind = kind;
    uint32_t handle = MakeHandle(index, slot.generation);
    t.byObject[object] = handle;
    return handle;
}

void HandleRelease(uint32_t handle)
{
    tTable& t = Table();
    std::lock_guard<std::mutex> guard(t.lock);
    tSlot* slot = LiveSlot(t, handle);
    if (slot == nullptr)
        return;
    t.byObject.erase(slot->object);
    slot->object = nullptr;
    slot->kind = HANDLE_ANY;
    slot->generation = (slot->generation + 1) & 0xFFFu;
    t.freeSlots.push_back((handle & kIndexMask) - 1);
}

void* HandleResolve(uint32_t handle, eHandleKind kind)
{
    tTable& t = Table();
    std::lock_guard<std::mutex> guard(t.lock);
    tSlot* slot = LiveSlot(t, handle);
    if (slot == nullptr || (kind != HANDLE_ANY && slot->kind != kind))
        return nullptr;
    return slot->object;
}

uint32_t HandleOf(const void* object)
{
    if (object == nullptr)
        return 0;
    tTable& t = Table();
    std::lock_guard<std::mutex> guard(t.lock);
    auto known = t.byObject.find(object);
    return known == t.byObject.end() ? 0 : known->second;
}

unsigned HandleCount()
{
    tTable& t = Table();
    std::lock_guard<std::mutex> guard(t.lock);
    return static_cast<unsigned>(t.byObject.size());
}

bool HandleAlive(const void* object, eHandleKind kind, uint32_t handle)
{
    if (object == nullptr)
        return false;
    if (handle == 0)
        handle = HandleOf(object);
    return handle != 0 && HandleResolve(handle, kind) == object;
}

}  // namespace orvo
