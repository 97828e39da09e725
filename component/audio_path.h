// The recording's audio: from a client's PCM buffers to AAC frames with their times.
#ifndef COMPONENT_AUDIO_PATH_H
#define COMPONENT_AUDIO_PATH_H

#include "component/frame_writer.h"
#include "component/private_record.h"

enum audio_result_t {
    kAudioConsumed,
    kAudioRetry, // the encoder cannot be initialised; the buffer is untouched
    kAudioStop   // a write ended the recording, see *result
};

// Queues the PCM of an audio buffer with time time, encodes every frame that it completes, and
// writes each with its own time.
// thread: the buffer thread, while recording
[[nodiscard]] audio_result_t handle_audio_buffer(omx_tdmbrec_component_PrivateType *self,
                                                 OMX_BUFFERHEADERTYPE *buffer, uint32_t time,
                                                 write_result_t *result);

#endif // COMPONENT_AUDIO_PATH_H
