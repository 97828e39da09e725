// The recording's audio: from a client's PCM buffers to AAC frames with their times.
#ifndef COMPONENT_AUDIO_PATH_H
#define COMPONENT_AUDIO_PATH_H

#include "component/frame_writer.h"
#include "component/private_record.h"

// Queues the PCM of an audio buffer, encodes every frame that it completes, and writes each with
// its own time. Consumes the buffer, unless the encoder cannot be opened: it is then to be offered
// again.
// returns: the result of the last write
// thread: the buffer thread, while recording
[[nodiscard]] write_result_t handle_audio_buffer(omx_tdmbrec_component_PrivateType *self,
                                                 OMX_BUFFERHEADERTYPE *buffer, uint32_t time_ms);

// Discards the queued times and the frame geometry of a recording.
// thread: the end of a recording
void reset_audio_path(omx_tdmbrec_component_PrivateType *self);

#endif // COMPONENT_AUDIO_PATH_H
