"""The sections of docs/performance.md on the way of a buffer and the start of a recording."""
from measuring import table

SLOW = 10000000
STORAGES = {(0, 0): 'memory', (SLOW, 0): '10 MB/s', (SLOW, 100): '10 MB/s, stalls of 0.1 s',
            (SLOW, 500): '10 MB/s, stalls of 0.5 s', (SLOW, 2000): '10 MB/s, stalls of 2 s'}
CHECKPOINTS = {0: 'none', 1000: '1 s'}
BUFFERS = (4, 8, 16, 32, 64, 151, 235)


def time_text(time_ns):
    """Three digits in the largest unit of which there is at least one."""
    for unit, unit_ns in ('s', 1e9), ('ms', 1e6):
        if time_ns >= unit_ns:
            return f'{time_ns / unit_ns:.3g} {unit}'
    return f'{time_ns / 1e3:.3g} us'


def cells(entry, *names):
    return [time_text(entry[name]) for name in names]


def by_settings(results, prefix):
    """The results of one benchmark by its arguments: {(first, second, ...): entry}."""
    found = {}
    for entry in results:
        name, *settings = entry['name'].split('/')
        if name == prefix:
            values = (setting.partition(':') for setting in settings)
            found[tuple(int(value) for key, _, value in values
                        if value and key != 'iterations')] = entry
    return found


def handling_rows(results):
    found = by_settings(results, 'handle_buffers')
    return [[name, CHECKPOINTS[interval]] +
            cells(found[*storage, interval], 'picture_ns', 'sound_ns', 'nearly_all_ns',
                  'longest_ns')
            for storage, name in STORAGES.items() for interval in CHECKPOINTS
            if (*storage, interval) in found]


def stall_text(time_ms):
    """Rounded down: the benchmark looks once a millisecond."""
    return '-' if time_ms < 0 else f'{time_ms // 10 / 100:.2f} s'


def outlasted_rows(results):
    found = {interval: entry for (_, interval), entry
             in by_settings(results, 'outlast_buffers').items()}
    names = [(port, interval) for port in (0, 1) for interval in CHECKPOINTS]
    return [[str(count)] + [stall_text(found[interval][f'{port}_{count}'])
                            for port, interval in names]
            for count in BUFFERS if f'0_{count}' in found[0]]


def start_rows(results):
    found = by_settings(results, 'begin_recordings')
    return [[STORAGES[rate, 0], CHECKPOINTS[interval]] +
            cells(found[rate, interval], 'request_ns', 'recorded_ns', 'recorded_most_ns',
                  'picture_ns', 'picture_most_ns', 'in_callback_ns')
            for rate in (0, SLOW) for interval in CHECKPOINTS]


def buffer_sections(benchmark, extent):
    results = benchmark('bench_buffers', extent)
    stalls = benchmark('bench_stalls', extent, 'outlast_buffers')
    first_ns = by_settings(results, 'begin_recordings')[0, 0]['request_most_ns']
    handling = table(['Storage', 'Checkpoints', 'Picture, median', 'Sound, median',
                      '99.9 % of all', 'Most'], handling_rows(results))
    outlasted = table(['Buffers', 'Pictures', 'with checkpoints', 'Sound', 'with checkpoints'],
                      outlasted_rows(stalls))
    starts = table(['Storage', 'Checkpoints', 'Start call', 'Start to first picture', 'most',
                    'Parameter sets to first picture', 'most', 'of it in the callback'],
                   start_rows(results))
    return f'''
## The way of a buffer

What the buffer thread spends in one buffer, measured around each call of the component's buffer
callback: the query of the storage, the times, the encoder, the copy into the cache, the writes and
the requests of syncs. It contains neither the way to the thread nor the way back to the player:

{handling}
Each row is a recording of the sample programme, at least a minute, at 460 kbit/s: a buffer is handed
in when the one before has come back. Every figure is the least of three recordings; rows with stalls
are of one. A slow storage takes each write at its rate, without any cache in the system. It stalls
once a minute, with a write. The system's cache, where there is one, shortens the times.

- Nearly all buffers only meet the processor. The others meet a write: without checkpoints that of a
  whole cache of 1 MiB, every 18 s, and with checkpoints of 1 s that of the bytes of 0.8 s.
- A stall is added to the write that it meets. No buffer waits for a sync.
- On memory the worst buffers contain what the machine itself does meanwhile.

The longest stall at which a player with so many buffers of a port refuses nothing. The storage takes
10 MB/s. The player hands in 30 pictures a second, and sound in buffers of 1024 samples at 48 kHz:

{outlasted}
The stalled write takes the time of its own bytes after the stall. With checkpoints fewer bytes wait in
the cache, and the stall may be as much longer. "-": the buffers do not last for the write of a full
cache, and the player refuses without any stall. What a stall leaves is consumed at once after it.

## The start of a recording

From the start request until the first picture is in the cache, with one buffer without a picture
before it; and from handing in the first parameter sets, with that picture, until it has come back.
The player sends each buffer when the one before has come back, so that the ways to the buffer thread
and back are included. Median, and most, of many starts of one component:

{starts}
- The start call clears the 4 MiB of the sound's memory, and creates no file. The first call of a
  component gets this memory from the system, which took {time_text(first_ns)} here on memory.
- The first parameter sets create the file. Without checkpoints they write nothing: the first write
  comes with the full cache. With checkpoints they also write the head of the file and that of the
  journal, 201 bytes in all, open three more descriptors and start the thread that syncs. No sync is
  waited for, but a storage that stalls in these writes stalls the start.
- The slow storage creates files as fast as memory does. Each of its writes sleeps at least as long
  as the system's timer needs.
'''
