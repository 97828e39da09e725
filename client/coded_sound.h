// Sound that this program encodes itself, for recordings in several files: one encoder then serves
// all of them, and the files hold the frames of one long recording. The component takes the frames
// from its audio FIFO.
#ifndef CLIENT_CODED_SOUND_H
#define CLIENT_CODED_SOUND_H

#include "client/aac_stream.h"
#include "component/frame_fifo.h"
#include "component/tdmbrec_interface.h"
#include "platform/omx_il.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <pthread.h>
#include <span>
#include <vector>

struct coded_frame {
    int64_t time_ms; // in the file
    std::vector<uint8_t> bytes;
};

// Functions that the component's library exports.
struct sound_calls {
    decltype(&QVR_FIFO_InitBuffer) init;
    decltype(&QVR_FIFO_GetLength) length;
    decltype(&QVR_FIFO_GetOneFifo5) reserve;
    decltype(&QVR_FIFO_WriteFifo5) write;
    decltype(&QVR_FIFO_Push) push;
    decltype(&omx_tdmbrec_audio_thread) writer;
};

struct coded_sound {
    aac_stream encoder;
    sound_calls calls = {};
    std::vector<uint8_t> storage;    // of the FIFO
    std::deque<coded_frame> waiting; // for room in the FIFO
    pthread_t writer = {};
    bool is_written = false; // the writer thread runs
};

// Opens the encoder with the recorder's settings. For use after OMX_Init.
// in: sample_rate: Hz, one of the encoder's
// throws: `failure`
std::unique_ptr<coded_sound> coded_sound_open(int sample_rate);

// Empties the FIFO.
// thread: before a recording starts
void coded_sound_clear(coded_sound &self);

// Starts the thread that writes the frames to the recording's file.
// thread: after a recording has started
// throws: `failure`
void coded_sound_start(coded_sound &self, OMX_COMPONENTTYPE *component);

// Encodes one block of 1024 samples of both channels.
// throws: `failure`
void coded_sound_add(coded_sound &self, std::span<const int16_t> block, int64_t time_ms);

// Passes on as many frames as there is room for.
// returns: whether all of them have been written
bool coded_sound_pass(coded_sound &self);

// Waits for the writer thread to end.
// thread: after the recording has ended
void coded_sound_end(coded_sound &self);

#endif // CLIENT_CODED_SOUND_H
