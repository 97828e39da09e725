#!/usr/bin/python3
"""Measures what the encoder keeps of speech, music, the sample and noise, beside FFmpeg.

usage: bench/quality.py TDMBREC [BITRATE ...]

Prints one table for the bit rates (64, 96, 128, 192 and 256 kbit/s), all signals 48000 Hz stereo.
The columns of a coder are the kbit/s that it sent, its signal-to-noise ratio in dB, and the one up
to this encoder's bandwidth at the bit rate; the level is that of this encoder. FFmpeg's decoder
decodes each stream. The delay is matched where the sums of the channels are most alike, polarity
and level by least squares over the whole signal; a second and a fourth of it at either end are left
out. The error is taken in the frequency domain. The rates are those of the access units, without
the 56 bits of each ADTS header. Needs the Debian packages ffmpeg, espeak-ng, sox and python3-numpy.
"""
import os
import subprocess
import sys
import tempfile

if {'-h', '--help'} & set(sys.argv):
    sys.exit(print(__doc__))

import numpy

RATE = 48000
FRAME = 1024
ENDS = RATE * 5 // 4
FFMPEG = ['ffmpeg', '-nostdin', '-v', 'error', '-y']
SAMPLE = os.path.join(os.path.dirname(os.path.abspath(__file__)), '../samples/programme.wav')
BANDWIDTHS = {64: 5442, 96: 9841, 128: 15306, 192: 16000, 256: 16000}  # Hz, of two channels
VOICE = '''The ferry leaves at half past seven. Passengers without luggage may board at once;
everyone else waits by the northern gate. Rain is expected over the islands, with a fresh wind from
the west, and the evening will be clear.'''
CHORDS = ['A2 E3 A3 C4 E4', 'F2 C3 A3 C4 F4', 'C3 G3 C4 E4 G4', 'G2 D3 G3 B3 D4']


def sox(*arguments):
    subprocess.run(['sox', '-R', '-D', *arguments], check=True)


def make_speech(path):
    voice = path + '.voice.wav'
    subprocess.run(['espeak-ng', '-v', 'en-gb', '-s', '160', '-w', voice, VOICE], check=True)
    sox(voice, '-b', '16', path, 'gain', '-n', '-4', 'rate', '-h', str(RATE), 'remix', '1', '1')


def make_music(path):
    """Plucked strings, spread over the channels, with a hi-hat."""
    bars = []
    for turn, chord in enumerate(CHORDS * 2):
        bar = f'{path}.{turn}.wav'
        notes = [word for note in chord.split() for word in ('pluck', note)]
        delays = [f'0.{20 * i + 10:03}' for i in range(5)]
        sox('-r', str(RATE), '-b', '16', '-n', bar, 'synth', '2', *notes, 'delay', *delays, 'remix',
            '1,2v0.7,3v0.5,4v0.3', '2v0.3,3v0.5,4v0.7,5', 'fade', '0', '2', '0.1', 'gain', '-n',
            '-3')
        bars.append(bar)
    strings, beat = path + '.strings.wav', path + '.beat.wav'
    sox(*bars, strings)
    sox('-r', str(RATE), '-b', '16', '-n', beat, 'synth', '0.05', 'noise', 'noise', 'gain', '-6',
        'highpass', '7000', 'fade', 'l', '0', '0.05', '0.045', 'gain', '-n', '-22',
        'pad', '0', '0.45', 'repeat', '31')
    sox('-m', strings, beat, path, 'gain', '-n', '-1')


def read_pcm(path):
    pcm = subprocess.run(FFMPEG + ['-c:a', 'aac', '-i', path, '-f', 's16le', '-']
                         if path.endswith('.aac') else FFMPEG + ['-i', path, '-f', 's16le', '-'],
                         check=True, capture_output=True).stdout
    return numpy.frombuffer(pcm, numpy.int16).reshape(-1, 2).astype(float)


def payload_kbps(path):
    with open(path, 'rb') as file:
        data = file.read()
    at = frames = 0
    while at < len(data):
        at += (data[at + 3] & 3) << 11 | data[at + 4] << 3 | data[at + 5] >> 5
        frames += 1
    return (len(data) - 7 * frames) * 8 / (frames * FRAME / RATE) / 1000


def find_delay(original, decoded):
    block = original[ENDS:ENDS + RATE].sum(axis=1)
    shifted = decoded[ENDS:ENDS + RATE + 4 * FRAME].sum(axis=1)
    energy = numpy.convolve(shifted ** 2, numpy.ones(RATE), 'valid')
    return int(numpy.argmax(abs(numpy.correlate(shifted, block)) / numpy.sqrt(energy + 1)))


def measure(original, decoded, bandwidth):
    """SNR in dB over the full band and up to the bandwidth, and the level in dB."""
    delay = find_delay(original, decoded)
    length = min(len(original), len(decoded) - delay) - 2 * ENDS
    x = original[ENDS:ENDS + length]
    y = decoded[ENDS + delay:ENDS + delay + length]
    level = numpy.sum(x * y) / numpy.sum(y * y)
    signal = abs(numpy.fft.rfft(x, axis=0)) ** 2
    error = abs(numpy.fft.rfft(x - level * y, axis=0)) ** 2
    edge = int(bandwidth * length / RATE)
    return (10 * numpy.log10(signal.sum() / error.sum()),
            10 * numpy.log10(signal[:edge].sum() / error[:edge].sum()),
            -20 * numpy.log10(abs(level)))


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    rates = [int(rate) for rate in sys.argv[2:]] or sorted(BANDWIDTHS)
    with tempfile.TemporaryDirectory() as folder:
        signals = {'speech': os.path.join(folder, 'speech.wav'),
                   'music': os.path.join(folder, 'music.wav'), 'sample': SAMPLE,
                   'noise': os.path.join(folder, 'noise.wav')}
        make_speech(signals['speech'])
        make_music(signals['music'])
        coded = os.path.join(folder, 'coded.aac')
        sox('-r', str(RATE), '-b', '16', '-n', signals['noise'], 'synth', '30', 'pinknoise',
            'pinknoise', 'gain', '-n', '-10')
        ours = [sys.argv[1], 'encode', '--force', '--output', coded, '--bitrate']
        print('| Signal | kbit/s | level | this | | | with TNS | | | fast | | | twoloop | | |')
        print('|' + 15 * '---|')
        for name, path in signals.items():
            original = read_pcm(path)
            for rate in rates:
                theirs = FFMPEG + ['-i', path, '-c:a', 'aac', '-b:a', f'{rate}k', '-aac_coder']
                row = [name, str(rate)]
                for command in (ours + [str(1000 * rate), path],
                                ours + [str(1000 * rate), path, '--tns'],
                                theirs + ['fast', coded], theirs + ['twoloop', coded]):
                    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
                    measured = measure(original, read_pcm(coded), BANDWIDTHS[rate])
                    row += [f'{measured[2]:.1f}'] if len(row) == 2 else []
                    row += [f'{payload_kbps(coded):.1f}', *(f'{snr:.1f}' for snr in measured[:2])]
                print('| ' + ' | '.join(row) + ' |', flush=True)


main()
