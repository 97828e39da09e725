#!/usr/bin/python3
"""Measures the recorder against its targets and writes docs/performance.md.

usage: bench/performance.py [--quick]

Builds what it measures below build/. --quick shortens every measurement, to try the script, and
writes nothing. Needs the packages of `scripts/install_dependencies.sh tests`; takes about nine
minutes on a machine that does nothing else.
"""
import collections
import datetime
import os
import pathlib
import pty
import re
import statistics
import sys
import tempfile
import time

from buffer_rows import buffer_sections
from builds import ARM, NO_VECTORS, RELEASE, benchmark, build, named
from counting import by, per_second
from encoder_rows import measure_encoder
from measuring import (ROOT, SAMPLE_SECONDS, end, profile_table, read_arguments, run, start, table,
                       usage_of, write_loop)
from recovery_rows import recovery_rows

# How much is measured: alternating pairs, seconds of programme, pairs and seconds of paced
# recordings, and the benchmarks' own settings.
Extent = collections.namedtuple('Extent', 'pairs encoder_seconds profile_seconds client_seconds '
                                          'growth_loops paced arm_seconds benchmark_options '
                                          'environment')
WHOLE = Extent(pairs=5, encoder_seconds=600, profile_seconds=60, client_seconds=(600, 7200),
               growth_loops=(1, 30, 360, 2160), paced=(24, 60), arm_seconds=(1, 11),
               benchmark_options=[], environment={'RECORDER_BENCH': 'whole'})
QUICK = Extent(pairs=1, encoder_seconds=60, profile_seconds=20, client_seconds=(10, 60),
               growth_loops=(1,), paced=(2, 10), arm_seconds=(1, 2),
               benchmark_options=['--benchmark_min_time=0.01'],
               environment={'RECORDER_BENCH': ''})


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
    return end(process), longest


def record_with(video, audio, folder):
    return [RELEASE / 'bin/tdmbrec', 'record', '--video', video, '--audio', audio,
            '--output', folder / 'out.mp4', '--force']


def measure_muxer(extent):
    results = benchmark('bench_mp4mux', extent)
    write, = named(results, 'beside_fwrite')
    copy, = named(results, 'beside_ffmpeg_copy')
    shared, owned = (named(results, f'beside_libavformat/owned:{owned}')[0] for owned in (0, 1))
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
         f'{owned["ratio"]:.3f}: {owned["mux"]:.0f} ns, '
         f'{owned["av_write_frame"]:.0f} ns per frame'),
        ('Muxer, allocations and file writes', 'none; one per full cache',
         f'{flat["allocations"]:.0f} in 2 million frames; {flat["writes_a_cache"]:.3f} per cache'),
        ('Close, CPU compared with copying the tables', 'at most 1.5 times',
         f'{close["ratio"]:.2f} times at {close["MB"]:.0f} MB, {close["tables_MB"]:.0f} MB of '
         'tables'),
        ('Close, CPU by samples and by bytes', 'with samples, not with bytes',
         ', '.join(f'{entry["mux"]:.1f} ms for {entry["tables_MB"]:.0f} MB of tables in '
                   f'{entry["MB"]:.0f} MB' for entry in closes))]
    return rows, {'fwrite': write['fwrite'] / copy['ffmpeg_all'], 'shared': shared['ratio']}


def measure_component(extent):
    results = benchmark('bench_component', extent, '-grow')
    one, two = named(results, 'record_programme')
    encode, = named(results, 'encode_programme')
    by_cpu = [entry['x_real_time'] * entry['real_time'] / entry['cpu_time']
              for entry in (one, encode)]
    speed = [by_cpu[0], two['x_real_time'], by_cpu[1]]
    picture, copy = named(results, 'record_pictures')[0], named(results, 'copy_pictures')[0]
    query, = named(results, 'query_storage')
    rests = named(results, 'rest_')
    grown = [(loops * SAMPLE_SECONDS,
              benchmark('bench_component', extent, f'grow_resident/loops:{loops}/')[0]['KiB'])
             for loops in extent.growth_loops]
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


