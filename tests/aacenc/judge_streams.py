#!/usr/bin/python3
"""Lets FFmpeg's two AAC decoders and FAAD2 judge the encoder's streams in every configuration.

usage: tests/aacenc/judge_streams.py TEST_AACENC [--whole]

TEST_AACENC, the test program, parses every access unit and keeps the streams: sample rates,
channels, bit rates, framing, ID bit, tools and signals in all their combinations (--whole), or one
in 29 of them. A decoder must report nothing and return every frame. The decoders must agree, except
on noise substitution, where each generates its own noise. Needs the Debian packages ffmpeg, faad
and python3-numpy; the result is 77 when one of them is missing.
"""
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

try:
    import numpy
except ImportError:
    numpy = None

SKIPPED = 77
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
    """The samples, or None where they cannot be compared, and the complaint about the stream."""
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


def read_streams(path):
    """The streams of a group: what each is, its bytes and its number of frames."""
    streams = []
    with open(path.with_suffix('.aac'), 'rb') as file:
        for line in path.with_suffix('.txt').read_text(encoding='ascii').splitlines():
            size, frames, what = line.split(maxsplit=2)
            streams.append((what.strip(), file.read(int(size)), int(frames)))
    return streams


def decode_streams(streams, rate, channels):
    """The output of each decoder for all streams in a row, and the complaints about them."""
    joined = b''.join(stream for _, stream, _ in streams)
    total = sum(frames for _, _, frames in streams)
    outputs = {}
    complaints = []
    for decoder in DECODERS:
        outputs[decoder], complaint = decode(decoder, joined, rate, channels, total)
        if complaint:
            complaints.append(f'{decoder}: {complaint}')
            for what, stream, frames in streams:
                alone = decode(decoder, stream, rate, channels, frames)[1]
                if alone:
                    complaints.append(f'{decoder}: {what}: {alone}')
    return outputs, complaints


def compare_outputs(streams, outputs):
    """The complaints about decoders that do not agree."""
    complaints = []
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
    return complaints


def judge(path, rate, channels):
    """The number of streams in a group, and the complaints about them."""
    streams = read_streams(path)
    outputs, complaints = decode_streams(streams, rate, channels)
    return len(streams), complaints + compare_outputs(streams, outputs)


def judge_all(program, whole):
    """Prints every complaint. returns: the number of streams and of complaints"""
    streams = complaints = 0
    with tempfile.TemporaryDirectory() as folder:
        make_streams(program, folder, whole)
        for path in sorted(pathlib.Path(folder).glob('*.txt')):
            rate, channels = map(int, path.stem.split('_'))
            count, found = judge(path.with_suffix(''), rate, channels)
            streams += count
            complaints += len(found)
            for complaint in found:
                print(f'{path.stem}: {complaint}')
    return streams, complaints


def main():
    arguments = sys.argv[1:]
    if {'-h', '--help'} & set(arguments):
        print(__doc__)
        return 0
    if not arguments:
        return __doc__
    if not (numpy and shutil.which('ffmpeg') and shutil.which('faad')):
        print('skipped: needs ffmpeg, faad and python3-numpy')
        return SKIPPED
    started = time.monotonic()
    streams, complaints = judge_all(arguments[0], '--whole' in arguments)
    print(f'{streams} streams, {len(DECODERS)} decoders, {complaints} complaints, '
          f'{time.monotonic() - started:.0f} s')
    return 1 if complaints else 0


if __name__ == '__main__':
    sys.exit(main())
