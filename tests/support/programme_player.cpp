#include "tests/support/programme_player.h"

void send_time_base(IlClient &client)
{
    client.send(TDMBREC_PORT_VIDEO, Bytes{0, 0, 0, 1, 9, 0xF0}, video_time_us(0) - kFrameUs);
}

void send_programme(IlClient &client, size_t frames, size_t from)
{
    const Programme &programme = sample_programme();
    if (from == 0) {
        send_time_base(client);
    }
    size_t audio = from * kPcmSamplesPerSecond / kPicturesPerSecond / kPcmBufferSamples;
    for (size_t i = from; i < from + frames; i++) {
        client.send(TDMBREC_PORT_VIDEO, programme.access_units[i], video_time_us(i));
        while (audio_time_us(audio) < video_time_us(i + 1)) {
            client.send(TDMBREC_PORT_AUDIO, pcm_buffer(programme, audio), audio_time_us(audio));
            audio++;
        }
    }
}
