#include "tests/support/programme_player.h"

void send_time_base(IlClient &client)
{
    client.send(0, Bytes{0, 0, 0, 1, 9, 0xF0}, video_time_us(0) - kFrameUs);
}

void send_programme(IlClient &client, size_t frames, size_t from)
{
    const Programme &programme = sample_programme();
    if (from == 0) {
        send_time_base(client);
    }
    size_t audio = from * 48000 / 30 / 1024;
    for (size_t i = from; i < from + frames; i++) {
        client.send(0, programme.access_units[i], video_time_us(i));
        while (audio_time_us(audio) < video_time_us(i + 1)) {
            client.send(1, pcm_buffer(programme, audio), audio_time_us(audio));
            audio++;
        }
    }
}
