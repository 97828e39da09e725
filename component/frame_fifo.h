// Frame FIFOs: queues of frames between one thread that makes them and one that writes them. Each
// is a ring of bytes in the caller's storage and a table of the frames in it.
//
// Producer: QVR_FIFO_GetOneFifo5, QVR_FIFO_WriteFifo5, QVR_FIFO_Push.
// Consumer: QVR_FIFO_GetOneFrame, use the data in place, QVR_FIFO_PopFrame.
//
// The writer threads of the recorder consume the audio and the video FIFO; docs/frame-fifos.md
// shows a recording that runs through them.
//
// thread: one producer and one consumer per FIFO; they need no lock. Any other index than those of
// the FIFOs reaches one that stays empty and takes nothing.
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
#define QVR_FIFO_FRAMES 1024         // frames that one FIFO can hold
#define QVR_FIFO_DEFAULT_BYTES 32768 // room for a frame of unknown length

// Empties a FIFO and gives it storage, which is filled with zeros.
// in       storage: size bytes; more than twice the largest frame, because a frame is in one
//          piece. A FIFO without storage takes no frame.
// owns     the storage stays the caller's and must outlive the use of the FIFO
// thread   while neither producer nor consumer is in the FIFO
QVR_FIFO_API void QVR_FIFO_InitBuffer(uint32_t fifo, uint32_t size, void *storage);

// returns the number of frames pushed and not yet popped. thread: any.
QVR_FIFO_API int32_t QVR_FIFO_GetLength(uint32_t fifo);

// Reserves the room of the next frame.
// in       length: bytes; time: handed to the consumer unchanged
// returns  1, or 0 when there is no room: the FIFO then counts as full, and nothing can be written
//          or pushed, until a frame is popped or, in a FIFO without frames, one that fits is
//          reserved
QVR_FIFO_API int32_t QVR_FIFO_GetOneFifo(uint32_t fifo, int32_t length, int64_t time);

// The same for a frame with an extra word (the writer threads take it as the frame's flags); a
// length of 0 or less reserves QVR_FIFO_DEFAULT_BYTES.
QVR_FIFO_API int32_t QVR_FIFO_GetOneFifo5(uint32_t fifo, int32_t length, int64_t time,
                                          uint32_t extra);

// Copies length bytes to where the next data goes. returns them; 0, with nothing copied, when the
// FIFO is full or the bytes would leave the storage.
QVR_FIFO_API int32_t QVR_FIFO_WriteFifo(uint32_t fifo, const void *source, int32_t length);

// The same; what reaches the end of the storage continues at its start. returns the bytes of the
// last piece copied, which are 0 when the data ends where the storage does; 0, with nothing copied,
// when the FIFO is full or the storage is shorter.
QVR_FIFO_API int32_t QVR_FIFO_WriteFifo5(uint32_t fifo, const void *source, int32_t length);

// Hands the frame last reserved to the consumer, with all the room that it reserved. returns 1, or
// 0 when the FIFO is full.
QVR_FIFO_API int32_t QVR_FIFO_Push(uint32_t fifo);

// The oldest frame, which stays where it is until it is popped.
// out      *length (bytes), *time, *extra: as reserved; the extra word of QVR_FIFO_GetOneFifo is
//          an older frame's. Without a frame *length is 0 and the others stay
// returns  its data, or null when there is no frame
QVR_FIFO_API uint8_t *QVR_FIFO_GetOneFrame(uint32_t fifo, uint32_t *length, int64_t *time,
                                           uint32_t *extra);

// Gives the oldest frame and its room up. returns 1, or 0 when there is no frame.
QVR_FIFO_API int32_t QVR_FIFO_PopFrame(uint32_t fifo);

#ifdef __cplusplus
}
#endif

#endif // COMPONENT_FRAME_FIFO_H
