#!/usr/bin/python3
"""Compares this encoder with FFmpeg's on speech, music, the sample and noise.

usage: bench/quality.py TDMBREC [BITRATE ...]

Prints one table for the bit rates (64, 96, 128, 192 and 256 kbit/s), all signals 48000 Hz stereo.
The columns of a coder are the kbit/s that it sent, its signal-to-noise ratio in dB, and the same
ratio up to this encoder's bandwidth at the bit rate; the level is that of this encoder. FFmpeg's
decoder decodes each stream. The delay is where the sums of the channels are most alike; polarity
and level are matched by least squares over the whole signal, without 1.25 seconds at either end.
The error is computed in the frequency domain. The rates are those of the access units, without the
56 bits of each ADTS header. Needs the Debian packages ffmpeg, espeak-ng, sox and python3-numpy.
"""
import pathlib
import sys
import tempfile

from measuring import (FRAME_SAMPLES, RATE, SAMPLE_AUDIO, decibels, encode_command,
                       ffmpeg_encode_command, find_delay, numpy, read_arguments, read_pcm, require,
                       run, table_row)

ENDS = RATE * 5 // 4
ADTS_HEADER_BYTES = 7
BANDWIDTHS = {64: 5442, 96: 9841, 128: 15306, 192: 16000, 256: 16000}  # Hz, of two channels
VOICE = '''The ferry leaves at half past seven. Passengers without luggage may board at once;
everyone else waits by the northern gate. Rain is expected over the islands, with a fresh wind from
the west, and the evening will be clear.'''
CHORDS = ['A2 E3 A3 C4 E4', 'F2 C3 A3 C4 F4', 'C3 G3 C4 E4 G4', 'G2 D3 G3 B3 D4']


def sox(*arguments):
    run(['sox', '-R', '-D', *arguments])


def make_speech(path):
    voice = path.with_suffix('.voice.wav')
    run(['espeak-ng', '-v', 'en-gb', '-s', 160, '-w', voice, VOICE])
    sox(voice, '-b', 16, path, 'gain', '-n', -4, 'rate', '-h', RATE, 'remix', 1, 1)


def make_music(path):
    """Plucked strings, spread over the channels, with a hi-hat."""
    bars = []
    for turn, chord in enumerate(CHORDS * 2):
        bar = path.with_suffix(f'.{turn}.wav')
        notes = [word for note in chord.split() for word in ('pluck', note)]
        delays = [f'0.{20 * i + 10:03}' for i in range(5)]
        sox('-r', RATE, '-b', 16, '-n', bar, 'synth', 2, *notes, 'delay', *delays, 'remix',
            '1,2v0.7,3v0.5,4v0.3', '2v0.3,3v0.5,4v0.7,5', 'fade', 0, 2, 0.1, 'gain', '-n', -3)
        bars.append(bar)
    strings, beat = path.with_suffix('.strings.wav'), path.with_suffix('.beat.wav')
    sox(*bars, strings)
    sox('-r', RATE, '-b', 16, '-n', beat, 'synth', 0.05, 'noise', 'noise', 'gain', -6,
        'highpass', 7000, 'fade', 'l', 0, 0.05, 0.045, 'gain', '-n', -22, 'pad', 0, 0.45,
        'repeat', 31)
    sox('-m', strings, beat, path, 'gain', '-n', -1)


def make_noise(path):
    sox('-r', RATE, '-b', 16, '-n', path, 'synth', 30, 'pinknoise', 'pinknoise', 'gain', '-n', -10)


def make_signals(folder):
    """returns: the paths of the signals by their names"""
    signals = {'speech': folder / 'speech.wav', 'music': folder / 'music.wav',
               'sample': SAMPLE_AUDIO, 'noise': folder / 'noise.wav'}
    make_speech(signals['speech'])
    make_music(signals['music'])
    make_noise(signals['noise'])
    return signals


def payload_kbps(path):
    data = path.read_bytes()
    at = frames = 0
    while at < len(data):
        at += (data[at + 3] & 3) << 11 | data[at + 4] << 3 | data[at + 5] >> 5
        frames += 1
    seconds = frames * FRAME_SAMPLES / RATE
    return (len(data) - ADTS_HEADER_BYTES * frames) * 8 / seconds / 1000


def compare_signals(original, decoded, bandwidth):
    """SNR in dB over the full band and up to the bandwidth, and the level in dB."""
    delay, _ = find_delay(original, decoded, ENDS)
    length = min(len(original), len(decoded) - delay) - 2 * ENDS
    x = original[ENDS:ENDS + length].astype(float)
    y = decoded[ENDS + delay:ENDS + delay + length].astype(float)
    level = numpy.sum(x * y) / numpy.sum(y * y)
    signal = abs(numpy.fft.rfft(x, axis=0)) ** 2
    error = abs(numpy.fft.rfft(x - level * y, axis=0)) ** 2
    edge = int(bandwidth * length / RATE)
    return (decibels(signal.sum() / error.sum()),
            decibels(signal[:edge].sum() / error[:edge].sum()), -2 * decibels(abs(level)))


def coders(tdmbrec, path, coded, bit_rate):
    """The commands, in the order of the table's columns."""
    return [encode_command(tdmbrec, path, coded, '--bitrate', bit_rate),
            encode_command(tdmbrec, path, coded, '--bitrate', bit_rate, '--tns'),
            ffmpeg_encode_command(path, coded, 'fast', bit_rate),
            ffmpeg_encode_command(path, coded, 'twoloop', bit_rate)]


def measure(original, commands, coded, bandwidth):
    """The level of the first coder, then the columns of each."""
    cells = []
    for command in commands:
        run(command)
        full_snr, band_snr, level = compare_signals(original, read_pcm(coded), bandwidth)
        cells += [] if cells else [f'{level:.1f}']
        cells += [f'{payload_kbps(coded):.1f}', f'{full_snr:.1f}', f'{band_snr:.1f}']
    return cells


def print_table(tdmbrec, rates, folder):
    coded = folder / 'coded.aac'
    signals = make_signals(folder)
    print('| Signal | kbit/s | level | this | | | with TNS | | | fast | | | twoloop | | |')
    print('|' + 15 * '---|')
    for name, path in signals.items():
        original = read_pcm(path)
        for rate in rates:
            commands = coders(tdmbrec, path, coded, 1000 * rate)
            cells = measure(original, commands, coded, BANDWIDTHS[rate])
            print(table_row([name, str(rate)] + cells), flush=True)


def main():
    arguments = read_arguments(__doc__)
    if not arguments:
        sys.exit(__doc__)
    require('ffmpeg', 'espeak-ng', 'sox')
    rates = [int(rate) for rate in arguments[1:]] or sorted(BANDWIDTHS)
    with tempfile.TemporaryDirectory() as folder:
        print_table(arguments[0], rates, pathlib.Path(folder))


if __name__ == '__main__':
    main()