def paced_cpu_ratio(extent, root):
    """CPU time of paced recordings with checkpoints, compared with others meanwhile without."""
    pairs, seconds = extent.paced
    with tempfile.TemporaryDirectory(dir=root) as name:
        folder = pathlib.Path(name)
        video, audio = write_loop(folder, seconds)
        recordings = []
        for pair in range(pairs):
            for interval in ('0', '1'):
                output = folder / f'{pair}-{interval}.mp4'
                recordings.append((interval, start(
                    [RELEASE / 'bin/tdmbrec', 'record', '--realtime', '--checkpoint', interval,
                     '--video', video, '--audio', audio, '--output', output])))
        cpu_seconds = {'0': [], '1': []}
        for interval, process in recordings:
            cpu_seconds[interval].append(end(process).cpu_seconds)
        return statistics.median(cpu_seconds['1']) / statistics.median(cpu_seconds['0'])


def percent_more(ratio):
    return f'{100 * (ratio - 1):.1f} %'


def measure_checkpoints(extent, folder):
    results = benchmark('bench_checkpoints', extent)
    plain, checked, slow, slow_checked = (
        named(results, f'record_to_storage/checkpoint:{interval}/rate:{rate}/')[0]
        for rate in (0, 10000000) for interval in (0, 1000))
    kbit_per_s = plain['media_bytes'] * 8 / 60 / 1000
    instructions = [
        sum(per_second(lambda s: record_with(*write_loop(folder, s), folder) +
                       ['--checkpoint', interval], extent.profile_seconds, folder).values())
        for interval in ('0', '1')]
    in_memory, on_disk = (percent_more(paced_cpu_ratio(extent, root))
                          for root in ('/dev/shm', folder))
    return [
        ('Checkpoints of 1 s, bytes of the journal', 'at most 0.75 % of 450 kbit/s',
         f'{100 * checked["journal_bytes"] / checked["media_bytes"]:.2f} % of '
         f'{kbit_per_s:.0f} kbit/s'),
        ('Checkpoints of 1 s, writes a minute', 'for information',
         f'{checked["media_writes"]:.0f} of media data and {checked["journal_writes"]:.0f} of the '
         f'journal; without checkpoints {plain["media_writes"]:.0f}'),
        ('Checkpoints of 1 s, additional CPU', 'at most 2 %',
         f'{percent_more(instructions[1] / instructions[0])} of the instructions outside the '
         f'kernel; {in_memory} of the time of a paced recording to memory, {on_disk} to a disk'),
        ('Checkpoints of 1 s, longest time in one buffer', 'no longer than without them',
         f'{slow_checked["longest_ms"]:.1f} ms on a storage of 10 MB/s, without them '
         f'{slow["longest_ms"]:.1f} ms')]


def measure_library():
    library = ARM / 'lib/libOMX.QVR.tdmbrec.so'
    with tempfile.NamedTemporaryFile() as stripped:
        run(['arm-linux-gnueabihf-strip', '-o', stripped.name, library])
        size = os.path.getsize(stripped.name)
    return [('Memory, stripped library for 32-bit ARM', 'under 200 KiB', f'{size / 1024:.0f} KiB'),
            ('Memory, the encoder\'s work block on 32 bits', 'at most 25,000 bytes',
             '25,000 bytes or the build fails (asserted)')]


