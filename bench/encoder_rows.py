"""The rows and profiles of the encoder in docs/performance.md."""
import re
import statistics

from builds import PORTABLE, RELEASE
from counting import by, per_second
from measuring import (encode_command, ffmpeg_encode_command, profile_table, table, usage_of,
                       write_loop)

# The encoder's functions by what they do.
STAGES = {'transform': 'transform_|AACENC_gCmplxFft|AACE_FFT|buffer2freq|leave_rows',
          'rate loop and packing': 'largest_magnitude|raise_lines|power_three|choose_codebook|'
                                   'quantise|count_|pack_codewords|sort_book_numbers|'
                                   'step_of_gain|tf_encode_spectrum_aac',
          'writing of elements': 'bitstream_put|write_|Write|BsPutBit|difference_bits',
          'other': ''}


def encode_with(build_folder, audio, folder):
    return encode_command(build_folder / 'bin/tdmbrec', audio, folder / 'out.aac')


def profile_encoder(build_folder, extent, folder):
    """Instructions per second of audio, by function."""
    return by(per_second(lambda s: encode_with(build_folder, write_loop(folder, s)[1], folder),
                         extent.profile_seconds, folder, '--toggle-collect=QVR_AAC_ENC'), 0)


def measure_encoder(extent, folder):
    seconds = extent.encoder_seconds
    _, audio = write_loop(folder, seconds)
    ffmpeg = ffmpeg_encode_command(audio, folder / 'other.aac', 'fast', 128000)
    pairs = [(usage_of(encode_with(RELEASE, audio, folder)).cpu_seconds,
              usage_of(ffmpeg).cpu_seconds) for _ in range(extent.pairs)]
    ours, other = map(statistics.median, zip(*pairs))
    ratio = statistics.median(b / a for a, b in pairs)
    plain = usage_of(encode_with(PORTABLE, audio, folder)).cpu_seconds
    profiles = [profile_encoder(build_folder, extent, folder)
                for build_folder in (RELEASE, PORTABLE)]
    total = sum(profiles[1].values())
    rows = [
        ('Encoder, CPU compared with `ffmpeg -aac_coder fast`', 'at least 8 times as fast',
         f'{ratio:.1f} times: {ours:.2f} s, {other:.2f} s for {seconds} s of sound'),
        ('Encoder, times real time', '1,000', f'{seconds / ours:.0f}; portable build '
         f'{seconds / plain:.0f}'),
        ('Encoder, portable build, instructions per second of stereo', 'at most 15 million',
         f'{total / 1e6:.1f} million')]
    return rows, profiles


def stage_of(function):
    return next(stage for stage, names in STAGES.items() if re.match(names, function))


def stage_table(profiles):
    sums = {stage: [0] * len(profiles) for stage in STAGES}
    for column, costs in enumerate(profiles):
        for function, cost in costs.items():
            sums[stage_of(function)][column] += cost / 1e6
    sums['whole'] = [sum(column) for column in zip(*sums.values())]
    return table(['Stage', '`-O3`', 'Portable'],
                 [[stage] + [f'{cost:.2f}' for cost in costs] for stage, costs in sums.items()])


def encoder_profile(profiles):
    """returns: a section of the page"""
    return f'''## Where the encoder's time goes

By stage, million instructions per second of sound:

{stage_table(profiles)}
By function, portable build, 48 kHz stereo at 128 kbit/s:

{profile_table(profiles[1], 14, 'Function')}'''
