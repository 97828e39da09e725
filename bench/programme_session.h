// What the recorder's benchmarks share: recordings of the sample programme through the OpenMAX IL
// interface to a memory file system, and main().
#ifndef BENCH_PROGRAMME_SESSION_H
#define BENCH_PROGRAMME_SESSION_H

#include "client/il_session.h"
#include "tests/support/programme.h"

#include <benchmark/benchmark.h>
#include <cstdint>
#include <vector>

inline constexpr char kOutput[] = "/mnt/sdcard/bench.mp4";
inline constexpr uint32_t kSampleRate = 48000;
inline constexpr int64_t kCheckpointMs = 1000;  // the interval, where checkpoints are made
inline constexpr double kProgrammeSeconds = 10; // the length of the sample programme

// Ends the benchmark unless the condition holds.
void check(benchmark::State &state, bool holds, const char *fault);

// returns: whether RECORDER_BENCH=whole in the environment asks for the long measurements
bool runs_whole();

// Sets the interval of the checkpoints of the recordings that begin later; 0: none are made.
void use_checkpoints(int64_t interval_ms);

// Sends a delimiter first: the first buffer of a recording sets its time base.
void begin_recording(il_session &session);

// Sends the buffers that are filled, and waits until the component has returned them.
void hand_in(il_session &session);

// returns: whether the recording ended as asked, with a file
bool end_recording(il_session &session);

// returns: whether the file that was recorded last is intact and has so many frames
bool has_frames(size_t pictures, size_t sounds);

// The sample programme's audio.
const std::vector<Bytes> &pcm_buffers();

// returns: the buffers of audio that are sent with so many pictures
size_t count_pcm_buffers(size_t pictures);

// Sends the sample programme `loops` times: each picture, then the audio up to the next one.
void send_programme(il_session &session, uint32_t loops);

// As above, but each buffer is sent when the component has returned the one before it, as from a
// player at the pace of the programme.
// in: first_loop: how many loops have been sent before
void send_paced_programme(il_session &session, uint32_t loops, uint32_t first_loop = 0);

// Runs all benchmarks of the program, with those that the function registers.
// returns: the exit status
int run_recorder_benchmarks(int argc, char **argv, void (*register_more)());

#endif // BENCH_PROGRAMME_SESSION_H