def measure_client(extent, folder):
    short, long = extent.client_seconds
    few = usage_of(record_with(*write_loop(folder, short), folder))
    inputs = write_loop(folder, long)
    many, stale_seconds = usage_on_terminal(record_with(*inputs, folder))
    for path in inputs:
        path.unlink()
    profile = per_second(lambda s: record_with(*write_loop(folder, s), folder),
                         extent.profile_seconds, folder)
    return [('Client, a programme of two hours', 'CPU in encoder and input; memory flat',
             f'{many.cpu_seconds:.1f} s of CPU for {long} s; {many.resident_kib / 1024:.0f} MiB '
             f'resident at most, {few.resident_kib / 1024:.0f} MiB for {short} s'),
            ('Client, age of the progress shown', 'at most 1 s',
             f'{stale_seconds:.2f} s while {long} s are recorded')], profile


def machine():
    with open('/proc/cpuinfo', encoding='ascii') as info:
        model = re.search(r'model name\s*: (.*)', info.read())
    compiler = run(['c++', '--version']).splitlines()[0]
    return (f'{model.group(1) if model else "unknown processor"}, {os.cpu_count()} cores; '
            f'{compiler}; release preset (`-O3 -DNDEBUG`); portable build: '
            f'`{" ".join(NO_VECTORS)}`; {datetime.date.today()}.')


def page(extent, rows, muxer, encoder_profile, client):
    return f'''# Performance

Written by `bench/performance.py`. {machine()}

{table(['What', 'Target', 'Measured'], rows)}
Times are the median of {extent.pairs} alternating pairs, or the least of several runs where both sides run
in one program. Nothing here is a test: no check fails because a machine is slow.

- `ffmpeg -c copy`: the kernel's copy of the bytes into the file takes most of the time on both sides;
  `fwrite` of the same frames alone takes {muxer['fwrite']:.2f} of the whole command. The table
  therefore compares the programs without that copy, and also as a whole.
- libavformat gets packets that own their bytes, like those of a reader or an encoder. With packets
  that only point to shared bytes it copies nothing, and the muxer takes {muxer['shared']:.2f} of its time.
- The component's speed on one core, as on a device, is measured in CPU time of the process, client
  included. On two cores it is measured in elapsed time, and the buffers' bytes move between the cores.
- Checkpoints: on the slow storage every write sleeps for the time of its bytes, as if the system had
  no cache, and every sync for that of all bytes since the last one and 50 ms more. A checkpoint waits
  for the bytes of 0.8 s, a recording without checkpoints for a whole cache of 1 MiB. The CPU time of
  paced recordings is the median of {extent.paced[0]} pairs at the same time, {extent.paced[1]} s each.
- Recovery without a journal parses every sound frame, because only its last bit shows where the next
  frame begins; that is most of its time outside the kernel. A new file adds the kernel's time
  for reading and writing all bytes. The files are in the system's cache.
- The client's memory contains the libraries that read the input, the buffers, and the memory of the
  recording, whose growth has its own row.

{encoder_profile}
## Where a recording's time goes

By library, instructions per second of programme, `tdmbrec record` from raw H.264 and WAV.
`libOMX.QVR.tdmbrec.so` is the component with its encoder and muxer; `libav...` reads the input:

{profile_table(by(client, 1), 8, 'Library')}'''


def main():
    arguments = read_arguments(__doc__)
    if arguments not in ([], ['--quick']):
        sys.exit(__doc__)
    extent = QUICK if arguments else WHOLE
    build()
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        encoder_rows, encoder_profile = measure_encoder(extent, folder)
        client_rows, client = measure_client(extent, folder)
        checkpoint_rows = measure_checkpoints(extent, folder)
        checkpoint_rows += recovery_rows(RELEASE / 'bin', extent is QUICK, folder)
    muxer_rows, muxer = measure_muxer(extent)
    rows = [*encoder_rows,
            *muxer_rows,
            *measure_component(extent),
            *checkpoint_rows,
            *measure_library(),
            *client_rows]
    text = page(extent, rows, muxer, encoder_profile, client)
    text += buffer_sections(benchmark, extent)
    print(text)
    if extent is WHOLE:
        (ROOT / 'docs/performance.md').write_text(text, encoding='utf-8')


if __name__ == '__main__':
    main()
