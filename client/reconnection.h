// A live input that ends, and comes back.
#ifndef CLIENT_RECONNECTION_H
#define CLIENT_RECONNECTION_H

#include "client/recording.h"

// Opens the programme of a recording.
// throws: `failure`
void recording_open_programme(recording &self);

// returns: whether the recording waits for its input to come back when that ends
bool reconnection_is_wanted(const recording &self);

// Opens the programme again, as soon as its input comes back within the time that the user has set.
// Call when its last file is finished.
// returns: false when it has not come back, or the user ends the recording
bool reconnection_await(recording &self);

#endif // CLIENT_RECONNECTION_H
