// Sends a programme to the component, and shows the progress of the recording.
#ifndef CLIENT_PROGRAMME_FEED_H
#define CLIENT_PROGRAMME_FEED_H

#include "client/recording.h"

// Sends the programme until it, the component or the user ends it, and notes which in the summary.
// throws: `failure`
void programme_feed_send(recording &self);

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
