#include "component/frame_fifo.h"

#include "component/shared_fields.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <optional>

namespace {

enum fifo_state_t : uint8_t { // 0: never initialised
    kFifoEmpty = 1,
    kFifoFull = 2, // all entries are in use, or a frame found no room
    kFifoNeither = 3
};

struct frame_entry_t {
    uint32_t uiOffset; // from the start of the storage
    uint32_t uiLength; // bytes
    int64_t llTime;
    uint32_t uiExtra;
};

// Producer and consumer both derive the state from both indexes: all change in one atomic step.
// docs/models/frame_fifo.pml models it.
struct alignas(8) fifo_position_t {
    uint16_t usRead;  // oldest committed entry
    uint16_t usWrite; // entry being filled, the next to commit
    uint16_t usCapacity;
    fifo_state_t ucState;
    uint8_t ucReserved; // 0
};
static_assert(sizeof(fifo_position_t) == 8);
static_assert(kIsShareable<fifo_position_t>, "build for a machine with atomic 64-bit words");

struct frame_fifo_t {
    frame_entry_t astEntry[QVR_FIFO_FRAMES];
    uint8_t *pucData;
    uint32_t uiDataSize;
    uint32_t uiDataRead;        // atomic: end of the data of the last frame released
    uint32_t uiDataWrite;       // the producer's: where the next data goes, at most uiDataSize
    fifo_position_t stPosition; // atomic
    uint8_t bIsRefusing;        // the producer's: its last frame did not fit the empty FIFO
};
static_assert(sizeof(void *) != 4 || offsetof(frame_fifo_t, stPosition) ==
                                         sizeof(frame_fifo_t::astEntry) + 4 * sizeof(uint32_t));

} // namespace

static frame_fifo_t fifos[QVR_FIFO_COUNT + 1]; // the last one is never initialised

static frame_fifo_t *get_fifo(uint32_t fifo)
{
    return &fifos[std::min<uint32_t>(fifo, QVR_FIFO_COUNT)];
}

static fifo_position_t load_position(frame_fifo_t *self)
{
    return load_shared(self->stPosition);
}

// returns: false, with nothing changed, when the other thread was faster
static bool change_position(frame_fifo_t *self, fifo_position_t from, fifo_position_t to)
{
    return swap_shared(self->stPosition, from, to);
}

static int32_t count_frames(fifo_position_t position)
{
    if (position.ucState != kFifoFull && position.ucState != kFifoNeither) {
        return 0;
    }
    const int32_t distance = position.usWrite - position.usRead;
    return distance > 0 ? distance : position.usCapacity + distance;
}

static bool can_grow(fifo_position_t position)
{
    return position.ucState == kFifoEmpty || position.ucState == kFifoNeither;
}

static uint16_t next_index(fifo_position_t position, uint16_t index)
{
    return static_cast<uint16_t>(index + 1 >= position.usCapacity ? 0 : index + 1);
}

void QVR_FIFO_InitBuffer(uint32_t fifo, uint32_t size, void *storage)
{
    if (fifo >= QVR_FIFO_COUNT) {
        return;
    }
    frame_fifo_t *const self = get_fifo(fifo);
    *self = {};
    if (storage != nullptr) {
        memset(storage, 0, size);
        self->pucData = static_cast<uint8_t *>(storage);
        self->uiDataSize = size;
    }
    const fifo_position_t start = {.usCapacity = QVR_FIFO_FRAMES, .ucState = kFifoEmpty};
    store_shared(self->stPosition, start);
}

int32_t QVR_FIFO_GetLength(uint32_t fifo)
{
    return count_frames(load_position(get_fifo(fifo)));
}

// One byte always stays free, so that the read and write offsets of a FIFO with data differ.
// returns: the offset of a new frame: after the newest one, or at the start of the storage
static std::optional<uint32_t> find_room(frame_fifo_t *self, uint32_t length)
{
    const uint32_t read = load_shared(self->uiDataRead);
    const uint32_t write = self->uiDataWrite;
    if (read > write) {
        return read - write > length ? std::optional(write) : std::nullopt;
    }
    if (self->uiDataSize - write > length) {
        return write;
    }
    return read > length ? std::optional(0u) : std::nullopt;
}

// returns: the entry of a frame of this length, or null when there is no room for it
static frame_entry_t *reserve(frame_fifo_t *self, uint32_t length, int64_t time)
{
    fifo_position_t position = load_position(self);
    while (can_grow(position)) {
        const std::optional<uint32_t> offset = find_room(self, length);
        // Only a pop ends the state full, and a FIFO without frames has nothing to pop.
        self->bIsRefusing = !offset.has_value() && count_frames(position) == 0 ? 1 : 0;
        if (offset.has_value()) {
            frame_entry_t *const entry = &self->astEntry[position.usWrite];
            entry->uiOffset = *offset;
            entry->uiLength = length;
            entry->llTime = time;
            self->uiDataWrite = *offset;
            return entry;
        }
        fifo_position_t full = position;
        full.ucState = kFifoFull;
        if (self->bIsRefusing != 0 || change_position(self, position, full)) {
            return nullptr;
        }
        position = load_position(self);
    }
    return nullptr;
}

