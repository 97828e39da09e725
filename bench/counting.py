"""Counts of instructions, which are the same in every run."""
import collections
import os
import re
import struct
import subprocess
import sys

from measuring import FRAME_SAMPLES, RATE, SAMPLE_SECONDS, run

# What encode_frames encodes: the settings, and the samples, a row for each time.
Stream = collections.namedtuple('Stream', 'pcm sample_rate bit_rate pns tns',
                                defaults=(RATE, 128000, 0, 0))

# Counts by function what the emulator prints: every block before its first run, sometimes twice, and
# every run of a block. An instruction that the disassembler does not know is two lines, one of them
# of bytes.
BY_BLOCKS = r'''
/^IN:/ { listed = 0 }
/^0x/ && !/\.byte/ { listed++ }
/^Trace/ {
    if (listed) { instructions[$3] = listed; listed = 0 }
    name[$3] = $NF
    runs[$3]++
}
END {
    for (block in runs) { count[name[block]] += runs[block] * instructions[block] }
    for (function_name in count) { printf "%.0f %s\n", count[function_name], function_name }
}
'''


def short_name(function):
    """Without the types of its arguments, its template and its result."""
    words = re.split(r'[(<]', function.replace('(anonymous namespace)::', ''))[0].split()
    return words[-1] if words else function


def callgrind(command, folder, *options):
    """Instructions by function and object: {(function, object): count}."""
    out = folder / 'callgrind.out'
    run(['valgrind', '--tool=callgrind', f'--callgrind-out-file={out}', *options] + command)
    listing = run(['callgrind_annotate', '--threshold=100', '--show=Ir', out])
    costs = {}
    for count, name in re.findall(r'^ *([\d,]+) \([ \d.]+%\)  (\S.*)$', listing, re.M):
        library = re.search(r'\[(.*)\]$', name)
        function = short_name(re.sub(r'^[^:]*:| \[.*$', '', name))
        key = function, os.path.basename(library.group(1)) if library else ''
        if name != 'PROGRAM TOTALS':
            costs[key] = costs.get(key, 0) + int(count.replace(',', ''))
    return costs


def per_second(command_for, seconds, folder, *options):
    """Instructions per second of programme: a long run less a short one."""
    short = SAMPLE_SECONDS
    few = callgrind(command_for(short), folder, *options)
    many = callgrind(command_for(seconds), folder, *options)
    return {key: (count - few.get(key, 0)) / (seconds - short) for key, count in many.items()}


def by(costs, index):
    sums = {}
    for key, cost in costs.items():
        sums[key[index]] = sums.get(key[index], 0) + cost
    return sums


def write_streams(path, streams):
    """Writes whole frames of each stream for encode_frames."""
    with open(path, 'wb') as file:
        for stream in streams:
            frames = len(stream.pcm) // FRAME_SAMPLES
            file.write(struct.pack('=6i', stream.sample_rate, stream.pcm.shape[1], stream.bit_rate,
                                   stream.pns, stream.tns, frames))
            file.write(stream.pcm[:frames * FRAME_SAMPLES].astype('int16').tobytes())


def count_on_x86(build_folder, stream, folder):
    """Instructions of the encoder by function."""
    path = folder / 'stream'
    write_streams(path, [stream])
    return by(callgrind([build_folder / 'bin/encode_frames', path], folder,
                        '--toggle-collect=QVR_AAC_ENC'), 0)


def count_on_arm(build_folder, stream, folder):
    """Instructions by function of encode_frames for 32-bit ARM.

    Their sum is the number of `Trace` lines of `qemu-arm -singlestep -d exec,nochain`, in less than
    a tenth of its time.
    """
    path = folder / 'stream'
    write_streams(path, [stream])
    command = ['qemu-arm', '-d', 'in_asm,exec,nochain', '-D', '/dev/stdout',
               build_folder / 'bin/encode_frames', path]
    with subprocess.Popen(command, stdout=subprocess.PIPE) as emulator:
        lines = run(['awk', BY_BLOCKS], stdin=emulator.stdout)
    if emulator.returncode != 0:
        sys.exit(f'failed: {command}')
    costs = {}
    for line in run(['c++filt', '-p'], input=lines).splitlines():
        count, function = line.split(' ', 1)
        function = short_name(function)
        costs[function] = costs.get(function, 0) + int(count)
    return costs


def per_frame(count, build_folder, stream, first, end, folder):
    """Instructions by function of a frame, as `count` counts, on average from `first` to `end`."""
    few, many = (count(build_folder, stream._replace(pcm=stream.pcm[:frames * FRAME_SAMPLES]),
                       folder) for frames in (first, end))
    return {function: (cost - few.get(function, 0)) / (end - first)
            for function, cost in many.items()}


def frame_costs(command, folder):
    """Instructions of each call of the encoder, those that open and close one included."""
    out = folder / 'calls.out'
    run(['valgrind', '--tool=callgrind', f'--callgrind-out-file={out}', '--combine-dumps=yes',
         '--dump-after=QVR_AAC_ENC', '--toggle-collect=QVR_AAC_ENC'] + command)
    return [int(total) for total in re.findall(r'^totals: (\d+)', out.read_text(), re.M)][:-1]


def stream_frame_costs(build_folder, streams, folder):
    """Instructions of each frame of each stream."""
    path = folder / 'streams'
    write_streams(path, streams)
    calls = frame_costs([build_folder / 'bin/encode_frames', path], folder)
    costs = []
    for stream in streams:
        frames = len(stream.pcm) // FRAME_SAMPLES
        costs.append(calls[1:1 + frames])
        calls = calls[frames + 2:]
    return costs
