// Sends a programme to the component, and shows the progress of the recording.
#ifndef CLIENT_PROGRAMME_FEED_H
#define CLIENT_PROGRAMME_FEED_H

#include "client/recording.h"

enum class feed_end {
    complete,  // the programme or the user has ended; the summary says which
    component, // the component has ended the recording
    next_file, // the programme continues in another file
};

// Sends the programme to the file that is being recorded.
// throws: `failure`
feed_end programme_feed_send(recording &self);

// Checks that the recording's file is still there and renews the progress line, at most five times
// a second.
// throws: `failure` when the file was deleted or moved
void programme_feed_watch(recording &self);

// As above, while a live source is read or waited for: what has arrived is recorded first.
// in: how long nothing has arrived
// returns: whether the recording is to end
// throws: also for the user's signal before the first picture
bool programme_feed_wait(recording &self, double silent_s);

#endif // CLIENT_PROGRAMME_FEED_H
