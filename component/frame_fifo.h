// Frame FIFOs: each is a ring of bytes in the caller's storage and a table of the frames in it.
//
// Producer: QVR_FIFO_GetOneFifo5, QVR_FIFO_WriteFifo5, QVR_FIFO_Push.
// Consumer: QVR_FIFO_GetOneFrame, use the data in place, QVR_FIFO_PopFrame.
//
// The writer threads of the recorder consume the audio and the video FIFO; docs/frame-fifos.md
// shows a recording made through them.
//
// in: fifo: below QVR_FIFO_COUNT; any other index names a FIFO that stays empty and takes nothing
// thread: one producer and one consumer per FIFO; they need no lock
#ifndef COMPONENT_FRAME_FIFO_H
#define COMPONENT_FRAME_FIFO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QVR_FIFO_API __attribute__((visibility("default")))

#define QVR_FIFO_COUNT 4
#define QVR_FIFO_AUDIO 0u
#define QVR_FIFO_VIDEO 1u
#define QVR_FIFO_FRAMES 1024         // the most frames in one FIFO
#define QVR_FIFO_DEFAULT_BYTES 32768 // room for a frame of unknown length

// Empties a FIFO, gives it storage and fills that with zeros.
// in: storage: size bytes, more than twice the largest frame, because a frame is in one piece; may
//     be null: the FIFO then takes no frame
// owns: the storage stays the caller's and must outlive the use of the FIFO
// thread: any, while neither producer nor consumer uses the FIFO
QVR_FIFO_API void QVR_FIFO_InitBuffer(uint32_t fifo, uint32_t size, void *storage);

// returns: the number of frames pushed and not yet popped
// thread: any
QVR_FIFO_API int32_t QVR_FIFO_GetLength(uint32_t fifo);

// Reserves room for the next frame.
// in: length: bytes
// in: time: passed to the consumer unchanged (ms for the writer threads)
// returns: 1, or 0 when there is no room. Nothing can then be written or pushed until a frame is
//          popped or, in a FIFO without frames, a frame that fits is reserved.
QVR_FIFO_API int32_t QVR_FIFO_GetOneFifo(uint32_t fifo, int32_t length, int64_t time);

// As above, with an extra word, which the writer threads use as the frame's flags. A length of 0 or
// less reserves QVR_FIFO_DEFAULT_BYTES.
QVR_FIFO_API int32_t QVR_FIFO_GetOneFifo5(uint32_t fifo, int32_t length, int64_t time,
                                          uint32_t extra);

// Appends bytes to the frame last reserved.
// returns: length, or 0, with nothing copied, when the FIFO is full or the storage ends too early
QVR_FIFO_API int32_t QVR_FIFO_WriteFifo(uint32_t fifo, const void *source, int32_t length);

// As above, but wraps at the end of the storage.
// returns: the bytes of the last piece copied, which are 0 when the data ends where the storage
//          does; 0, with nothing copied, when the FIFO is full or the storage is shorter
QVR_FIFO_API int32_t QVR_FIFO_WriteFifo5(uint32_t fifo, const void *source, int32_t length);

// Passes the frame last reserved to the consumer, in its full reserved length.
// returns: 1, or 0 when the FIFO is full
QVR_FIFO_API int32_t QVR_FIFO_Push(uint32_t fifo);

// Finds the oldest frame, which stays in place until it is popped.
// out: *length (bytes), *time, *extra: as reserved; *extra is an older frame's after
//      QVR_FIFO_GetOneFifo. Without a frame *length is 0 and the others are unchanged.
// returns: its data, or null when there is no frame
QVR_FIFO_API uint8_t *QVR_FIFO_GetOneFrame(uint32_t fifo, uint32_t *length, int64_t *time,
                                           uint32_t *extra);

// Releases the oldest frame and its room.
// returns: 1, or 0 when there is no frame
QVR_FIFO_API int32_t QVR_FIFO_PopFrame(uint32_t fifo);

#ifdef __cplusplus
}
#endif

#endif // COMPONENT_FRAME_FIFO_H
