#!/usr/bin/python3
"""Measures the recorder against its targets and writes docs/performance.md.

usage: bench/performance.py [--quick]

Builds what it measures below build/. --quick shortens every measurement, to try the script, and
writes nothing. Needs the packages of `scripts/install_dependencies.sh tests`; takes about three
minutes on a machine that does nothing else.
"""
import datetime
import json
import os
import pathlib
import pty
import re
import subprocess
import sys
import tempfile
import time
import wave

ROOT = pathlib.Path(__file__).resolve().parent.parent
QUICK = '--quick' in sys.argv
PAIRS = 1 if QUICK else 5
SAMPLE_SECONDS = 10
RELEASE = ROOT / 'build/measured'
PORTABLE = ROOT / 'build/portable'
ARM = ROOT / 'build/arm-library'
NO_VECTORS = ['-DTDMBREC_VECTOR=OFF', '-DCMAKE_CXX_FLAGS=-fno-tree-vectorize',
              '-DTDMBREC_TESTS=OFF', '-DTDMBREC_BENCH=OFF']
BUILDS = [('release', RELEASE, ['-DTDMBREC_TESTS=OFF']),
          ('release', PORTABLE, NO_VECTORS),
          ('arm', ARM, ['-DTDMBREC_TESTS=OFF'])]

# The encoder's functions by what they do.
STAGES = {'transform': 'transform_|AACENC_gCmplxFft|AACE_FFT|buffer2freq|leave_rows',
          'rate loop and packing': 'raise_lines|choose_codebook|pack_codewords|quantise|'
                                   'sort_book_numbers|settle_gain|tf_encode_spectrum_aac',
          'writing of elements': 'bitstream_put|write_|Write|BsPutBit',
          'other': ''}


def run(command, **options):
    return subprocess.run([str(word) for word in command], check=True, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)


def build():
    for preset, folder, settings in BUILDS:
        run(['cmake', '--fresh', '--preset', preset, '-B', folder] + settings, cwd=ROOT)
        run(['cmake', '--build', folder, '-j', os.cpu_count()])


def start(command, errors=subprocess.DEVNULL):
    return subprocess.Popen([str(word) for word in command], stdout=subprocess.DEVNULL,
                            stderr=errors)


def end(process):
    """CPU seconds and largest resident memory (KiB) of the process, which has succeeded."""
    _, status, usage = os.wait4(process.pid, 0)
    if status != 0:
        sys.exit(f'failed: {process.args}')
    return usage.ru_utime + usage.ru_stime, usage.ru_maxrss


def usage_of(command):
    return end(start(command))


def usage_on_terminal(command):
    """As usage_of, with the longest time in seconds in which the terminal showed nothing new."""
    reading, writing = pty.openpty()
    process = start(command, writing)
    os.close(writing)
    times = [time.monotonic()]
    try:
        while os.read(reading, 4096):
            times.append(time.monotonic())
    except OSError:  # the terminal is gone with the process
        os.close(reading)
    longest = max(b - a for a, b in zip(times, times[1:]))
    return *end(process), longest


def loop_sample(folder, seconds):
    """The sample programme over and over. returns the paths of video and sound"""
    loops = round(seconds / SAMPLE_SECONDS)
    video, sound = folder / f'{seconds}.h264', folder / f'{seconds}.wav'
    picture_bytes = (ROOT / 'samples/programme.h264').read_bytes()
    with open(video, 'wb') as out:
        for _ in range(loops):
            out.write(picture_bytes)
    with wave.open(str(ROOT / 'samples/programme.wav')) as sample, wave.open(str(sound), 'wb') as out:
        frames = sample.readframes(sample.getnframes())
        out.setparams(sample.getparams())
        for _ in range(loops):
            out.writeframesraw(frames)
    return video, sound


def callgrind(command, folder, *options):
    """Instructions by function and object: {(function, object): count}."""
    out = folder / 'callgrind.out'
    run(['valgrind', '--tool=callgrind', f'--callgrind-out-file={out}', *options] + command)
    listing = run(['callgrind_annotate', '--threshold=100', '--show=Ir', out]).stdout
    costs = {}
    for count, name in re.findall(r'^ *([\d,]+) \([ \d.]+%\)  (\S.*)$', listing, re.M):
        library = re.search(r'\[(.*)\]$', name)
        function = re.sub(r'^[^:]*:|(\(.*)? \[.*$', '', name)
        key = function, os.path.basename(library.group(1)) if library else ''
        if name != 'PROGRAM TOTALS':
            costs[key] = costs.get(key, 0) + int(count.replace(',', ''))
    return costs