int32_t QVR_FIFO_GetOneFifo(uint32_t fifo, int32_t length, int64_t time)
{
    // As unsigned, a negative length exceeds every storage.
    return reserve(get_fifo(fifo), static_cast<uint32_t>(length), time) != nullptr ? 1 : 0;
}

int32_t QVR_FIFO_GetOneFifo5(uint32_t fifo, int32_t length, int64_t time, uint32_t extra)
{
    const uint32_t bytes = length > 0 ? static_cast<uint32_t>(length) : QVR_FIFO_DEFAULT_BYTES;
    frame_entry_t *const entry = reserve(get_fifo(fifo), bytes, time);
    if (entry == nullptr) {
        return 0;
    }
    entry->uiExtra = extra;
    return 1;
}

static bool takes_data(frame_fifo_t *self)
{
    return self->bIsRefusing == 0 && can_grow(load_position(self));
}

static void append_data(frame_fifo_t *self, const uint8_t *source_bytes, uint32_t length)
{
    memcpy(self->pucData + self->uiDataWrite, source_bytes, length);
    self->uiDataWrite += length;
}

int32_t QVR_FIFO_WriteFifo(uint32_t fifo, const void *source, int32_t length)
{
    frame_fifo_t *const self = get_fifo(fifo);
    if (length <= 0 || !takes_data(self) ||
        static_cast<uint32_t>(length) > self->uiDataSize - self->uiDataWrite) {
        return 0;
    }
    append_data(self, static_cast<const uint8_t *>(source), static_cast<uint32_t>(length));
    return length;
}

int32_t QVR_FIFO_WriteFifo5(uint32_t fifo, const void *source, int32_t length)
{
    frame_fifo_t *const self = get_fifo(fifo);
    if (length <= 0 || !takes_data(self)) {
        return 0;
    }
    const uint32_t bytes = static_cast<uint32_t>(length);
    if (bytes > self->uiDataSize) {
        printf("Buffer OverFlow");
        return 0;
    }
    const uint8_t *const source_bytes = static_cast<const uint8_t *>(source);
    const uint32_t room = self->uiDataSize - self->uiDataWrite;
    if (room > bytes) {
        append_data(self, source_bytes, bytes);
        return length;
    }
    append_data(self, source_bytes, room);
    self->uiDataWrite = 0;
    append_data(self, source_bytes + room, bytes - room);
    return static_cast<int32_t>(bytes - room);
}

// A frame that was only partly written keeps its reserved room: the next one does not overlap it,
// and its release frees all of it.
static void keep_reserved_room(frame_fifo_t *self, const frame_entry_t *entry)
{
    const uint32_t end = entry->uiOffset + entry->uiLength;
    if (self->uiDataWrite >= entry->uiOffset && self->uiDataWrite < end) {
        self->uiDataWrite = end;
    }
}

int32_t QVR_FIFO_Push(uint32_t fifo)
{
    frame_fifo_t *const self = get_fifo(fifo);
    fifo_position_t position = load_position(self);
    if (self->bIsRefusing == 0 && can_grow(position)) {
        keep_reserved_room(self, &self->astEntry[position.usWrite]);
    }
    while (self->bIsRefusing == 0 && can_grow(position)) {
        fifo_position_t pushed = position;
        pushed.usWrite = next_index(position, position.usWrite);
        pushed.ucState = pushed.usWrite == position.usRead ? kFifoFull : kFifoNeither;
        if (change_position(self, position, pushed)) {
            return 1;
        }
        position = load_position(self);
    }
    return 0;
}

uint8_t *QVR_FIFO_GetOneFrame(uint32_t fifo, uint32_t *length, int64_t *time, uint32_t *extra)
{
    frame_fifo_t *const self = get_fifo(fifo);
    const fifo_position_t position = load_position(self);
    if (count_frames(position) == 0) {
        *length = 0;
        return nullptr;
    }
    const frame_entry_t *const entry = &self->astEntry[position.usRead];
    *length = entry->uiLength;
    *time = entry->llTime;
    *extra = entry->uiExtra;
    return self->pucData + entry->uiOffset;
}

int32_t QVR_FIFO_PopFrame(uint32_t fifo)
{
    frame_fifo_t *const self = get_fifo(fifo);
    fifo_position_t position = load_position(self);
    while (count_frames(position) > 0) {
        const frame_entry_t *const entry = &self->astEntry[position.usRead];
        // The room first: a producer that finds the entry free also finds its room free.
        store_shared(self->uiDataRead, entry->uiOffset + entry->uiLength);
        fifo_position_t popped = position;
        popped.usRead = next_index(position, position.usRead);
        popped.ucState = popped.usRead == position.usWrite ? kFifoEmpty : kFifoNeither;
        if (change_position(self, position, popped)) {
            return 1;
        }
        position = load_position(self);
    }
    return 0;
}
