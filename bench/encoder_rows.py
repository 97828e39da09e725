"""The rows and profiles of the encoder in docs/performance.md."""
import re
import statistics

from builds import ARM, PLAIN_ARM, PORTABLE, RELEASE
from counting import (Stream, by, count_on_arm, count_on_x86, per_frame, per_second,
                      stream_frame_costs)
from hostile_sound import WORST, render
from measuring import (FRAME_SAMPLES, RATE, SAMPLE_AUDIO, encode_command, ffmpeg_encode_command,
                       numpy, read_pcm, require, table, usage_of, write_audio_loop, write_loop)
from quality import make_signals

# The encoder's functions by what they do.
STAGES = {'transform': 'transform_|AACENC_gCmplxFft|AACE_FFT|buffer2freq|leave_rows',
          'rate loop and packing': 'largest_magnitude|raise_lines|power_three|choose_codebook|'
                                   'quantise|count_|pack_codewords|sort_book_numbers|'
                                   'step_of_gain|tf_encode_spectrum_aac',
          'writing of elements': 'bitstream_put|write_|Write|BsPutBit|difference_bits',
          'other': ''}

MUSIC_FRAMES = 375  # its four chords once

# The builds whose instructions are counted, and how many millions a second of sound may take.
COUNTED = [('x86 with vectors', RELEASE, 5), ('portable x86', PORTABLE, 9.5),
           ('32-bit ARM with NEON', ARM, 6), ('plain 32-bit ARM', PLAIN_ARM, 10.5)]


def encode_with(build_folder, audio, folder):
    return encode_command(build_folder / 'bin/tdmbrec', audio, folder / 'out.aac')


def profile_on_arm(build_folder, extent, folder):
    """Instructions per second of audio, by function: a long stream less a short one."""
    first, end = (round(seconds * RATE / FRAME_SAMPLES) for seconds in extent.arm_seconds)
    loop = Stream(numpy.resize(read_pcm(SAMPLE_AUDIO), (end * FRAME_SAMPLES, 2)))
    costs = per_frame(count_on_arm, build_folder, loop, first, end, folder)
    return {function: cost * RATE / FRAME_SAMPLES for function, cost in costs.items()}


def profile_encoder(build_folder, extent, folder):
    """Instructions per second of audio, by function."""
    if build_folder in (ARM, PLAIN_ARM):
        return profile_on_arm(build_folder, extent, folder)
    return by(per_second(lambda s: encode_with(build_folder, write_loop(folder, s)[1], folder),
                         extent.profile_seconds, folder, '--toggle-collect=QVR_AAC_ENC'), 0)


def compare_with_ffmpeg(audio, extent, folder):
    """CPU time of alternating pairs. returns: the medians, and that of the pairs' ratios"""
    ffmpeg = ffmpeg_encode_command(audio, folder / 'other.aac', 'fast', 128000)
    pairs = [(usage_of(encode_with(RELEASE, audio, folder)).cpu_seconds,
              usage_of(ffmpeg).cpu_seconds) for _ in range(extent.pairs)]
    return (*map(statistics.median, zip(*pairs)), statistics.median(b / a for a, b in pairs))


def measure_times(extent, signals, folder):
    seconds, rows, ours = extent.encoder_seconds, [], {}
    audio = folder / 'loop.wav'
    for name in ('speech', 'music', 'sample'):
        write_audio_loop(audio, seconds, signals[name])
        ours[name], other, ratio = compare_with_ffmpeg(audio, extent, folder)
        rows.append((f'Encoder, CPU compared with `ffmpeg -aac_coder fast`, {name}',
                     'at least 12 times as fast', f'{ratio:.1f} times: {ours[name]:.2f} s, '
                     f'{other:.2f} s for {seconds} s of sound'))
    plain = usage_of(encode_with(PORTABLE, audio, folder)).cpu_seconds
    audio.unlink()
    return rows + [('Encoder, times real time', '1,000', f'{seconds / ours["sample"]:.0f}; '
                    f'portable build {seconds / plain:.0f}')]


