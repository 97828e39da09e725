#!/usr/bin/python3
"""Lets FFmpeg's two AAC decoders and FAAD2 judge the encoder's streams in every configuration.

usage: tests/aacenc/judge_streams.py TEST_AACENC [--whole]

TEST_AACENC, the test program, takes every access unit apart and keeps the streams: sample rates,
channels, bit rates, framing, ID bit, tools and signals in all their combinations, or one in 29 of
them. A decoder must say nothing, return every frame, and without noise substitution, whose noise is
each decoder's own, the decoders must agree. Needs the Debian packages ffmpeg, faad and
python3-numpy; without one of them the result is 77.
"""
import os
import shutil
import subprocess
import sys
import tempfile
import time

try:
    import numpy
except ImportError:
    numpy = None

FRAME = 1024
FFMPEG = ['ffmpeg', '-nostdin', '-v', 'warning', '-f', 'aac']

# Each decoder, and how far it may be from the first one, in steps of 16 bits.
DECODERS = {'aac': 0, 'aac_fixed': 16, 'faad': 2}


def make_streams(program, folder, whole):
    environment = dict(os.environ, AAC_STREAMS=folder)
    if whole:
        environment['AAC_MATRIX'] = 'whole'
    subprocess.run([program, '--gtest_filter=Streams.EveryConfiguration*', '--gtest_brief=1'],
                   env=environment, stdout=subprocess.DEVNULL, check=True)


def decode(decoder, stream, rate, channels, frames):
    """The samples, none where they cannot be compared, and what is wrong with the stream."""
    with tempfile.NamedTemporaryFile(suffix='.aac') as file:
        file.write(stream)
        file.flush()
        if decoder == 'faad':
            command = ['faad', '-q', '-w', '-f', '2', file.name]
        else:  # a pipe has no length to estimate, which it would remark on
            file.seek(0)
            command = FFMPEG + ['-c:a', decoder, '-i', 'pipe:0', '-f', 's16le', '-']
        run = subprocess.run(command, stdin=file, capture_output=True, check=False)
    words = run.stderr.decode().strip()
    if run.returncode or words:
        return None, words or f'exit {run.returncode}'
    samples = numpy.frombuffer(run.stdout, numpy.int16)
    expected = frames * FRAME * channels
    doubled = False
    if decoder == 'faad':
        # Leaves out the first frame, which only opens the overlap, gives one channel twice, and
        # low sample rates at twice the rate.
        doubled = rate <= 24000
        expected = (frames - 1) * FRAME * 2 * (1 + doubled)
    if len(samples) != expected:
        return None, f'{len(samples)} samples in place of {expected}'
    if decoder == 'faad':
        samples = numpy.concatenate([numpy.zeros(2 * FRAME, numpy.int16), samples])
        samples = samples[::2] if channels == 1 else samples
    return None if doubled else samples.reshape(-1, channels), ''


def judge(path, rate, channels):
    """The number of streams in a file, and the complaints about them."""
    with open(path + '.aac', 'rb') as file, open(path + '.txt', encoding='ascii') as lines:
        streams = []
        for line in lines:
            size, frames, what = line.split(maxsplit=2)
            streams.append((what.strip(), file.read(int(size)), int(frames)))
    joined = b''.join(stream for _, stream, _ in streams)
    total = sum(frames for _, _, frames in streams)
    complaints = []
    outputs = {}
    for decoder in DECODERS:
        outputs[decoder], complaint = decode(decoder, joined, rate, channels, total)
        if complaint:
            complaints.append(f'{decoder}: {complaint}')
            for what, stream, frames in streams:
                alone = decode(decoder, stream, rate, channels, frames)[1]
                if alone:
                    complaints.append(f'{decoder}: {what}: {alone}')

    at = 0
    for what, _, frames in streams:
        part = slice(at + FRAME, at + frames * FRAME)
        at += frames * FRAME
        for decoder, tolerance in DECODERS.items():
            if outputs['aac'] is None or outputs[decoder] is None or ' pns' in what:
                continue
            first = outputs['aac'][part].astype(int)
            difference = abs(outputs[decoder][part] - first).max()
            if difference > tolerance:
                complaints.append(f'{decoder}: {what}: differs by {difference}')
    return len(streams), complaints


def main():
    if {'-h', '--help'} & set(sys.argv):
        sys.exit(print(__doc__))
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    if not (numpy and shutil.which('ffmpeg') and shutil.which('faad')):
        print('skipped: needs ffmpeg, faad and python3-numpy')
        sys.exit(77)
    started = time.monotonic()
    streams = complaints = 0
    with tempfile.TemporaryDirectory() as folder:
        make_streams(sys.argv[1], folder, '--whole' in sys.argv)
        for name in sorted(os.listdir(folder)):
            if name.endswith('.txt'):
                group = name[:-4]
                rate, channels = map(int, group.split('_'))
                count, found = judge(os.path.join(folder, group), rate, channels)
                streams += count
                complaints += len(found)
                for complaint in found:
                    print(f'{group}: {complaint}')
    print(f'{streams} streams, {len(DECODERS)} decoders, {complaints} complaints, '
          f'{time.monotonic() - started:.0f} s')
    sys.exit(complaints != 0)


main()
