// Plays programmes into a recorder as the broadcast player does.
#ifndef TESTS_SUPPORT_PROGRAMME_PLAYER_H
#define TESTS_SUPPORT_PROGRAMME_PLAYER_H

#include "tests/support/il_client.h"
#include "tests/support/programme.h"

// One buffer with nothing but an access unit delimiter, one frame before the programme: it sets the
// recording's time base, so that the first picture does not stand at time 0.
void send_time_base(IlClient &client);

// Access units [from, from + frames) of the sample, with the PCM of that time; in front of access
// unit 0 the time base.
void send_programme(IlClient &client, size_t frames, size_t from = 0);

#endif // TESTS_SUPPORT_PROGRAMME_PLAYER_H
