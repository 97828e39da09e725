#!/usr/bin/python3
"""Compares this encoder with FFmpeg's fast one: CPU time and signal-to-noise ratio, in one run.

usage: bench/compare_encoders.py TDMBREC [MINUTES]

TDMBREC is the command from a release build. Both encode the sample programme, in a loop of MINUTES
(10), to 128 kbit/s; FFmpeg's decoder decodes both. Needs the Debian packages ffmpeg and
python3-numpy.
"""
import os
import resource
import subprocess
import sys
import tempfile
import wave

if {'-h', '--help'} & set(sys.argv):
    sys.exit(print(__doc__))

import numpy

RATE = 48000
BIT_RATE = 128000
FRAME = 1024
LONGEST_DELAY = 4 * FRAME
FFMPEG = ['ffmpeg', '-nostdin', '-v', 'error', '-y']
SAMPLE = os.path.join(os.path.dirname(os.path.abspath(__file__)), '../samples/programme.wav')


def write_loop(path, minutes):
    with wave.open(SAMPLE) as sample, wave.open(path, 'wb') as loop:
        data = sample.readframes(sample.getnframes())
        loop.setparams(sample.getparams())
        loop.writeframes(data * round(60 * minutes * RATE / sample.getnframes()))


def cpu_seconds(command):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime


def align(original, decoded):
    """The delay of the decoded signal and its polarity, from where the two are most alike."""
    block = original[RATE:2 * RATE].sum(axis=1)
    shifted = decoded[RATE:2 * RATE + LONGEST_DELAY].sum(axis=1)
    energy = numpy.convolve(shifted ** 2, numpy.ones(RATE), 'valid')
    likeness = numpy.correlate(shifted, block) / numpy.sqrt(energy)
    delay = int(numpy.argmax(abs(likeness)))
    return delay, numpy.sign(likeness[delay])


def measure(original_path, coded_path, decoded_path):
    """The signal-to-noise ratio in dB, as decoded and with the level matched, and the delay."""
    subprocess.run(FFMPEG + ['-c:a', 'aac', '-i', coded_path, '-f', 's16le', decoded_path],
                   check=True)
    original = numpy.memmap(original_path, numpy.int16, 'r', 44).reshape(-1, 2)
    decoded = numpy.memmap(decoded_path, numpy.int16, 'r').reshape(-1, 2)
    delay, sign = align(original[:3 * RATE].astype(float), decoded[:3 * RATE].astype(float))
    xx = xy = yy = 0.0
    for at in range(LONGEST_DELAY, min(len(original), len(decoded) - delay) - RATE, RATE):
        x = original[at:at + RATE].astype(float)
        y = sign * decoded[at + delay:at + delay + RATE]
        xx, xy, yy = xx + numpy.sum(x * x), xy + numpy.sum(x * y), yy + numpy.sum(y * y)
    noise = xx - 2 * xy + yy
    noise_of_matched = xx - xy * xy / yy
    return 10 * numpy.log10(xx / noise), 10 * numpy.log10(xx / noise_of_matched), delay


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    minutes = float(sys.argv[2]) if len(sys.argv) > 2 else 10
    with tempfile.TemporaryDirectory() as folder:
        pcm = os.path.join(folder, 'loop.wav')
        coded = os.path.join(folder, 'coded.aac')
        write_loop(pcm, minutes)
        encoders = {
            'aacenc': [sys.argv[1], 'encode', pcm, '--force', '--output', coded,
                       '--bitrate', str(BIT_RATE)],
            'ffmpeg fast': FFMPEG + ['-i', pcm, '-c:a', 'aac', '-aac_coder', 'fast',
                                     '-b:a', str(BIT_RATE), coded],
        }
        print(f'{minutes:g} minutes, 48000 Hz, stereo, {BIT_RATE // 1000} kbit/s')
        print('encoder      CPU time  x real time   kbit/s  SNR (dB)  level matched  delay')
        for name, command in encoders.items():
            seconds = cpu_seconds(command)
            kilobits = os.path.getsize(coded) * 8 / (60 * minutes) / 1000
            snr, matched, delay = measure(pcm, coded, os.path.join(folder, 'decoded.pcm'))
            print(f'{name:12} {seconds:6.2f} s {60 * minutes / seconds:12.0f}'
                  f' {kilobits:8.1f} {snr:9.2f} {matched:14.2f} {delay:6}')


main()
