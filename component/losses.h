// What a recording has lost in the component, and the times that it has repaired: a count of each
// kind, and one line of the log at the recording's end.
//
// No loss are the buffer at which a recording ends, the samples after its last whole frame of
// sound, and times of sound that only move within the queue, because the file has none of them.
#ifndef COMPONENT_LOSSES_H
#define COMPONENT_LOSSES_H

#include <cstdint>

struct omx_tdmbrec_component_PrivateType;

enum tdmbrec_loss_t : uint8_t {
    kLostPictureBeforeSets,
    kLostPictureAtTimeZero, // with the parameter sets of the file: 0 is no time
    kLostPictureMemory,
    kLostPictureRefused, // by the muxer
    kLostVideoBuffer,    // without an access unit
    kLostParameterSet,   // too short, or without room
    kLostSoundBeforePicture,
    kLostSoundBeforeTimeBase,
    kLostSoundFrameBeforePicture,
    kLostSoundFrameUncoded,
    kLostSoundFrameRefused, // by the muxer
    kLostEncoder,           // that could not be opened: the buffer is offered again
    kLostBeyondAllocation,
    kRepairedVideoClock, // the first kind of a repair
    kRepairedAudioClock,
    kRepairedLateTime, // after UINT32_MAX ms
    kLossKinds
};

struct tdmbrec_losses_t {
    uint32_t auiCount[kLossKinds];
};

// Counts one more of a kind.
// thread: the buffer thread, while recording; of what the muxer refuses, any, under
//         lockTDMBRecording
void note_loss(omx_tdmbrec_component_PrivateType *self, tdmbrec_loss_t kind);

// Logs the counts in one line, unless all are 0, and clears them.
// thread: the end of a recording; under lockTDMBRecording
void report_losses(omx_tdmbrec_component_PrivateType *self);

#endif // COMPONENT_LOSSES_H
