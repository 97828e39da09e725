"""The rows of docs/performance.md about the recovery of interrupted recordings and about
`tdmbrec info`: their speed, and their memory for a short and for a long recording.
"""
import collections
import functools
import os
import time

from measuring import run, usage_of, write_loop

SOURCE_SECONDS = 600
LOOPS = (3, 49)        # about 100 MB, and 1.7 GB with 2.3 million frames
QUICK_LOOPS = (1, 2)
HEAD_BYTES = 36        # before the media data
RUNS = 2
LEAST_SPEED = 'at least 300 MB/s; memory flat'

# A command's speed over the media data, and what it used; user_seconds is without the kernel.
Speed = collections.namedtuple('Speed', 'megabytes_per_second cpu_seconds user_seconds '
                                        'resident_mib')


def speed_of(command, media_bytes, prepare=lambda: None):
    """The fastest of several runs."""
    best = None
    for _ in range(RUNS):
        prepare()
        begin = time.monotonic()
        usage = usage_of(command)
        rate = media_bytes / 1e6 / (time.monotonic() - begin)
        if best is None or rate > best.megabytes_per_second:
            best = Speed(rate, usage.cpu_seconds, usage.user_seconds,
                         usage.resident_kib / 1024)
    return best


def measure_one(programs, source, loops, folder):
    """Interrupts and recovers a recording in each way. returns: {name: Speed}"""
    tdmbrec = programs / 'tdmbrec'
    media, journal, output = (folder / name for name in ('x.mp4', 'x.mp4.journal', 'out.mp4'))
    run([programs / 'interrupted_loop', source, loops, media])
    media_bytes = media.stat().st_size
    with open(media, 'rb') as file:
        head = file.read(HEAD_BYTES)
    kept_journal = journal.read_bytes()

    def interrupt(has_journal):
        with open(media, 'r+b') as file:
            file.write(head)
            file.truncate(media_bytes)
        journal.unlink(missing_ok=True)
        output.unlink(missing_ok=True)
        if has_journal:
            journal.write_bytes(kept_journal)
        with open(media, 'rb') as file:  # into the cache: the processor is measured
            while file.read(1 << 20):
                pass

    to_file = [tdmbrec, 'recover', media, '--like', source, '--output', output, '--force']
    in_place = [tdmbrec, 'recover', media, '--like', source, '--in-place']
    speeds = {}
    for has_journal in (True, False):
        for name, command in (('new file', to_file), ('in place', in_place)):
            speeds[name, has_journal] = speed_of(command, media_bytes,
                                                 functools.partial(interrupt, has_journal))
            output.unlink(missing_ok=True)
    speeds['info'] = speed_of([tdmbrec, 'info', media], media_bytes)
    os.unlink(media)
    return speeds


def cell(short, long):
    return (f'{long.megabytes_per_second:.0f} MB/s, {long.cpu_seconds:.1f} s of CPU, '
            f'{long.user_seconds:.1f} s of it outside the kernel; '
            f'{short.resident_mib:.0f} and {long.resident_mib:.0f} MiB resident')


def recovery_rows(programs, is_quick, folder):
    """in: programs: the folder of the measured build; folder: with room for 4 GB"""
    video, audio = write_loop(folder, SOURCE_SECONDS)
    source = folder / 'source.mp4'
    run([programs / 'tdmbrec', 'record', '--video', video, '--audio', audio, '--output', source])
    extents = QUICK_LOOPS if is_quick else LOOPS
    short, long = (measure_one(programs, source, loops, folder) for loops in extents)
    sizes = [loops * source.stat().st_size / 1e6 for loops in extents]
    named = {('new file', True): 'Recovery from the journal into a new file',
             ('in place', True): 'Recovery from the journal in place',
             ('new file', False): 'Recovery without a journal into a new file',
             ('in place', False): 'Recovery without a journal in place',
             'info': '`tdmbrec info`'}
    return [(f'{name}, {sizes[0]:.0f} and {sizes[1]:.0f} MB', LEAST_SPEED,
             cell(short[key], long[key])) for key, name in named.items()]
