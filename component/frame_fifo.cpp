#include "component/frame_fifo.h"

#include "component/shared_fields.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <optional>

enum fifo_state_t : uint8_t { // 0: never initialised
    kFifoEmpty = 1,
    kFifoFull = 2, // no entry is left, or no room was left for a frame
    kFifoNeither = 3
};

typedef struct frame_entry_t {
    uint32_t uiOffset; // from the start of the storage
    uint32_t uiLength; // bytes
    int64_t llTime;
    uint32_t uiExtra;
} frame_entry_t;

// Producer and consumer both decide on the state from both indexes: the four change as one.
// docs/models/frame_fifo.pml is the model of what they do with it.
typedef struct alignas(8) fifo_position_t {
    uint16_t usRead;  // oldest committed entry
    uint16_t usWrite; // entry being filled, the next to commit
    uint16_t usCapacity;
    fifo_state_t ucState;
    uint8_t ucReserved; // 0
} fifo_position_t;
static_assert(sizeof(fifo_position_t) == 8);
static_assert(kIsShareable<fifo_position_t>, "build for a machine with atomic 64-bit words");

typedef struct frame_fifo_t {
    frame_entry_t astEntry[QVR_FIFO_FRAMES];
    uint8_t *pucData;
    uint32_t uiDataSize;
    uint32_t uiDataRead;        // atomic: behind the data of the last frame released
    uint32_t uiDataWrite;       // the producer's: where the next data goes, at most uiDataSize
    fifo_position_t stPosition; // atomic
    uint8_t bIsRefusing;        // the producer's: its last frame did not fit the empty FIFO
} frame_fifo_t;
static_assert(sizeof(void *) != 4 || offsetof(frame_fifo_t, stPosition) ==
                                         sizeof(frame_fifo_t::astEntry) + 4 * sizeof(uint32_t));

static frame_fifo_t fifos[QVR_FIFO_COUNT + 1]; // the last one is never initialised

static frame_fifo_t *get_fifo(uint32_t fifo)
{
    return &fifos[std::min<uint32_t>(fifo, QVR_FIFO_COUNT)];
}

static fifo_position_t load_position(frame_fifo_t *pFifo)
{
    return load_shared(pFifo->stPosition);
}

// returns false, and changes nothing, when the other side was faster.
static bool change_position(frame_fifo_t *pFifo, fifo_position_t from, fifo_position_t to)
{
    return swap_shared(pFifo->stPosition, from, to);
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
    frame_fifo_t *const pFifo = get_fifo(fifo);
    *pFifo = {};
    if (storage != nullptr) {
        memset(storage, 0, size);
        pFifo->pucData = static_cast<uint8_t *>(storage);
        pFifo->uiDataSize = size;
    }
    const fifo_position_t start = {.usCapacity = QVR_FIFO_FRAMES, .ucState = kFifoEmpty};
    store_shared(pFifo->stPosition, start);
}

int32_t QVR_FIFO_GetLength(uint32_t fifo)
{
    return count_frames(load_position(get_fifo(fifo)));
}

// The offset of a frame: behind the newest one, or at the start of the storage. One byte always
// stays free, so that the read and write offsets of a FIFO with data differ.
static std::optional<uint32_t> find_room(frame_fifo_t *pFifo, uint32_t length)
{
    const uint32_t read = load_shared(pFifo->uiDataRead);
    const uint32_t write = pFifo->uiDataWrite;
    if (read > write) {
        return read - write > length ? std::optional(write) : std::nullopt;
    }
    if (pFifo->uiDataSize - write > length) {
        return write;
    }
    return read > length ? std::optional(0u) : std::nullopt;
}

// returns the entry of a frame of this length, or null when there is no room for it.
static frame_entry_t *reserve(frame_fifo_t *pFifo, uint32_t length, int64_t time)
{
    fifo_position_t position = load_position(pFifo);
    while (can_grow(position)) {
        const std::optional<uint32_t> offset = find_room(pFifo, length);
        // No frame that is popped would end the fullness of a FIFO that holds none.
        pFifo->bIsRefusing = !offset.has_value() && count_frames(position) == 0;
        if (offset.has_value()) {
            frame_entry_t *const pEntry = &pFifo->astEntry[position.usWrite];
            pEntry->uiOffset = *offset;
            pEntry->uiLength = length;
            pEntry->llTime = time;
            pFifo->uiDataWrite = *offset;
            return pEntry;
        }
        fifo_position_t full = position;
        full.ucState = kFifoFull;
        if (pFifo->bIsRefusing != 0 || change_position(pFifo, position, full)) {
            return nullptr;
        }
        position = load_position(pFifo);
    }
    return nullptr;
}

int32_t QVR_FIFO_GetOneFifo(uint32_t fifo, int32_t length, int64_t time)
{
    // A negative length is one that no storage has room for.
    return reserve(get_fifo(fifo), static_cast<uint32_t>(length), time) != nullptr ? 1 : 0;
}

