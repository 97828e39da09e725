// Plays programmes into a recorder as the broadcast player does.
#ifndef TESTS_SUPPORT_PROGRAMME_PLAYER_H
#define TESTS_SUPPORT_PROGRAMME_PLAYER_H

#include "tests/support/il_client.h"
#include "tests/support/programme.h"

// Sends one buffer with only an access unit delimiter, one frame before the programme. It sets the
// recording's time base, so that the first picture is not at time 0.
void send_time_base(IlClient &client);

// Sends access units [from, from + frames) of the sample with the PCM of that time; before access
// unit 0 also the time base.
void send_programme(IlClient &client, size_t frames, size_t from = 0);

#endif // TESTS_SUPPORT_PROGRAMME_PLAYER_H