def measure_worst_frames(music, folder):
    """returns: the rows, and the instructions by function of a frame of music and the worst ones"""
    builds = [(count_on_x86, PORTABLE), (count_on_arm, PLAIN_ARM), (count_on_arm, ARM)]
    average = [per_frame(*build, music, 0, len(music.pcm) // FRAME_SAMPLES, folder)
               for build in builds]
    rows, profiles = [], {'music, average': average[0]}
    for name, sound in WORST.items():
        stream = render(*sound)
        costs, = stream_frame_costs(PORTABLE, [stream], folder)
        worst = costs.index(max(costs))
        frames = [per_frame(*build, stream, worst, worst + 1, folder) for build in builds]
        ratios = [sum(frame.values()) / sum(music_frame.values())
                  for frame, music_frame in zip(frames, average)]
        rows.append((f'Encoder, worst frame found compared with the average of music, {name}',
                     'at most 1.6 times', f'{ratios[0]:.2f} times on portable x86; '
                     f'{ratios[1]:.2f} on plain 32-bit ARM, {ratios[2]:.2f} with NEON'))
        profiles[name] = frames[0]
    return rows, profiles


def measure_encoder(extent, folder):
    require('espeak-ng', 'sox')
    signals = make_signals(folder)
    rows = measure_times(extent, signals, folder)
    profiles = [profile_encoder(build_folder, extent, folder) for _, build_folder, _ in COUNTED]
    rows += [(f'Encoder, instructions per second of stereo, {name}', f'at most {millions} million',
              f'{sum(profile.values()) / 1e6:.1f} million')
             for (name, _, millions), profile in zip(COUNTED, profiles)]
    music = Stream(read_pcm(signals['music'])[:MUSIC_FRAMES * FRAME_SAMPLES])
    worst_rows, worst_profiles = measure_worst_frames(music, folder)
    return rows + worst_rows, encoder_profile(profiles, worst_profiles)


def stage_of(function):
    return next(stage for stage, names in STAGES.items() if re.match(names, function))


def stage_table(profiles):
    sums = {stage: [0] * len(profiles) for stage in STAGES}
    for column, costs in enumerate(profiles.values()):
        for function, cost in costs.items():
            sums[stage_of(function)][column] += cost / 1e6
    sums['whole'] = [sum(column) for column in zip(*sums.values())]
    return table(['Stage', *profiles],
                 [[stage] + [f'{cost:.2f}' for cost in costs] for stage, costs in sums.items()])


def function_table(profiles, count):
    """The functions that cost most in one of the profiles, in thousands."""
    most = {}
    for function, cost in (item for costs in profiles.values() for item in costs.items()):
        most[function] = max(cost, most.get(function, 0))
    names = sorted(most, key=most.get, reverse=True)[:count]
    return table(['Function', *profiles],
                 [[f'`{name}`'] + [f'{costs[name] / 1e3:.0f}' if name in costs else ''
                                   for costs in profiles.values()] for name in names])


def encoder_profile(profiles, worst_profiles):
    """returns: a section of the page"""
    by_build = dict(zip([name for name, _, _ in COUNTED], profiles))
    return f'''## Where the encoder's time goes

48 kHz stereo at 128 kbit/s. By stage, million instructions per second of sound:

{stage_table(by_build)}
By function, thousand instructions per second of sound; without a number, it is part of others:

{function_table(by_build, 16)}
The ARM builds are of `-march=armv7-a+simd` and `-march=armv7-a+fp`. A static program that only
encodes runs under `qemu-arm`; the numbers are those of `-singlestep -d exec,nochain`.

The worst frames that a search has found (`bench/worst_frame.py`; the sounds are in
`bench/hostile_sound.py`), portable x86, thousand instructions per frame. In both channels they take
all trials of the search for a gain and one gain more, with values that are small and seldom zero.
Noise shaping and noise substitution add to the last one; the recorder has both of them off:

{function_table(worst_profiles, 14)}'''
