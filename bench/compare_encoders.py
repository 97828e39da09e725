#!/usr/bin/python3
"""Compares this encoder with FFmpeg's fast one: CPU time and signal-to-noise ratio, in one run.

usage: bench/compare_encoders.py TDMBREC [MINUTES]

TDMBREC is the command from a release build. Both encode the sample programme, in a loop of MINUTES
(10), to 128 kbit/s; FFmpeg's decoder decodes both. Needs the Debian packages ffmpeg and
python3-numpy.
"""
import pathlib
import sys
import tempfile

from measuring import (LONGEST_DELAY, RATE, decibels, encode_command, ffmpeg_encode_command,
                       find_delay, read_arguments, read_pcm, require, usage_of, write_audio_loop)

BIT_RATE = 128000


def compare_signals(original, decoded):
    """The signal-to-noise ratio in dB, as decoded and with the level matched, and the delay."""
    delay, polarity = find_delay(original, decoded, RATE)
    xx = xy = yy = 0.0
    for at in range(LONGEST_DELAY, min(len(original), len(decoded) - delay) - RATE, RATE):
        x = original[at:at + RATE].astype(float)
        y = polarity * decoded[at + delay:at + delay + RATE]
        xx, xy, yy = xx + (x * x).sum(), xy + (x * y).sum(), yy + (y * y).sum()
    noise = xx - 2 * xy + yy
    noise_of_matched = xx - xy * xy / yy
    return decibels(xx / noise), decibels(xx / noise_of_matched), delay


def print_comparison(tdmbrec, minutes, folder):
    pcm = folder / 'loop.wav'
    coded = folder / 'coded.aac'
    write_audio_loop(pcm, 60 * minutes)
    original = read_pcm(pcm)
    encoders = {
        'aacenc': encode_command(tdmbrec, pcm, coded, '--bitrate', BIT_RATE),
        'ffmpeg fast': ffmpeg_encode_command(pcm, coded, 'fast', BIT_RATE),
    }
    print(f'{minutes:g} minutes, {RATE} Hz, stereo, {BIT_RATE // 1000} kbit/s')
    print('encoder      CPU time  x real time   kbit/s  SNR (dB)  level matched  delay')
    for name, command in encoders.items():
        seconds = usage_of(command).cpu_seconds
        kilobits = coded.stat().st_size * 8 / (60 * minutes) / 1000
        snr, matched, delay = compare_signals(original, read_pcm(coded))
        print(f'{name:12} {seconds:6.2f} s {60 * minutes / seconds:12.0f}'
              f' {kilobits:8.1f} {snr:9.2f} {matched:14.2f} {delay:6}')


def main():
    arguments = read_arguments(__doc__)
    if not arguments:
        sys.exit(__doc__)
    require('ffmpeg')
    minutes = float(arguments[1]) if len(arguments) > 1 else 10
    with tempfile.TemporaryDirectory() as folder:
        print_comparison(arguments[0], minutes, pathlib.Path(folder))


if __name__ == '__main__':
    main()