def per_second(command_for, folder, *options):
    """Instructions per second of programme: a long run less a short one."""
    short, long = 10, 20 if QUICK else 60
    few = callgrind(command_for(short), folder, *options)
    many = callgrind(command_for(long), folder, *options)
    return {key: (count - few.get(key, 0)) / (long - short) for key, count in many.items()}


def encode_with(build_folder, sound, folder):
    return [build_folder / 'bin/tdmbrec', 'encode', sound, '--output', folder / 'out.aac',
            '--force']


def record_with(video, sound, folder):
    return [RELEASE / 'bin/tdmbrec', 'record', '--video', video, '--audio', sound,
            '--output', folder / 'out.mp4', '--force']


def measure_encoder(folder):
    seconds = 60 if QUICK else 600
    _, sound = loop_sample(folder, seconds)
    ffmpeg = ['ffmpeg', '-nostdin', '-v', 'error', '-y', '-i', sound, '-c:a', 'aac',
              '-aac_coder', 'fast', '-b:a', '128000', folder / 'other.aac']
    pairs = [(usage_of(encode_with(RELEASE, sound, folder))[0], usage_of(ffmpeg)[0])
             for _ in range(PAIRS)]
    ours, other = (sorted(times)[len(pairs) // 2] for times in zip(*pairs))
    ratio = sorted(b / a for a, b in pairs)[len(pairs) // 2]
    plain, _ = usage_of(encode_with(PORTABLE, sound, folder))
    fast_costs, plain_costs = (
        by(per_second(lambda s: encode_with(build_folder, loop_sample(folder, s)[1], folder),
                      folder, '--toggle-collect=QVR_AAC_ENC'), 0)
        for build_folder in (RELEASE, PORTABLE))
    total = sum(plain_costs.values())
    rows = [
        ('Encoder, CPU compared with `ffmpeg -aac_coder fast`', 'at least 8 times as fast',
         f'{ratio:.1f} times: {ours:.2f} s, {other:.2f} s for {seconds} s of sound'),
        ('Encoder, times real time', '1,000', f'{seconds / ours:.0f}; portable build '
         f'{seconds / plain:.0f}'),
        ('Encoder, portable build, instructions per second of stereo', 'at most 15 million',
         f'{total / 1e6:.1f} million')]
    return rows, (fast_costs, plain_costs)


def benchmark(program, names='.', **environment):
    arguments = [RELEASE / 'bin' / program, '--benchmark_format=json',
                 f'--benchmark_filter={names}']
    if QUICK:
        arguments.append('--benchmark_min_time=0.01')
    result = run(arguments, env={**os.environ, **environment}).stdout
    results = json.loads(result[result.index('{'):])['benchmarks']
    for entry in results:
        if entry.get('error_occurred'):
            sys.exit(f'{program}: {entry["name"]}: {entry["error_message"]}')
    return results


def named(results, start):
    return [entry for entry in results if entry['name'].startswith(start)]


def measure_muxer():
    results = benchmark('bench_mp4mux')
    write, = named(results, 'beside_fwrite')
    copy, = named(results, 'beside_ffmpeg_copy')
    shared, null = (named(results, f'beside_libavformat/owned:{owned}')[0] for owned in (0, 1))
    flat, = named(results, 'over_many_frames')
    closes = named(results, 'close_recording')
    close = max(closes, key=lambda entry: entry['MB'])
    rows = [
        ('Muxer, last tenth of 2 million frames compared with the first', 'at most 1.05',
         f'{flat["ratio"]:.2f}'),
        ('Muxer, CPU compared with `fwrite` of the same frames', 'at most 1.25 times',
         f'{write["ratio"]:.2f} times: {write["mux"]:.0f} ns, {write["fwrite"]:.0f} ns per frame'),
        ('Muxer, CPU compared with `ffmpeg -c copy`', 'at most a tenth',
         f'{copy["ratio"]:.3f} without the kernel\'s copy of the bytes, {copy["ratio_all"]:.2f} '
         'with it'),
        ('Muxer, null sink, CPU compared with libavformat', 'at most a fifth',
         f'{null["ratio"]:.3f}: {null["mux"]:.0f} ns, {null["av_write_frame"]:.0f} ns per frame'),
        ('Muxer, allocations and file writes', 'none; one per full cache',
         f'{flat["allocations"]:.0f} in 2 million frames; {flat["writes_a_cache"]:.3f} per cache'),
        ('Close, CPU compared with copying the tables', 'at most 1.5 times',
         f'{close["ratio"]:.2f} times at {close["MB"]:.0f} MB, {close["tables_MB"]:.0f} MB of '
         'tables'),
        ('Close, CPU by samples and by bytes', 'with samples, not with bytes',
         ', '.join(f'{entry["mux"]:.1f} ms for {entry["tables_MB"]:.0f} MB of tables in '
                   f'{entry["MB"]:.0f} MB' for entry in closes))]
    return rows, {'fwrite': write['fwrite'] / copy['ffmpeg_all'], 'shared': shared['ratio']}


def measure_component():
    length = {'RECORDER_BENCH': '' if QUICK else 'whole'}
    results = benchmark('bench_component', '-grow', **length)
    one, two = named(results, 'record_programme')
    encode, = named(results, 'encode_programme')
    by_cpu = [entry['x_real_time'] * entry['real_time'] / entry['cpu_time']
              for entry in (one, encode)]
    speed = [by_cpu[0], two['x_real_time'], by_cpu[1]]
    picture, copy = named(results, 'record_pictures')[0], named(results, 'copy_pictures')[0]
    query, = named(results, 'query_storage')
    rests = named(results, 'rest_')
    grown = [(loops * SAMPLE_SECONDS,
              benchmark('bench_component', f'grow_resident/loops:{loops}/', **length)[0]['KiB'])
             for loops in ((1,) if QUICK else (1, 30, 360, 2160))]
    closes = named(results, 'close_recording')
    return [
        ('Component, speed compared with the bare encoder', 'at least 80 %',
         f'{100 * speed[0] / speed[2]:.0f} % on one core: {speed[0]:.0f}, {speed[2]:.0f} times '
         f'real time; on two {100 * speed[1] / speed[2]:.0f} %'),
        ('Component, CPU per picture beyond the copy', 'at most 3 us',
         f'{picture["component_cpu"] * 1e6 - copy["cpu_time"] / 1e3:.2f} us on one core'),
        ('Component, one storage query', 'for information', f'{query["cpu_time"]:.0f} ns'),
        ('Component at rest (Executing; Paused with buffers)', 'no wake-up, no CPU in 10 s',
         '; '.join(f'{entry["switches"]:.0f} switches, {max(entry["cpu"], 0) * 1e3:.2f} ms'
                   for entry in rests)),
        ('Close, from request to event', 'at most 250 ms at 1.8 GB',
         ', '.join(f'{entry["real_time"]:.0f} ms at {entry["bytes"] / 1e6:.0f} MB'
                   for entry in closes)),
        ('Memory, resident growth of a recording', 'at most 9.3 MiB',
         ', '.join(f'{kib / 1024:.1f} MiB after {seconds} s' for seconds, kib in grown))]


def measure_library():
    library = ARM / 'lib/libOMX.QVR.tdmbrec.so'
    with tempfile.NamedTemporaryFile() as stripped:
        run(['arm-linux-gnueabihf-strip', '-o', stripped.name, library])
        size = os.path.getsize(stripped.name)
    return [('Memory, stripped library for 32-bit ARM', 'under 200 KiB', f'{size / 1024:.0f} KiB'),
            ('Memory, the encoder\'s work block on 32 bits', 'at most 25,000 bytes',
             '25,000 bytes or the build fails (asserted)')]


def measure_client(folder):
    short, long = (10, 60) if QUICK else (600, 7200)
    video, sound = loop_sample(folder, short)
    _, short_kib = usage_of(record_with(video, sound, folder))
    video, sound = loop_sample(folder, long)
    cpu, long_kib, stale = usage_on_terminal(record_with(video, sound, folder))
    for path in (video, sound):
        path.unlink()
    profile = per_second(lambda s: record_with(*loop_sample(folder, s), folder), folder)
    return [('Client, a programme of two hours', 'CPU in encoder and input; memory flat',
             f'{cpu:.1f} s of CPU for {long} s; {long_kib / 1024:.0f} MiB resident at most, '
             f'{short_kib / 1024:.0f} MiB for {short} s'),
            ('Client, age of the progress shown', 'at most 1 s',
             f'{stale:.2f} s while {long} s are recorded')], profile


def table(head, rows):
    lines = [head, ['---'] * len(head)] + [list(row) for row in rows]
    return '\n'.join('| ' + ' | '.join(row) + ' |' for row in lines) + '\n'


def profile_table(costs, count, name):
    total = sum(costs.values())
    largest = sorted(costs.items(), key=lambda item: -item[1])[:count]
    return table([name, 'Instructions per second', 'Share'],
                 [(f'`{key}`', f'{cost / 1e3:.0f} k', f'{100 * cost / total:.1f} %')
                  for key, cost in largest])


def stage_of(function):
    return next(stage for stage, names in STAGES.items() if re.match(names, function))


def stage_table(fast_costs, plain_costs):
    sums = {stage: [0, 0] for stage in STAGES}
    for column, costs in enumerate((fast_costs, plain_costs)):
        for function, cost in costs.items():
            sums[stage_of(function)][column] += cost / 1e6
    sums['whole'] = [sum(column) for column in zip(*sums.values())]
    return table(['Stage', '`-O3`', 'Portable'],
                 [[stage] + [f'{cost:.2f}' for cost in costs] for stage, costs in sums.items()])


def by(costs, index):
    sums = {}
    for key, cost in costs.items():
        sums[key[index]] = sums.get(key[index], 0) + cost
    return sums


def machine():
    with open('/proc/cpuinfo', encoding='ascii') as info:
        model = re.search(r'model name\s*: (.*)', info.read())
    compiler = run(['c++', '--version']).stdout.splitlines()[0]
    return (f'{model.group(1) if model else "unknown processor"}, {os.cpu_count()} cores; '
            f'{compiler}; release preset (`-O3 -DNDEBUG`); portable build: '
            f'`{" ".join(NO_VECTORS[:2])}`; {datetime.date.today()}.')


def page(rows, muxer, encoder, client):
    return f'''# Performance

Written by `bench/performance.py`. {machine()}

{table(['What', 'Target', 'Measured'], rows)}
Times are the median of {PAIRS} alternating pairs, or the least of several runs where both sides run
in one program. Nothing here is a test: no check fails because a machine is slow.

- `ffmpeg -c copy`: the kernel's copy of the bytes into the file takes most of the time on both sides;
  `fwrite` of the same frames alone takes {muxer['fwrite']:.2f} of the whole command. The table
  therefore compares the programs without that copy, and also as a whole.
- libavformat gets packets that own their bytes, like those of a reader or an encoder. With packets
  that only point to shared bytes it copies nothing, and the muxer takes {muxer['shared']:.2f} of its time.
- The component's speed on one core, as on a device, is measured in CPU time of the process, client
  included. On two cores it is measured in elapsed time, and the buffers' bytes move between the cores.
- The client's memory contains the libraries that read the input, the buffers, and the memory of the
  recording, whose growth has its own row.

## Where the encoder's time goes

By stage, million instructions per second of sound:

{stage_table(*encoder)}
By function, portable build, 48 kHz stereo at 128 kbit/s:

{profile_table(encoder[1], 14, 'Function')}
## Where a recording's time goes

By library, instructions per second of programme, `tdmbrec record` from raw H.264 and WAV.
`libOMX.QVR.tdmbrec.so` is the component with its encoder and muxer; `libav...` reads the input:

{profile_table(by(client, 1), 8, 'Library')}'''


def main():
    if {'-h', '--help'} & set(sys.argv):
        sys.exit(print(__doc__))
    if sys.argv[1:] not in ([], ['--quick']):
        sys.exit(__doc__)
    build()
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        encoder_rows, encoder = measure_encoder(folder)
        client_rows, client = measure_client(folder)
    muxer_rows, muxer = measure_muxer()
    rows = encoder_rows + muxer_rows + measure_component() + measure_library() + client_rows
    text = page(rows, muxer, encoder, client)
    print(text)
    if not QUICK:
        (ROOT / 'docs/performance.md').write_text(text, encoding='utf-8')


main()
