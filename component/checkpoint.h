// Checkpoints of a recording: in steady intervals its cached bytes go to the file, a group of
// records to its journal, and a thread waits until both are on the device. With them, a recording
// that is cut off can be brought back. They exist only where TDMBREC_CHECKPOINT_PROPERTY asks for
// them, and change no byte of the finished file.
#ifndef COMPONENT_CHECKPOINT_H
#define COMPONENT_CHECKPOINT_H

#include "component/private_record.h"

// Begins the checkpoints of a session that has just been opened.
// thread: the buffer thread; under lockTDMBRecording
void begin_checkpoints(omx_tdmbrec_component_PrivateType *self);

// Notes a frame that the muxer has taken, and makes a checkpoint when one is due. Does not wait for
// the device.
// thread: the buffer thread, the writer threads, the end of the recording; under lockTDMBRecording
void note_checkpoint_frame(omx_tdmbrec_component_PrivateType *self,
                           const mp4_mux_putstream_t *frame);

// Notes that the muxer has refused a frame, which ends the recording: where the frames after it are
// in the file is not known, and the journal does not describe them.
// thread: as note_checkpoint_frame
void note_refused_frame(omx_tdmbrec_component_PrivateType *self);

// Makes the last checkpoint, before the muxer's close, and ends the thread.
// thread: the end of the recording; under lockTDMBRecording
void finish_checkpoints(omx_tdmbrec_component_PrivateType *self);

// Removes the journal of a closed recording once its file is on the device; keeps it otherwise.
// in: is_closed: whether the muxer has finished the file
// thread: as finish_checkpoints, after it
void end_checkpoints(omx_tdmbrec_component_PrivateType *self, bool is_closed);

#endif // COMPONENT_CHECKPOINT_H
