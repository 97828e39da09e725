"""What the benchmark scripts share: running programs and counting what they use, the sample
programme in a loop, the commands of the encoders, and decoded signals.
"""
import collections
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import wave

try:
    import numpy
except ImportError:  # needed only for signals: see require
    numpy = None

ROOT = pathlib.Path(__file__).resolve().parent.parent
SAMPLE_VIDEO = ROOT / 'samples/programme.h264'
SAMPLE_AUDIO = ROOT / 'samples/programme.wav'
SAMPLE_SECONDS = 10
RATE = 48000
FRAME_SAMPLES = 1024
LONGEST_DELAY = 4 * FRAME_SAMPLES
FFMPEG = ['ffmpeg', '-nostdin', '-v', 'error', '-y']

Usage = collections.namedtuple('Usage', 'cpu_seconds resident_kib user_seconds')


def read_arguments(usage):
    """The arguments of the script. With -h or --help it prints its usage and ends."""
    arguments = sys.argv[1:]
    if {'-h', '--help'} & set(arguments):
        print(usage)
        sys.exit()
    return arguments


def require(*programs):
    """Ends the script unless numpy and the programs are installed."""
    missing = [name for name in programs if not shutil.which(name)]
    if numpy is None:
        missing.append('python3-numpy')
    if missing:
        sys.exit(f'{os.path.basename(sys.argv[0])}: not installed: ' + ', '.join(missing))


def run(command, text=True, **options):
    """Runs a command that has to succeed. returns: its standard output"""
    words = [str(word) for word in command]
    result = subprocess.run(words, text=text, check=False, capture_output=True, **options)
    if result.returncode != 0:
        sys.exit(f'failed: {words}\n{result.stdout}{result.stderr}')
    return result.stdout


def start(command, errors=subprocess.DEVNULL):
    """Below time(1): a process that Python starts counts Python's memory as its own."""
    report = tempfile.NamedTemporaryFile('r')
    process = subprocess.Popen(['time', '-q', '-f', '%M', '-o', report.name, *map(str, command)],
                               stdout=subprocess.DEVNULL, stderr=errors)
    process.report = report
    return process


def end(process):
    """Waits for the process, which has to succeed. returns: what it used"""
    _, status, usage = os.wait4(process.pid, 0)
    if status != 0:
        sys.exit(f'failed: {process.args}')
    return Usage(usage.ru_utime + usage.ru_stime, int(process.report.read()), usage.ru_utime)


def usage_of(command):
    return end(start(command))


def write_audio_loop(path, seconds, source=SAMPLE_AUDIO):
    """Writes the audio of a WAV file over and over."""
    with wave.open(str(source)) as sample, wave.open(str(path), 'wb') as loop:
        frames = sample.readframes(sample.getnframes())
        left_bytes = round(seconds * RATE) * sample.getnchannels() * sample.getsampwidth()
        loop.setparams(sample.getparams())
        while left_bytes > 0:
            loop.writeframesraw(frames[:left_bytes])
            left_bytes -= len(frames)


def write_loop(folder, seconds):
    """Writes the sample programme over and over. returns: the paths of its video and audio"""
    video, audio = folder / f'{seconds}.h264', folder / f'{seconds}.wav'
    picture_bytes = SAMPLE_VIDEO.read_bytes()
    with open(video, 'wb') as out:
        for _ in range(round(seconds / SAMPLE_SECONDS)):
            out.write(picture_bytes)
    write_audio_loop(audio, seconds)
    return video, audio


def encode_command(tdmbrec, pcm, coded, *options):
    return [tdmbrec, 'encode', pcm, '--force', '--output', coded, *options]


def ffmpeg_encode_command(pcm, coded, coder, bit_rate):
    return FFMPEG + ['-i', pcm, '-c:a', 'aac', '-aac_coder', coder, '-b:a', bit_rate, coded]


def read_pcm(path):
    """The samples of a WAV or AAC file of two channels, a row for each time, as 16-bit integers."""
    decoder = ['-c:a', 'aac'] if path.suffix == '.aac' else []
    pcm = run(FFMPEG + decoder + ['-i', path, '-f', 's16le', '-'], text=False)
    return numpy.frombuffer(pcm, numpy.int16).reshape(-1, 2)


def find_delay(original, decoded, at):
    """Compares the sums of the channels over one second from sample `at`.

    returns: the delay of the decoded signal at which the two are most alike, and its polarity"""
    block = original[at:at + RATE].astype(float).sum(axis=1)
    shifted = decoded[at:at + RATE + LONGEST_DELAY].astype(float).sum(axis=1)
    energy = numpy.convolve(shifted ** 2, numpy.ones(RATE), 'valid')
    likeness = numpy.correlate(shifted, block) / numpy.sqrt(energy + 1)  # silence has no energy
    delay = int(numpy.argmax(abs(likeness)))
    return delay, numpy.sign(likeness[delay])


def decibels(ratio):
    return 10 * numpy.log10(ratio)


def table_row(cells):
    return '| ' + ' | '.join(cells) + ' |'


def table(head, rows):
    return ''.join(table_row(row) + '\n' for row in [head, ['---'] * len(head), *rows])


def profile_table(costs, count, name):
    total = sum(costs.values())
    largest = sorted(costs.items(), key=lambda item: -item[1])[:count]
    return table([name, 'Instructions per second', 'Share'],
                 [(f'`{key}`', f'{cost / 1e3:.0f} k', f'{100 * cost / total:.1f} %')
                  for key, cost in largest])