int32_t QVR_FIFO_GetOneFifo5(uint32_t fifo, int32_t length, int64_t time, uint32_t extra)
{
    const uint32_t bytes = length > 0 ? static_cast<uint32_t>(length) : QVR_FIFO_DEFAULT_BYTES;
    frame_entry_t *const pEntry = reserve(get_fifo(fifo), bytes, time);
    if (pEntry == nullptr) {
        return 0;
    }
    pEntry->uiExtra = extra;
    return 1;
}

static bool takes_data(frame_fifo_t *pFifo)
{
    return pFifo->bIsRefusing == 0 && can_grow(load_position(pFifo));
}

static void append_data(frame_fifo_t *pFifo, const uint8_t *pucSource, uint32_t length)
{
    memcpy(pFifo->pucData + pFifo->uiDataWrite, pucSource, length);
    pFifo->uiDataWrite += length;
}

int32_t QVR_FIFO_WriteFifo(uint32_t fifo, const void *source, int32_t length)
{
    frame_fifo_t *const pFifo = get_fifo(fifo);
    if (length <= 0 || !takes_data(pFifo) ||
        static_cast<uint32_t>(length) > pFifo->uiDataSize - pFifo->uiDataWrite) {
        return 0;
    }
    append_data(pFifo, static_cast<const uint8_t *>(source), static_cast<uint32_t>(length));
    return length;
}

int32_t QVR_FIFO_WriteFifo5(uint32_t fifo, const void *source, int32_t length)
{
    frame_fifo_t *const pFifo = get_fifo(fifo);
    if (length <= 0 || !takes_data(pFifo)) {
        return 0;
    }
    const uint32_t bytes = static_cast<uint32_t>(length);
    if (bytes > pFifo->uiDataSize) {
        printf("Buffer OverFlow");
        return 0;
    }
    const uint8_t *const pucSource = static_cast<const uint8_t *>(source);
    const uint32_t room = pFifo->uiDataSize - pFifo->uiDataWrite;
    if (room > bytes) {
        append_data(pFifo, pucSource, bytes);
        return length;
    }
    append_data(pFifo, pucSource, room);
    pFifo->uiDataWrite = 0;
    append_data(pFifo, pucSource + room, bytes - room);
    return static_cast<int32_t>(bytes - room);
}

// A frame that was not written whole keeps the room that it reserved: the next one is not laid over
// it, and giving it up frees what it took.
static void keep_reserved_room(frame_fifo_t *pFifo, const frame_entry_t *pEntry)
{
    const uint32_t end = pEntry->uiOffset + pEntry->uiLength;
    if (pFifo->uiDataWrite >= pEntry->uiOffset && pFifo->uiDataWrite < end) {
        pFifo->uiDataWrite = end;
    }
}

int32_t QVR_FIFO_Push(uint32_t fifo)
{
    frame_fifo_t *const pFifo = get_fifo(fifo);
    fifo_position_t position = load_position(pFifo);
    if (pFifo->bIsRefusing == 0 && can_grow(position)) {
        keep_reserved_room(pFifo, &pFifo->astEntry[position.usWrite]);
    }
    while (pFifo->bIsRefusing == 0 && can_grow(position)) {
        fifo_position_t pushed = position;
        pushed.usWrite = next_index(position, position.usWrite);
        pushed.ucState = pushed.usWrite == position.usRead ? kFifoFull : kFifoNeither;
        if (change_position(pFifo, position, pushed)) {
            return 1;
        }
        position = load_position(pFifo);
    }
    return 0;
}

uint8_t *QVR_FIFO_GetOneFrame(uint32_t fifo, uint32_t *length, int64_t *time, uint32_t *extra)
{
    frame_fifo_t *const pFifo = get_fifo(fifo);
    const fifo_position_t position = load_position(pFifo);
    if (count_frames(position) == 0) {
        *length = 0;
        return nullptr;
    }
    const frame_entry_t *const pEntry = &pFifo->astEntry[position.usRead];
    *length = pEntry->uiLength;
    *time = pEntry->llTime;
    *extra = pEntry->uiExtra;
    return pFifo->pucData + pEntry->uiOffset;
}

int32_t QVR_FIFO_PopFrame(uint32_t fifo)
{
    frame_fifo_t *const pFifo = get_fifo(fifo);
    fifo_position_t position = load_position(pFifo);
    while (count_frames(position) > 0) {
        const frame_entry_t *const pEntry = &pFifo->astEntry[position.usRead];
        // The room first: whoever sees the entry released finds its room free too.
        store_shared(pFifo->uiDataRead, pEntry->uiOffset + pEntry->uiLength);
        fifo_position_t popped = position;
        popped.usRead = next_index(position, position.usRead);
        popped.ucState = popped.usRead == position.usWrite ? kFifoEmpty : kFifoNeither;
        if (change_position(pFifo, position, popped)) {
            return 1;
        }
        position = load_position(pFifo);
    }
    return 0;
}
